# SPDX-License-Identifier: Apache-2.0
"""Zero-copy pools: loans, views that end with their callback, holds, across processes."""

import gc
import queue
import struct
import subprocess
import sys

import pytest

import libslot
from conftest import CHILD_TIMEOUT, run_python

STORED = libslot.WriteOutcome.STORED
REFUSED = libslot.WriteOutcome.REFUSED

# Reader side of the round trip, in a child: every block of pool A goes back into pool B,
# prefixed with the sequence number the child saw, through a loan (odd sequences) or write().
ECHO = r"""
import struct, sys, threading
import libslot
a, b, kind = sys.argv[1:4]
done = threading.Event()
with libslot.PoolWriter(b, kind=kind, block_size=4096, blocks=16) as back:
    def echo(view):
        sequence = libslot.current_block_sequence()
        if len(view) == 0:
            done.set()
            return
        if sequence % 2:
            with back.loan(8 + len(view)) as loan:
                loan.view[:8] = struct.pack("<Q", sequence)
                loan.view[8:] = view
                assert loan.publish() is libslot.WriteOutcome.STORED
        else:
            assert back.write(struct.pack("<Q", sequence) + bytes(view)).stored
    with libslot.PoolReader(a, echo, kind=kind, block_size=4096, blocks=16):
        done.wait(timeout=120)
"""


@pytest.mark.parametrize("kind", ["latest", "queue"])
def test_blocks_round_trip_through_another_process(names, kind):
    a, b = names("a"), names("b")
    echoes = queue.Queue()
    with libslot.PoolReader(b, lambda view: echoes.put(bytes(view)), kind=kind,
                            block_size=4096, blocks=16), \
            libslot.PoolWriter(a, kind=kind, block_size=4096, blocks=16) as writer:
        child = subprocess.Popen([sys.executable, "-c", ECHO, a, b, kind])
        try:
            last = 0
            for i in range(1, 41):
                block = bytes((i * 7 + n) & 0xff for n in range(i * 97 % 4000 + 1))
                if i % 2:
                    loan = writer.loan(len(block))
                    loan.view[:] = block
                    assert loan.sequence == 0
                    assert loan.publish() is STORED
                    sequence = loan.sequence
                else:
                    assert writer.write(block) is STORED
                    sequence = None
                echo = echoes.get(timeout=CHILD_TIMEOUT)
                seen, = struct.unpack("<Q", echo[:8])
                assert echo[8:] == block
                assert seen > last and (sequence is None or seen == sequence)
                last = seen
            with writer.loan(0) as loan:
                loan.publish()
            assert child.wait(timeout=CHILD_TIMEOUT) == 0
        finally:
            child.kill()
            child.wait()
    assert writer.counts == libslot.WriteCounts(stored=41)


def test_the_view_ends_with_the_callback_and_what_outlives_it_keeps_the_block(name):
    kept = queue.Queue()

    def keep(view):
        kept.put((view, view[2:5], libslot.current_block_sequence()))

    with libslot.PoolWriter(name, kind="queue", block_size=16, blocks=1) as writer, \
            libslot.PoolReader(name, keep, kind="queue"):
        assert writer.write(b"0123456789") is STORED
        view, piece, sequence = kept.get(timeout=CHILD_TIMEOUT)
        assert sequence > 0 and libslot.current_block_sequence() == 0
        with pytest.raises(ValueError):
            view[0]
        with pytest.raises(ValueError):
            bytes(view)
        # The slice is still the block's bytes, and the block is not handed out meanwhile.
        assert piece.readonly and bytes(piece) == b"234"
        assert writer.write(b"next") is REFUSED
        del piece
        gc.collect()
        assert writer.write(b"next") is STORED
        view, piece, _ = kept.get(timeout=CHILD_TIMEOUT)
        assert bytes(piece) == b"xt"


def test_hold_keeps_the_bytes_and_the_block(name):
    holds = queue.Queue()
    reader = None

    def hold(view):
        holds.put(reader.hold())

    with libslot.PoolWriter(name, kind="queue", block_size=64, blocks=2) as writer:
        reader = libslot.PoolReader(name, hold, kind="queue")
        with reader:
            with pytest.raises(libslot.SlotError, match="outside the callback"):
                reader.hold()
            sequences = []
            for block in (b"first", b"second"):
                loan = writer.loan(len(block))
                loan.view[:] = block
                assert loan.publish() is STORED
                sequences.append(loan.sequence)
            first, second = (holds.get(timeout=CHILD_TIMEOUT) for _ in range(2))
            assert [first.sequence, second.sequence] == sequences
            assert (bytes(first.view), bytes(second.view)) == (b"first", b"second")
            with pytest.raises(TypeError):
                first.view[0] = 0  # read-only
            # Both blocks are held: the writer is refused, it does not overwrite them.
            empty = writer.loan(4)
            assert not empty and empty.outcome is REFUSED
            assert empty.publish() is REFUSED
            assert writer.write(b"x") is REFUSED
            old_view = first.view
            first.close()
            with pytest.raises(ValueError):
                old_view[0]
            with pytest.raises(libslot.SlotError, match="closed"):
                first.view
            assert writer.write(b"third") is STORED
            third = holds.get(timeout=CHILD_TIMEOUT)
            assert bytes(second.view) == b"second" and bytes(third.view) == b"third"
            del second, third
            gc.collect()
            assert writer.write(b"4") is STORED
    assert libslot.write_counts(name) == libslot.WriteCounts(stored=4, refused=2)


def test_a_loan_not_published_returns_to_the_pool(name):
    with libslot.PoolWriter(name, kind="queue", block_size=8, blocks=1) as writer:
        loan = writer.loan(8)
        assert loan and loan.size == 8 and not writer.loan(1)
        del loan
        with writer.loan(8) as loan:
            loan.view[:2] = b"ab"
        with pytest.raises(libslot.SlotError, match="ended"):
            loan.view
        # A slice of the view must go first: publishing under it would let it write on.
        loan = writer.loan(8)
        piece = loan.view[1:]
        with pytest.raises(BufferError):
            loan.publish()
        with pytest.raises(ValueError, match=r"^publish\(9\) of a loan of 8 bytes$"):
            loan.publish(9)
        with pytest.raises(ValueError, match=r"^publish\(-1\): the size must not be negative$"):
            loan.publish(-1)
        with pytest.raises(TypeError,
                           match=r"^publish\(\) size must be an integer or None, not str$"):
            loan.publish("3")
        # Dropped while the slice lives: the block stays loaned until the slice goes.
        del loan
        gc.collect()
        assert not writer.loan(1)
        del piece
        gc.collect()
        loan = writer.loan(8)
        assert loan.publish(3) is STORED
        with pytest.raises(libslot.SlotError, match="ended"):
            loan.publish()


def test_configuration_errors_carry_the_library_texts(name):
    assert libslot.pool_kind_is_valid("queue") and not libslot.pool_kind_is_valid("reliable")
    with pytest.raises(libslot.SlotCreationError, match="reliable"):
        libslot.PoolWriter(name, kind="reliable")
    with pytest.raises(TypeError):
        libslot.PoolReader(name, None)
    writer = libslot.PoolWriter(libslot.PoolConfig(name, "queue", 16, 2))
    writer.close()
    with pytest.raises(libslot.SlotError, match="closed"):
        writer.loan(1)
    assert libslot.remove_pool(name) and not libslot.remove_pool(name)


def test_a_reader_a_hold_and_a_loan_left_open_at_exit(names):
    # (A reader closed from its own callback: test_threads.py.)
    code = r"""
import sys, threading
import libslot
a, b = sys.argv[1:3]
writer = libslot.PoolWriter(a, kind="queue")
writer.write(b"2")  # stays in the pool: nobody reads it
kept = []
got = threading.Event()
reader = libslot.PoolReader(b, lambda view: (kept.append(reader.hold()), got.set()))
libslot.PoolWriter(b).write(b"x")
assert got.wait(60)
loan = writer.loan(4)
print(bytes(kept[0].view).decode(), flush=True)
"""
    a, b = names("a"), names("b")
    child = run_python(code, a, b)
    assert (child.returncode, child.stdout, child.stderr) == (0, b"x\n", b"")


def test_a_forked_child_lets_inherited_holds_and_loans_go(name):
    # The child's copies of the parent's hold and loan are the parent's blocks, which the parent
    # may return, publish and see handed out again: the child can neither see nor change them.
    # Checked in a child interpreter, which forks in turn.
    code = r"""
import gc, os, queue, sys
import libslot
name = sys.argv[1]
holds = queue.Queue()
writer = libslot.PoolWriter(name, kind="queue", block_size=16, blocks=2)
reader = libslot.PoolReader(name, lambda view: holds.put(reader.hold()), kind="queue")
writer.write(b"held")
hold = holds.get(timeout=60)
view = hold.view
loan = writer.loan(4)
loan_view = loan.view
loan_view[:] = b"lent"
pid = os.fork()
if pid == 0:
    failures = []
    def expect(error, text, action):
        try:
            action()
            failures.append(f"no {error.__name__} for {text}")
        except error as e:
            if text not in str(e):
                failures.append(repr(e))
    expect(ValueError, "released", lambda: view[0])
    expect(ValueError, "released", lambda: loan_view[0])
    expect(libslot.SlotError, "the hold was made before os.fork()", lambda: hold.view)
    expect(libslot.SlotError, "the loan was made before os.fork()", lambda: loan.view)
    expect(libslot.SlotError, "the loan was made before os.fork()", loan.publish)
    if not hold.closed or loan:
        failures.append("still open")
    hold.close()
    loan.release()
    del hold, loan, view, loan_view
    gc.collect()
    sys.stderr.write("".join(f"{f}\n" for f in failures))
    sys.exit(1 if failures else 0)   # a normal exit: the exit hooks run
_, status = os.waitpid(pid, 0)
assert status == 0, status
# The parent's hold and loan are untouched by the child.
assert bytes(view) == b"held" and bytes(hold.view) == b"held"
del loan_view
assert loan.publish() is libslot.WriteOutcome.STORED
print(libslot.write_counts(name).stored, flush=True)
"""
    child = run_python(code, name)
    assert (child.returncode, child.stdout, child.stderr) == (0, b"2\n", b"")
