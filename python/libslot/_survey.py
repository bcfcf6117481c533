# SPDX-License-Identifier: Apache-2.0
"""Records of the slot survey: the documents that ``slotctl info --json`` and ``slotctl ls --json``
print, with the same keys (listed in docs/slotctl.md, "JSON output")."""

from __future__ import annotations

import enum
import json

from . import _native


def _enum_of(name: str, words, doc: str):
    """An enum of str whose values are the library's words; "no-access" is NO_ACCESS."""
    members = [(w.upper().replace("-", "_").replace(" ", "_"), w) for w in words]
    kind = enum.Enum(name, members, type=str, module=__name__, qualname=name)
    kind.__doc__ = doc
    return kind


SlotState = _enum_of("SlotState", _native.SLOT_STATES,
                     "State of a slot as listings show it (\"slot\" is a healthy one).")
SlotKind = _enum_of("SlotKind", _native.SLOT_KINDS,
                    "Kind of a slot, as far as its objects tell (None when they do not).")
PartState = _enum_of("PartState", _native.PART_STATES,
                     "State of one shared-memory object of a slot.")


class Record(dict):
    """A JSON object of the survey: a dict whose keys are also attributes (``report.state``,
    ``report.header.free``)."""

    def __getattr__(self, key):
        try:
            return self[key]
        except KeyError:
            raise AttributeError(key) from None


class SlotReport(Record):
    """A snapshot of one slot, taken without opening it, locking it or changing it."""


def _word(kind, text):
    try:
        return kind(text)
    except ValueError:  # a word this package does not know (or None): kept as it is
        return text


def _records(value):
    if isinstance(value, dict):
        return Record((key, _records(item)) for key, item in value.items())
    if isinstance(value, list):
        return [_records(item) for item in value]
    return value


def report_from_json(document: dict) -> SlotReport:
    """A SlotReport of a parsed survey document, its states and kind as enums."""
    report = SlotReport(_records(document))
    report["state"] = _word(SlotState, report["state"])
    report["kind"] = _word(SlotKind, report["kind"])
    for part in ("header", "queue"):
        if part in report:
            report[part]["state"] = _word(PartState, report[part]["state"])
    return report


def inspect_slot_report(name: str) -> SlotReport:
    return report_from_json(json.loads(_native.inspect_slot_json(name)))


def list_slot_reports():
    return [report_from_json(entry) for entry in json.loads(_native.list_slots_json())]


class PoolReport(Record):
    """A snapshot of one zero-copy pool, read without taking a block or a lock: the document of
    ``slotctl info --json`` for a pool (``state`` is "healthy", "damaged" or "missing")."""


def pool_info(name: str) -> PoolReport:
    """The pool ``name`` as ``slotctl info --json NAME`` shows it; state "missing" when there is
    no such pool."""
    return PoolReport(_records(json.loads(_native.inspect_pool_json(name))))


def survey_pools():
    """Every pool of the machine, sorted by name: the pool entries of ``slotctl ls --json``."""
    return [PoolReport(_records(entry)) for entry in json.loads(_native.list_pools_json())]
