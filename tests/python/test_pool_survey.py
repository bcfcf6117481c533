# SPDX-License-Identifier: Apache-2.0
"""The pools' survey in Python gives slotctl's documents: the same serializer, the same keys."""

import json
import os

import libslot

from conftest import slotctl, unique_name


def test_pool_documents_are_slotctls():
    name = unique_name("pool")
    try:
        made = slotctl("write", name, "--type", "queue", "--max-size", "128", "--queue", "3",
                       "block")
        assert made.returncode == 0, made.stderr
        report = libslot.pool_info(name)
        assert report.kind == "queue" and report.waiting == 1 and report.block_count == 3
        assert report == json.loads(slotctl("info", "--json", name).stdout)
        listed = [e for e in json.loads(slotctl("ls", "--json").stdout) if e["name"] == name]
        assert [e for e in libslot.survey_pools() if e.name == name] == listed
    finally:
        slotctl("rm", "--pool", name)
    assert libslot.pool_info(name).state == "missing"
    assert not os.path.exists(libslot.pool_info(name).file)
