# SPDX-License-Identifier: Apache-2.0
"""Blocks, write outcomes, errors, SimpleSlot and the survey, within one process."""

import gc
import os
import sys

import pytest

import libslot

BLOCKS = [b"", b"\0", b"a\0b\0\0", bytes(range(256)) * 3, b"\xff" * 65536]


@pytest.mark.parametrize("type_", ["reliable", "discarding"])
def test_blocks_cross_whole_with_exact_lengths(name, type_):
    # Discarding slots keep one block: each is read before the next is written.
    with libslot.Reader(name, type=type_, update_time=1.0) as reader, \
            libslot.Writer(name, type=type_) as writer:
        for block in BLOCKS:
            assert writer.write(block) is libslot.WriteOutcome.STORED
            got = reader.get(timeout=30)
            assert type(got) is bytes and got == block
        # Every bytes-like kind is taken, a slice of a memoryview as just its bytes.
        for data in (bytearray(b"x\0y"), memoryview(b"--abc--")[2:5], memoryview(bytearray(4))):
            writer.write(data)
            assert reader.get(timeout=30) == bytes(data)
        with pytest.raises(TypeError):
            writer.write("text is not bytes")
        with pytest.raises(BufferError):
            writer.write(memoryview(b"abcdef")[::2])  # not contiguous
        assert reader.pending == 0


def test_reliable_slot_keeps_order_and_refuses_when_full(name):
    with libslot.Writer(name, type="reliable", queue_length=3) as writer:
        outcomes = [writer.write(b"%d" % i) for i in range(5)]
        assert outcomes == [libslot.WriteOutcome.STORED] * 3 + [libslot.WriteOutcome.REFUSED] * 2
        assert libslot.last_write_outcome() is libslot.WriteOutcome.REFUSED
        too_large = writer.write(bytes(65537))
        assert too_large is libslot.WriteOutcome.REFUSED and not too_large.stored
        assert writer.counts == libslot.WriteCounts(stored=3, refused=3)
        assert writer.counts.total == 6 and writer.counts.not_stored == 3
        with libslot.Reader(name, type="reliable", queue_length=3) as reader:
            assert [reader.get(timeout=30) for _ in range(3)] == [b"0", b"1", b"2"]


def test_discarding_slot_replaces_the_waiting_block_and_a_closed_writer_refuses(name):
    writer = libslot.Writer(name)
    assert writer.write(b"old") is libslot.WriteOutcome.STORED
    outcome = writer.write(b"new")
    assert outcome is libslot.WriteOutcome.DISCARDED and outcome.stored
    writer.close()
    writer.close()
    assert writer.closed
    with pytest.raises(libslot.SlotError, match="closed writer"):
        writer.write(b"x")
    assert libslot.SimpleSlot(name).read() == b"new"


def test_errors_carry_the_library_texts(name):
    assert issubclass(libslot.SlotCreationError, libslot.SlotError)
    assert issubclass(libslot.SlotError, RuntimeError)
    for make in (libslot.Reader, libslot.Writer):
        with pytest.raises(libslot.SlotCreationError) as e:
            make(name, type="win-pipe")
        assert str(e.value) == "Invalid slot type win-pipe"
    with pytest.raises(libslot.SlotCreationError) as e:
        libslot.Reader(name, type="reliable", update_time=float("inf"))
    assert str(e.value) == (f"Invalid update time +infinity of '{name}': a reader needs a finite "
                            "update time of 0 or more")
    with libslot.Reader(name, type="reliable"):
        with pytest.raises(libslot.SlotCreationError) as e:
            libslot.Reader(name, type="reliable")
        assert str(e.value) == f"Cannot create non-unique reader for reliable slot '{name}'"
    with pytest.raises(libslot.SlotCreationError) as e:
        libslot.Writer(name + "_big", type="reliable", max_size=1 << 33)
    assert str(e.value).startswith("Slot could not be created: ")
    assert "does not fit 32 bits" in str(e.value)
    with pytest.raises(TypeError):
        libslot.Reader(name, callback=42)


def test_refused_readers_let_their_callback_go(names):
    """A reader or pool reader that cannot be opened keeps no reference to its callback."""
    slot, pool = names("slot"), names("pool")

    def callback(block):
        pass

    not_callable = object()
    before = sys.getrefcount(callback), sys.getrefcount(not_callable)
    with libslot.Reader(slot, type="reliable"), libslot.PoolReader(pool, print, kind="queue"):
        for _ in range(20):
            for make in (lambda: libslot.Reader(slot, callback, type="reliable"),
                         lambda: libslot.PoolReader(pool, callback, kind="queue")):
                try:
                    make()
                except libslot.SlotCreationError:
                    pass
                else:
                    pytest.fail("a second reader was opened")
            try:
                libslot.Reader(slot, not_callable)
            except TypeError:
                pass
    gc.collect()
    assert (sys.getrefcount(callback), sys.getrefcount(not_callable)) == before


def test_factory_operations(name):
    for t in ("reliable", "discarding", "posix-pipe", ""):
        assert libslot.slot_type_is_valid(t)
    for t in ("win-pipe", "Reliable", "fifo"):
        assert not libslot.slot_type_is_valid(t)
    # The library's name rule, word for word as creation reports it.
    for bad, problem in (("", "is empty"), ("..", "is not a file name"), ("a/b", "contains '/'"),
                         ("n" * 250, "is longer than 249 characters")):
        assert libslot.slot_name_problem(bad) == problem
        with pytest.raises(libslot.SlotCreationError) as e:
            libslot.create_slot(libslot.SlotConfig(bad))
        assert str(e.value) == f"Slot could not be created: slot name '{bad}' {problem}"
    assert libslot.slot_name_problem(name + " with space\x01") is None
    cfg = libslot.SlotConfig(name, type="reliable", update_time=0.25, queue_length=4, max_size=100)
    assert libslot.inspect_slot(name).state is libslot.SlotState.ABSENT
    libslot.create_slot(cfg)
    report = libslot.inspect_slot(name)
    assert report.state is libslot.SlotState.SLOT
    assert (report.kind, report.capacity, report.max_block_size) == \
        (libslot.SlotKind.RELIABLE, 4, 100)
    # A gateway killed while it wrote the slot left its claim file: removed with the slot.
    claim = os.path.join(os.environ["SLOT_LOCK_DIR"], name + ".gw")
    os.close(os.open(claim, os.O_CREAT | os.O_EXCL | os.O_WRONLY, 0o600))
    assert libslot.remove_slot(name) is True
    assert libslot.remove_slot(name) is False
    assert not [f for f in os.listdir("/dev/shm") if f.endswith(name)]
    assert not os.path.exists(claim)


def test_simple_slot_round_trip(name):
    rw = libslot.SimpleSlot(name)
    assert rw.write(b"a\0b" * 10) is libslot.WriteOutcome.STORED
    assert libslot.SimpleSlot(name).read() == b"a\0b" * 10
    assert rw.write(bytes(65537)) is libslot.WriteOutcome.REFUSED
    assert libslot.write_counts(name).refused == 1


def test_survey_looks_without_disturbing(names):
    reliable, discarding = names("reliable"), names("discarding")
    with libslot.Writer(reliable, type="reliable", queue_length=8) as writer:
        for block in (b"one", b"two"):
            writer.write(block)
        libslot.create_slot(libslot.SlotConfig(discarding))
        report = libslot.inspect_slot(reliable)
        assert report.name == reliable
        assert report.state is libslot.SlotState.SLOT and report.detail is None
        assert report.waiting == 2 and report.capacity == 8
        assert report.last_write is not None and report.last_write.endswith("Z")
        assert report.header.state is libslot.PartState.OK
        assert report.queue.object == "/dev/shm/queue_" + reliable
        assert report.locks == [] and report.holder is None
        assert report.reader.held is False and report.reader.pid is None
        listed = {r.name: r for r in libslot.list_slots()}
        assert listed[reliable].kind is libslot.SlotKind.RELIABLE
        assert listed[discarding].kind is libslot.SlotKind.DISCARDING
        # The blocks are all still there for the reader.
        with libslot.Reader(reliable, type="reliable") as reader:
            assert [reader.get(timeout=30), reader.get(timeout=30)] == [b"one", b"two"]
            assert libslot.inspect_slot(reliable).reader.pid == os.getpid()


def test_bytes_a_pipe_loses_unread_are_counted(name):
    # Nobody reads the FIFO: closing the writer loses the block, which was stored.
    with libslot.Writer(name, type="posix-pipe") as writer:
        assert writer.write(b"hello") is libslot.WriteOutcome.STORED
    assert libslot.write_counts(name) == libslot.WriteCounts(stored=1, bytes_lost_at_close=5)
