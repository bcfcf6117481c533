# SPDX-License-Identifier: Apache-2.0
"""Blocks between Python and C++ processes (slotctl, a program of the C++ library), both ways,
through every slot kind, the Python guide's example, and the surveys' documents."""

import json
import os
import re
import subprocess
import sys

import pytest

import libslot
from conftest import CHILD_TIMEOUT, SLOTCTL, check_child, lock_file, run_python, slotctl

BLOCKS = [b"a\0b", b"\0\0\0", b"\x01line\nnext\\\x7f", bytes(range(32, 127))]
WAIT = 30
ESCAPES = {ord("\n"): "\\n", ord("\t"): "\\t", ord("\r"): "\\r", ord("\\"): "\\\\"}


def text_line(block):
    """How `slotctl read` prints a block in its text format."""
    out = (ESCAPES.get(c) or ("\\x%02x" % c if c < 0x20 or c == 0x7F else chr(c)) for c in block)
    return f"{len(block)} bytes: " + "".join(out) + "\n"


def write_with_slotctl(name, type_, block):
    result = slotctl("write", name, "--type", type_, "-", input=block)
    assert result.returncode == 0, result.stderr.decode()


class SlotctlReader:
    """`slotctl read` in a child process, started and waited for until it reads."""

    def __init__(self, name, type_, count, fmt="text"):
        if not SLOTCTL:
            pytest.skip("slotctl is not built")
        self.proc = subprocess.Popen(
            [SLOTCTL, "read", name, "--type", type_, "--count", str(count), "--format", fmt,
             "--update-time", "1000", "--timeout", str(WAIT * 1000)],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        # It says so on stderr once its reader runs.
        line = self.proc.stderr.readline().decode()
        assert line.startswith("slotctl: reading"), line + self.proc.stderr.read().decode()

    def output(self):
        try:
            out, err = self.proc.communicate(timeout=CHILD_TIMEOUT)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.communicate()
            raise
        assert self.proc.returncode == 0, err.decode()
        return out


@pytest.mark.parametrize("type_", ["reliable", "discarding", "posix-pipe"])
def test_cpp_writer_to_python_reader(name, type_):
    with libslot.Reader(name, type=type_, update_time=1.0) as reader:
        for block in BLOCKS:
            write_with_slotctl(name, type_, block)  # a whole process per block
            # A pipe's blocks may come split or joined: read until the block's length came.
            got = reader.get(timeout=WAIT)
            while type_ == "posix-pipe" and len(got) < len(block):
                got += reader.get(timeout=WAIT)
            assert got == block


@pytest.mark.parametrize("type_", ["reliable", "discarding", "posix-pipe"])
def test_python_writer_to_cpp_reader(name, type_):
    if type_ == "reliable":
        with libslot.Writer(name, type="reliable") as writer:
            assert all(writer.write(b) is libslot.WriteOutcome.STORED for b in BLOCKS)
        reader = SlotctlReader(name, type_, len(BLOCKS))
        assert reader.output().decode() == "".join(text_line(b) for b in BLOCKS)
    elif type_ == "discarding":
        # Only blocks written after the reader started reach it: one at a time.
        reader = SlotctlReader(name, type_, 1)
        with libslot.Writer(name) as writer:
            writer.write(BLOCKS[0])
        assert reader.output().decode() == text_line(BLOCKS[0])
    else:
        reader = SlotctlReader(name, type_, 0, fmt="raw")
        with libslot.Writer(name, type="posix-pipe") as writer:
            for block in BLOCKS:
                writer.write(block)
        # A byte stream: read until everything came, then stop the child.
        want = b"".join(BLOCKS)
        got = b""
        while len(got) < len(want):
            chunk = os.read(reader.proc.stdout.fileno(), 65536)
            assert chunk, reader.proc.stderr.read().decode()
            got += chunk
        reader.proc.terminate()
        reader.proc.communicate(timeout=CHILD_TIMEOUT)
        assert got == want


def readme_example():
    """The tested Python block of docs/python.md, as written there."""
    readme = os.environ.get("SLOT_README") or os.path.join(
        os.path.dirname(__file__), "..", "..", "docs", "python.md")
    with open(readme, encoding="utf-8") as f:
        text = f.read()
    match = re.search(r"<!-- readme-test: python -->\s*```python\n(.*?)```", text, re.S)
    assert match, "docs/python.md has no tested Python example"
    return match.group(1)


def test_readme_example_runs_as_written(name):
    code = readme_example()
    assert len(code.strip().splitlines()) == 5
    assert code.count('"orders"') >= 1
    # The same code, on this run's own slot name.
    err = check_child(run_python(code.replace('"orders"', repr(name))), "b'block 1'\n")
    assert err == "", "a quiet module prints nothing of its own"
    assert libslot.inspect_slot(name).state is libslot.SlotState.ABSENT
    assert not os.path.exists(lock_file(name)), "remove_slot left the reader's lock file"


def _shape(value):
    """The keys of a JSON document, recursively, with the type of each value."""
    if isinstance(value, dict):
        return {key: _shape(item) for key, item in value.items()}
    if isinstance(value, list):
        return [_shape(item) for item in value]
    return "str" if isinstance(value, str) else type(value).__name__  # enums are str


def test_survey_documents_are_slotctls(name):
    """The Python survey gives slotctl's documents: the same keys in the same order, the same
    words (the enums' values) and the same numbers."""
    with libslot.Writer(name, type="reliable", queue_length=4) as writer:
        writer.write(b"one")
        shown = slotctl("info", "--json", name)
        assert shown.returncode == 0, shown.stderr.decode()
        expected = json.loads(shown.stdout)
        report = libslot.inspect_slot(name)
        assert _shape(report) == _shape(expected)
        assert list(report) == list(expected)
        assert (report.state, report.kind, report.header.state) == \
            (expected["state"], expected["kind"], expected["header"]["state"])
        assert (report.waiting, report.header.free) == (expected["waiting"],
                                                        expected["header"]["free"])
        listed = json.loads(slotctl("ls", "--json").stdout)
        entry = dict(next(e for e in libslot.list_slots() if e.name == name))
        other = next(e for e in listed if e["name"] == name)
        for document in (entry, other):  # a second may pass between the two looks
            del document["age_seconds"]
        assert entry == other


def test_pool_documents_are_slotctls(name):
    made = slotctl("write", name, "--type", "queue", "--max-size", "128", "--queue", "3", "block")
    assert made.returncode == 0, made.stderr
    report = libslot.pool_info(name)
    assert report.kind == "queue" and report.waiting == 1 and report.block_count == 3
    assert report == json.loads(slotctl("info", "--json", name).stdout)
    listed = [e for e in json.loads(slotctl("ls", "--json").stdout) if e["name"] == name]
    assert [e for e in libslot.survey_pools() if e.name == name] == listed
    slotctl("rm", "--pool", name)
    assert libslot.pool_info(name).state == "missing"
    assert not os.path.exists(libslot.pool_info(name).file)
