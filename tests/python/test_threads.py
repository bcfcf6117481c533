# SPDX-License-Identifier: Apache-2.0
"""Reader threads and the interpreter: callbacks, closing, waits, signals and shutdown."""

import gc
import sys
import threading
import textwrap
import time
import weakref

import pytest

import libslot
from conftest import check_child, run_python

WAIT = 30  # seconds; generous bound for anything that should happen at once


def collecting_callback():
    """A callback that records blocks, and a wait for a count of them."""
    got = []
    arrived = threading.Condition()

    def callback(block):
        with arrived:
            got.append(block)
            arrived.notify_all()

    def wait_for(count):
        with arrived:
            assert arrived.wait_for(lambda: len(got) >= count, WAIT), got
        return got

    return callback, wait_for


def wait_until(condition):
    """Polls `condition` until it holds or WAIT passed (the caller checks what came)."""
    deadline = time.monotonic() + WAIT
    while not condition() and time.monotonic() < deadline:
        time.sleep(0.001)


def run_together(targets):
    """Runs each of `targets` on a thread of its own, all at once, and joins them."""
    threads = [threading.Thread(target=target) for target in targets]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(WAIT)
        assert not thread.is_alive()


def accepted(open_reader):
    """The reader open_reader() makes, retried while refused. A reliable reader closed inside
    its callback lets the slot go once that callback has returned, on its own thread: until
    then a new reader is refused."""
    deadline = time.monotonic() + WAIT
    while True:
        try:
            return open_reader()
        except libslot.SlotCreationError:
            if time.monotonic() > deadline:
                raise
            time.sleep(0.01)


@pytest.mark.parametrize("type_", ["reliable", "discarding", "posix-pipe"])
def test_callback_runs_on_the_reader_thread_and_may_close_its_reader(name, type_):
    # Rounds for the pipe, whose closed reader is dropped by a helper thread: whichever of the
    # two threads comes last must not be the reader's own.
    for _ in range(10 if type_ == "posix-pipe" else 1):
        calls = []
        closed = threading.Event()

        def callback(block):
            calls.append((block, threading.get_ident(), reader.pending))
            reader.close()  # inside the reader's own notification
            assert reader.closed
            closed.set()

        reader = libslot.Reader(name, callback, type=type_, update_time=1.0)
        with libslot.Writer(name, type=type_) as writer:
            writer.write(b"fir\0st")
            assert closed.wait(WAIT)
            later = b"".join(b"later %d" % i for i in range(5))
            for i in range(5):
                writer.write(b"later %d" % i)
            if type_ != "discarding":
                # The closed reader took nothing more: the next reader gets every later block
                # (a pipe's blocks may come joined).
                with accepted(lambda: libslot.Reader(name, type=type_)) as second:
                    got = b""
                    while len(got) < len(later):
                        got += second.get(timeout=WAIT)
                    assert got == later
        # On the reader's thread, and a callback reader queues nothing.
        assert calls == [(b"fir\0st", calls[0][1], 0)] and calls[0][1] != threading.get_ident()
        reader.close()  # again: nothing left to do


def open_reader(kind, name, callback):
    """A reader of a reliable slot or of a queue pool: one reader on the machine."""
    if kind == "slot":
        return libslot.Reader(name, callback, type="reliable")
    return libslot.PoolReader(name, callback, kind="queue", block_size=64, blocks=2)


def open_writer(kind, name):
    if kind == "slot":
        return libslot.Writer(name, type="reliable")
    return libslot.PoolWriter(name, kind="queue", block_size=64, blocks=2)


@pytest.mark.parametrize("kind", ["slot", "pool"])
@pytest.mark.parametrize("how", ["closed in its callback", "collected"])
def test_a_reader_its_owner_drops_lets_the_slot_go(name, kind, how):
    # An object that reads through a bound method is kept only by the cycle through the
    # reader's callback once dropped. Closed in its callback, the reader's destructor runs on
    # its own thread when the callback's last reference goes, and must not wait for that very
    # callback to return; never closed, the garbage collector closes it. Either way the slot or
    # queue pool takes a new reader, and the owner is gone.
    called, keep = threading.Event(), []

    class Consumer:
        def __init__(self):
            self.reader = open_reader(kind, name, self.on_block)

        def on_block(self, block):
            if how == "closed in its callback":
                keep.clear()  # the running callback holds the last reference now
                self.reader.close()
            called.set()

    keep.append(Consumer())
    owner = weakref.ref(keep[0])
    with open_writer(kind, name) as writer:
        writer.write(b"x")
        assert called.wait(WAIT)
    keep.clear()
    gc.collect()
    accepted(lambda: open_reader(kind, name, lambda block: None)).close()
    assert owner() is None


@pytest.mark.parametrize("kind", ["slot", "pool"])
@pytest.mark.parametrize("first", ["another thread", "the callback"])
def test_no_close_returns_while_the_callback_runs(name, kind, first):
    # Every close() after the first, on any thread but the reader's own, waits for the first to
    # end: for the join of the reader's thread, or for the callback that closed its reader. A
    # waiting close() releases the GIL, which the callback needs to go on; and after it no block
    # is delivered.
    inside, release = threading.Event(), threading.Event()
    finished, seen_by_closers = [], []

    def callback(block):
        if first == "the callback":
            reader.close()  # returns at once; the callback goes on
        inside.set()
        release.wait(WAIT)
        finished.append(bytes(block))

    def close():
        reader.close()
        seen_by_closers.append(len(finished))

    reader, writer = open_reader(kind, name, callback), open_writer(kind, name)
    with writer:
        writer.write(b"x")
        assert inside.wait(WAIT)
        closers = [threading.Thread(target=close) for _ in range(2)]
        for closer in closers:
            closer.start()
            time.sleep(0.2)  # lets it reach close(); when it comes later it proves nothing
        release.set()
        for closer in closers:
            closer.join(WAIT)
            assert not closer.is_alive()
        writer.write(b"y")
    assert finished == [b"x"] and seen_by_closers == [1, 1]
    assert reader.closed


@pytest.mark.parametrize("kind", ["slot", "pool"])
def test_callbacks_share_one_python_thread_state_until_close(name, kind):
    # threading.local lasts from one callback to the next on the reader's thread; the thread's
    # state, and what it holds, goes when the reader is closed, not at interpreter exit.
    local, counts, refs = threading.local(), [], []

    class Held:
        pass

    def callback(block):
        local.count = getattr(local, "count", 0) + 1
        counts.append(local.count)
        if not hasattr(local, "held"):
            local.held = Held()
            refs.append(weakref.ref(local.held))

    reader, writer = open_reader(kind, name, callback), open_writer(kind, name)
    with writer:
        for i in range(3):
            writer.write(b"%d" % i)
            wait_until(lambda: len(counts) > i)
    reader.close()
    assert counts == [1, 2, 3]
    gc.collect()
    assert refs[0]() is None


def test_callback_exceptions_are_reported_and_the_reader_goes_on(name, monkeypatch):
    reported = []
    monkeypatch.setattr(sys, "unraisablehook", lambda u: reported.append(u.exc_value))
    callback, wait_for = collecting_callback()

    def failing(block):
        callback(block)
        if block == b"bad":
            raise ValueError("broken consumer")

    with libslot.Reader(name, failing, type="reliable") as reader, \
            libslot.Writer(name, type="reliable") as writer:
        writer.write(b"bad")
        writer.write(b"good")
        assert wait_for(2) == [b"bad", b"good"]
        assert not reader.closed
    assert len(reported) == 1 and str(reported[0]) == "broken consumer"


def test_get_of_a_callback_reader_raises_at_once(name):
    # Its blocks go to the callback: get() would wait out its whole timeout.
    text = f"^reader of '{name}' has a callback: blocks go to it, not to get\\(\\)$"
    with libslot.Reader(name, lambda block: None) as reader:
        with pytest.raises(libslot.SlotError, match=text):
            reader.get(timeout=WAIT)
        with pytest.raises(libslot.SlotError, match=text):
            next(iter(reader))


def test_many_readers_each_get_every_block(name):
    callbacks, waits = zip(*(collecting_callback() for _ in range(8)))
    callbacks += (None,)  # and one that queues, the last
    readers = [None] * len(callbacks)

    def start(i):
        readers[i] = libslot.Reader(name, callbacks[i], update_time=1.0)

    try:
        # Started from several threads at once: a reader's start takes one update time, with
        # the GIL released.
        run_together([lambda i=i: start(i) for i in range(len(callbacks))])
        assert all(readers)
        with libslot.Writer(name) as writer:
            # A discarding slot keeps the latest block: each block is seen by all before the next.
            for i in range(1, 6):
                block = b"state %d" % i
                writer.write(block)
                for wait_for in waits:
                    assert wait_for(i)[-1] == block
                assert readers[-1].get(timeout=WAIT) == block
    finally:
        # Closed at once too: each close waits for its reader's thread.
        run_together([r.close for r in readers if r is not None])


def test_get_times_out_and_close_ends_a_waiting_iteration(name):
    with libslot.Reader(name, type="reliable") as reader:
        with pytest.raises(TimeoutError):
            reader.get(timeout=0.05)
        for bad, problem in ((-1, "negative"), (-10**400, "negative"), (float("nan"), "NaN")):
            with pytest.raises(ValueError, match=problem):
                reader.get(timeout=bad)
        with pytest.raises(TypeError, match="^timeout must be a number or None, not str$"):
            reader.get(timeout="1")

        class Refusing:  # its own conversion's error is the one raised
            def __float__(self):
                raise ArithmeticError("no float here")

        with pytest.raises(ArithmeticError, match="no float here"):
            reader.get(timeout=Refusing())
        # Beyond the clock's range means no limit: the block ends the wait, not a TimeoutError.
        # So does an integer beyond any float.
        with libslot.Writer(name, type="reliable") as writer:
            for timeout in (1e10, 1e300, float("inf"), 10**400):
                late = threading.Timer(0.2, writer.write, (b"%r" % timeout,))
                late.start()
                assert reader.get(timeout=timeout) == b"%r" % timeout
                late.join()
        assert libslot._native._flush_log(1e10)
        with pytest.raises(ValueError, match="NaN"):
            libslot._native._flush_log(float("nan"))
        callback, wait_for = collecting_callback()
        # Its iteration ends once the reader is closed and drained.
        consumer = threading.Thread(target=lambda: [callback(block) for block in reader])
        consumer.start()
        with libslot.Writer(name, type="reliable") as writer:
            writer.write(b"1")
            writer.write(b"2")
        got = wait_for(2)
        # The consumer now waits in get() with the GIL released; close() wakes it.
        reader.close()
        consumer.join(WAIT)
        assert not consumer.is_alive()
    assert got == [b"1", b"2"]
    with pytest.raises(libslot.ReaderClosedError):
        reader.get(timeout=0)


def drain(reader, timeout):
    """Every block `reader` gives until it is closed and drained or none comes in `timeout`."""
    got = []
    while True:
        try:
            got.append(reader.get(timeout=timeout))
        except (TimeoutError, libslot.ReaderClosedError):
            return got


@pytest.mark.parametrize("with_callback", [True, False], ids=["callback", "queue"])
def test_close_from_another_thread_loses_no_block_of_a_reliable_slot(name, with_callback):
    # The reader's thread drains the waiting blocks while close() joins it: each block it takes
    # has left the slot and must reach this reader's callback or queue (close() comes once it
    # has one), also those it had taken before; the rest stay for the next reader. Large blocks
    # and no update time make the drain outlast close()'s start.
    count, size = 64, 1 << 18
    blocks = [bytes([i]) * size for i in range(count)]
    config = libslot.SlotConfig(name, type="reliable", update_time=0.0, queue_length=count,
                                max_size=size)
    first, inside = [], threading.Event()

    def callback(block):
        first.append(block)
        inside.set()
        time.sleep(0.01)

    with libslot.Writer(config) as writer:
        assert all(writer.write(b).stored for b in blocks)
        reader = libslot.Reader(config, callback if with_callback else None)
        if with_callback:
            assert inside.wait(WAIT)
        else:
            wait_until(lambda: reader.pending >= 2)
        reader.close()
        if not with_callback:
            first = drain(reader, 0)
            assert len(first) >= 2
        with libslot.Reader(config) as second:
            rest = drain(second, 1.0)
    assert len(first) + len(rest) == count
    assert first + rest == blocks


@pytest.mark.parametrize("kind", ["slot", "pool"])
def test_a_second_close_waits_while_the_first_drops_the_callback(name, kind):
    # The first close() drops the callback's last reference, whose __del__ lets the GIL go: a
    # close() on another thread meanwhile must still wait until the reader is stopped, so that
    # its slot or queue pool takes a new reader at once.
    dropping, second_done = threading.Event(), []

    class Callback:
        def __call__(self, block):
            pass

        def __del__(self):
            dropping.set()
            time.sleep(0.5)

    reader, writer = open_reader(kind, name, Callback()), open_writer(kind, name)
    writer.close()

    def second_close():
        assert dropping.wait(WAIT)
        reader.close()
        try:
            open_reader(kind, name, lambda block: None).close()
            second_done.append("reopened")
        except libslot.SlotCreationError as e:
            second_done.append(str(e))

    closer = threading.Thread(target=second_close)
    closer.start()
    reader.close()
    closer.join(WAIT)
    assert not closer.is_alive()
    assert second_done == ["reopened"]


def test_a_queue_pool_reader_closed_while_delivering_loses_no_block(name):
    # A block the reader's thread has taken when close() begins (often while it waits for the
    # GIL that close() holds) is consumed in the pool: it must reach the callback.
    config = libslot.PoolConfig(name, kind="queue", block_size=64, blocks=8)
    with libslot.PoolWriter(config) as writer:
        for round_ in range(20):
            blocks = [b"%d.%d" % (round_, i) for i in range(8)]
            first, rest = [], []
            with libslot.PoolReader(config, lambda view: first.append(bytes(view))):
                assert all(writer.write(b).stored for b in blocks)
            with libslot.PoolReader(config, lambda view: rest.append(bytes(view))):
                wait_until(lambda: len(first) + len(rest) >= len(blocks))
            assert first + rest == blocks


def test_ctrl_c_interrupts_a_blocking_get(name):
    script = textwrap.dedent("""
        import os, signal, sys, threading, libslot
        # Python leaves SIGINT ignored when it starts so (a background job of a script).
        signal.signal(signal.SIGINT, signal.default_int_handler)
        reader = libslot.Reader(sys.argv[1], type="reliable")
        # The signal may come before or during get(): either way get() must give way to it.
        threading.Timer(0.2, os.kill, (os.getpid(), signal.SIGINT)).start()
        try:
            reader.get()
        except KeyboardInterrupt:
            print("interrupted", flush=True)
        reader.close()
    """)
    check_child(run_python(script, name), "interrupted\n")


SHUTDOWN = textwrap.dedent("""
    import sys, threading, time, libslot
    base = sys.argv[1]
    started = threading.Event()
    def slow(block):
        started.set()
        time.sleep(0.05)   # a callback running while the interpreter exits
    readers = [libslot.Reader(base + "_r", slow, type="reliable", update_time=0.05),
               libslot.Reader(base + "_d", slow, update_time=0.05),
               libslot.Reader(base + "_p", slow, type="posix-pipe", update_time=0.05)]
    waiting = libslot.Reader(base + "_q", type="reliable")
    threading.Thread(target=lambda: list(waiting), daemon=True).start()   # in get() at exit
    writers = [libslot.Writer(base + s, type=t) for s, t in
               (("_r", "reliable"), ("_d", "discarding"), ("_p", "posix-pipe"))]
    def write_forever():
        while True:
            for w in writers:
                w.write(b"block")
    threading.Thread(target=write_forever, daemon=True).start()
    big = libslot.Writer(base + "_b", max_size=4 << 20)
    def write_big_forever(block=bytes(4 << 20)):
        while True:
            big.write(block)
    for _ in range(2):   # inside the library at exit, most of the time
        threading.Thread(target=write_big_forever, daemon=True).start()
    class SlowFinalisation:
        # Finalisation takes a while: the daemon threads come back from the library meanwhile.
        def __del__(self, sleep=time.sleep):
            sleep(0.3)
    slow_finalisation = SlowFinalisation()
    started.wait(30)
    print("exiting", flush=True)
    {exit}
""")


@pytest.mark.parametrize("how", ["end", "sys.exit(3)", "del readers"])
def test_interpreter_exits_with_readers_running(names, how):
    script = SHUTDOWN.replace("{exit}", "" if how == "end" else how)
    result = run_python(script, names("exit", ("_r", "_d", "_p", "_q", "_b")), timeout=120)
    check_child(result, "exiting\n", 3 if how.startswith("sys.exit") else 0)


def test_a_forked_child_drops_inherited_readers_and_exits_at_once(names):
    # The child has none of the parent's threads: neither the readers' threads, which closing
    # an inherited reader must not wait for, nor the threads that were coming back from the
    # library at the fork, which its exit must not wait for, nor the lock such a thread held in
    # the reader it was reading from. (The busy thread does not log: a child forked while
    # another thread holds log4cxx's locks cannot log, as with any lock.)
    script = textwrap.dedent("""
        import os, sys, threading, time, libslot
        name, pool = sys.argv[1:3]
        reader = libslot.Reader(name, type="reliable")
        pool_reader = libslot.PoolReader(pool, lambda view: None, kind="queue", block_size=64,
                                         blocks=4)
        waiting = libslot.Reader(name + "_w")
        def wait_forever():
            while True:
                try:
                    waiting.get(timeout=1e-5)   # back from the library, for the GIL, at once
                except TimeoutError:
                    pass
        threading.Thread(target=wait_forever, daemon=True).start()
        slowest = 0
        for i in range(20):
            start = time.monotonic()
            pid = os.fork()
            if pid == 0:
                if i == 0:
                    if not (reader.closed and pool_reader.closed):
                        os._exit(5)
                    reader.close()
                    pool_reader.close()
                elif i == 1:
                    try:
                        waiting.get(timeout=10)
                        os._exit(3)
                    except libslot.ReaderClosedError as e:
                        if "was opened before os.fork()" not in str(e) or not waiting.closed:
                            os._exit(4)
                sys.exit(0)   # a normal exit: the exit hooks run
            if os.waitpid(pid, 0)[1] != 0:
                sys.exit("child %d failed" % i)
            slowest = max(slowest, time.monotonic() - start)
        with libslot.Writer(name, type="reliable") as writer:
            writer.write(b"after the forks")
        print(reader.get(timeout=30).decode(), round(slowest))
    """)
    result = run_python(script, names("slot", ("_w",)), names("pool"))
    assert result.returncode == 0, result.stderr.decode()
    block, slowest = result.stdout.decode().rsplit(" ", 1)
    assert block == "after the forks"
    assert int(slowest) < 9   # seconds; a child that waited for those threads took 10 or for ever


def test_waiting_get_lets_callbacks_run(names):
    """The main thread waits in get() of one slot for a block that only a callback of another
    reader writes: it arrives only if get() waits without the GIL."""
    first, second = names("first"), names("second")
    with libslot.Writer(second, type="reliable") as relay, \
            libslot.Reader(second, type="reliable") as waiting:
        outcomes = []

        def forward(block):
            outcomes.append(relay.write(block + b" relayed"))  # on the reader's thread

        with libslot.Reader(first, forward, type="reliable"), \
                libslot.Writer(first, type="reliable") as writer:
            writer.write(b"\0go")
            assert waiting.get(timeout=WAIT) == b"\0go relayed"
        assert outcomes == [libslot.WriteOutcome.STORED]
