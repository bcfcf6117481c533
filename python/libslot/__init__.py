# SPDX-License-Identifier: Apache-2.0
"""Pass blocks of bytes between processes through named slots (libSlot).

A slot is a named set of POSIX shared-memory objects (or, for "posix-pipe", a named FIFO) that
any process can open by name to write blocks or read them::

    import libslot
    with libslot.Reader("orders", type="reliable") as reader, libslot.Writer("orders", type="reliable") as writer:
        writer.write(b"block 1")
        print(reader.get(timeout=5))   # b'block 1'
    libslot.remove_slot("orders")

Blocks cross as ``bytes`` of their exact length. Library errors raise SlotError or its
subclass SlotCreationError (both RuntimeError) with the library's own text. Every call that may
wait releases the GIL; readers still open at interpreter exit are stopped then.

The library's warnings and errors go to the Python logger "libslot" (children named after the
library's loggers, e.g. "libslot.Slot"), unless log4cxx was configured by the host;
configure_logging() sends the whole log to stderr instead.
"""

from __future__ import annotations

import atexit
import enum
import logging
from dataclasses import dataclass
from typing import Callable, Iterator, List, Optional, Union

from . import _native
from ._native import (
    PoolConfig,
    PoolHold,
    PoolLoan,
    ReaderClosedError,
    SlotConfig,
    SlotCreationError,
    SlotError,
    configure_logging,
    create_slot,
    current_block_sequence,
    pool_kind_is_valid,
    remove_pool,
    remove_slot,
    slot_name_problem,
    slot_type_is_valid,
    version,
)
from ._survey import (
    PartState,
    PoolReport,
    Record,
    SlotKind,
    SlotReport,
    SlotState,
    inspect_slot_report,
    list_slot_reports,
    pool_info,
    survey_pools,
)

__all__ = [
    "DISCARDING", "RELIABLE", "POSIX_PIPE",
    "SlotConfig", "SlotError", "SlotCreationError", "ReaderClosedError",
    "slot_type_is_valid", "slot_name_problem", "create_slot", "remove_slot",
    "Writer", "WriteOutcome", "WriteCounts", "write_counts", "last_write_outcome",
    "Reader", "SimpleSlot",
    "LATEST", "QUEUE", "PoolConfig", "PoolWriter", "PoolLoan", "PoolReader", "PoolHold",
    "pool_kind_is_valid", "remove_pool", "current_block_sequence",
    "inspect_slot", "list_slots", "SlotReport", "Record", "SlotKind", "SlotState", "PartState",
    "configure_logging", "version",
    "survey_pools", "pool_info", "PoolReport",
]

#: Slot type names.
DISCARDING = "discarding"
RELIABLE = "reliable"
POSIX_PIPE = "posix-pipe"

#: Pool kinds.
LATEST = "latest"
QUEUE = "queue"

ConfigLike = Union[SlotConfig, str]

for _type in (SlotConfig, SlotError, SlotCreationError, ReaderClosedError, PoolConfig, PoolLoan,
              PoolHold):
    _type.__module__ = __name__
del _type
SlotError.__doc__ = ("A library failure, with the library's text (also the use of a closed "
                     "writer). A RuntimeError.")
SlotCreationError.__doc__ = ("A slot, reader or writer could not be made "
                             "(AbortSlotCreationException), with the library's text.")
ReaderClosedError.__doc__ = "get() of a reader that is closed and has no block left."


def _config(config: ConfigLike, **options) -> SlotConfig:
    if isinstance(config, SlotConfig):
        if options:
            raise TypeError("give either a SlotConfig or a name with options, not both")
        return config
    if isinstance(config, str):
        return SlotConfig(config, **options)
    raise TypeError(f"expected a SlotConfig or a slot name, not {type(config).__name__}")


class WriteOutcome(str, enum.Enum):
    """What became of one write."""

    NONE = "none"            #: no write made yet on this thread
    STORED = "stored"        #: the block is in the slot
    DISCARDED = "discarded"  #: stored; an unread block waiting in a discarding slot was dropped
    REFUSED = "refused"      #: not stored: the slot was full, or the block too large
    FAILED = "failed"        #: not stored because of an error (see the library's log)

    @property
    def stored(self) -> bool:
        """True when the block reached the slot (STORED or DISCARDED)."""
        return self in (WriteOutcome.STORED, WriteOutcome.DISCARDED)


@dataclass(frozen=True)
class WriteCounts:
    """Outcomes of this process's writes into one slot since the process started."""

    stored: int = 0
    discarded: int = 0
    refused: int = 0
    failed: int = 0
    #: bytes of stored writes lost afterwards: a posix-pipe writer closed its pipe while no reader
    #: had it open, and the kernel freed what nobody had read
    bytes_lost_at_close: int = 0

    @property
    def total(self) -> int:
        """Every write counted."""
        return self.stored + self.discarded + self.refused + self.failed

    @property
    def not_stored(self) -> int:
        """Writes whose block did not reach the slot."""
        return self.refused + self.failed


def write_counts(name: str) -> WriteCounts:
    """Counts of the outcomes of this process's writes into the slot ``name``, summed over all
    its writers (all zero for a name never written to)."""
    return WriteCounts(**_native.write_counts(name))


def last_write_outcome() -> WriteOutcome:
    """Outcome of the calling thread's last write into any slot."""
    return WriteOutcome(_native.last_write_outcome())


class Writer(_native.Writer):
    """Writes blocks into a slot: ``Writer(config)`` or ``Writer(name, type=..., ...)``.

    The slot is opened, or created from the configuration. A write never raises for a full
    slot: it returns its WriteOutcome. Into a discarding or reliable slot it never waits for
    room; into a full posix-pipe it waits for room up to the pipe-full time-out (1 s by default),
    then returns REFUSED. Any thread may write; the GIL is released while the block is stored.
    Use it as a context manager or call close().
    """

    def __init__(self, config: ConfigLike, **options) -> None:
        super().__init__(_config(config, **options))

    def write(self, data) -> WriteOutcome:
        """Stores ``data`` (bytes, bytearray, memoryview or any C-contiguous buffer) as one
        block and returns what became of it. Raises SlotError when the writer is closed. Waits
        for as long as another process holds the slot's lock; Ctrl-C takes effect when the
        write returns."""
        return WriteOutcome(super().write(data))

    @property
    def counts(self) -> WriteCounts:
        """Counts of this process's writes into this slot (all its writers together)."""
        return write_counts(self.name)

    def close(self) -> None:
        """Releases the writer (a posix-pipe writer closes its FIFO). Idempotent."""
        super().close()

    def __enter__(self) -> "Writer":
        return self

    def __exit__(self, *exc) -> None:
        self.close()


class Reader(_native.Reader):
    """Reads the blocks of a slot: ``Reader(config)`` or ``Reader(name, type=..., ...)``.

    With ``callback``, each block (``bytes``) is passed to ``callback(block)`` on the reader's
    own thread, holding the GIL; an exception it raises is reported through
    ``sys.unraisablehook`` and the reader goes on. Without one, blocks are queued in this
    process until taken with get() or by iterating (``for block in reader``), which ends once
    the reader is closed and drained.

    The reader's thread starts inside the constructor: the callback may run before the
    constructor has returned (with blocks that waited in a reliable slot), so it must not rely
    on the name the reader is about to be bound to. A reliable slot has one reader on the
    machine (SlotCreationError for a second); this reader gets also the blocks that waited
    before it started. A discarding reader gets only blocks not older than the update time.
    close() (or leaving the ``with`` block) stops it: no callback runs after it returns, also
    when it is called from inside the reader's own callback. A block the reader's
    thread takes while close() waits for it still reaches the callback or the queue; blocks still
    waiting in a reliable slot stay there for the next reader.
    """

    def __init__(self, config: ConfigLike, callback: Optional[Callable[[bytes], object]] = None,
                 **options) -> None:
        super().__init__(_config(config, **options), callback)

    def get(self, timeout: Optional[float] = None) -> bytes:
        """Next block. Waits at most ``timeout`` seconds (None, infinity or more than 1e9: no
        limit; ValueError for a negative timeout or NaN, TypeError for a non-number) and raises
        TimeoutError then; raises ReaderClosedError once the reader is closed and no block is
        left, and SlotError at once for a reader with a callback (its blocks go to the
        callback). The GIL is released while waiting; Ctrl-C raises KeyboardInterrupt."""
        return super().get(timeout)

    def close(self) -> None:
        """Stops the reader. It waits for the reader's thread, which may wait for as long as
        another process holds the slot's lock; Ctrl-C takes effect when close() returns. Blocks
        already received, also those the reader's thread takes while close() waits for it, can
        still be taken with get(). Idempotent:
        a close while another thread's close is under way waits for that one to end (except
        inside the reader's own callback, where it returns at once)."""
        super().close()

    def __iter__(self) -> Iterator[bytes]:
        return self

    def __next__(self) -> bytes:
        try:
            return self.get()
        except ReaderClosedError:
            raise StopIteration from None

    def __enter__(self) -> "Reader":
        return self

    def __exit__(self, *exc) -> None:
        self.close()


PoolConfigLike = Union[PoolConfig, str]


def _pool_config(config: PoolConfigLike, **options) -> PoolConfig:
    if isinstance(config, PoolConfig):
        if options:
            raise TypeError("give either a PoolConfig or a name with options, not both")
        return config
    if isinstance(config, str):
        return PoolConfig(config, **options)
    raise TypeError(f"expected a PoolConfig or a pool name, not {type(config).__name__}")


class PoolWriter(_native.PoolWriter):
    """Writes blocks into a zero-copy pool: ``PoolWriter(config)`` or
    ``PoolWriter(name, kind=..., block_size=..., blocks=...)``.

    The pool is opened, or created from the configuration. loan(size) gives a PoolLoan whose
    ``view`` is a writable memoryview of a free block in shared memory; fill it and publish()::

        with writer.loan(len(frame)) as loan:
            if loan:                      # false when the pool had no free block (REFUSED)
                loan.view[:] = frame
                outcome = loan.publish()  # a WriteOutcome

    A loan left unpublished (the ``with`` block ends, or it is dropped) returns its block to the
    pool. write(data) copies once, for data that is already in a buffer. The GIL is released
    while a block is loaned or published. Use it as a context manager or call close().
    """

    def __init__(self, config: PoolConfigLike, **options) -> None:
        super().__init__(_pool_config(config, **options))

    def loan(self, size: int) -> PoolLoan:
        """A PoolLoan of a block for ``size`` bytes; an empty (false) one, with its
        ``outcome``, when no block is free or ``size`` exceeds the block size."""
        return super().loan(size)

    def write(self, data) -> WriteOutcome:
        """Copies ``data`` (any C-contiguous buffer) into a block and publishes it."""
        return super().write(data)

    @property
    def counts(self) -> WriteCounts:
        """Counts of this process's publishes into this pool (all its writers together)."""
        return write_counts(self.name)

    def close(self) -> None:
        """Releases the writer; loans still open keep it attached until they end. Idempotent."""
        super().close()

    def __enter__(self) -> "PoolWriter":
        return self

    def __exit__(self, *exc) -> None:
        self.close()


class PoolReader(_native.PoolReader):
    """Reads the blocks of a zero-copy pool where they lie: ``PoolReader(config, callback)`` or
    ``PoolReader(name, callback, kind=..., ...)``.

    ``callback(view)`` runs on the reader's own thread, holding the GIL, with a read-only
    memoryview of the block in shared memory. The view is valid during the call only: it is
    released when the callback returns, and touching it afterwards raises ValueError. Inside the
    callback, hold() keeps the block beyond it (a PoolHold) and current_block_sequence() gives
    the block's sequence number. A slice or array made from the view and kept after the call
    keeps the block too, until it is dropped. An exception the callback raises is reported
    through ``sys.unraisablehook`` and the reader goes on.

    The reader's thread starts inside the constructor: the callback may run before the
    constructor has returned. A "queue" pool has one reader on the machine (SlotCreationError
    for a second); it gets also the blocks that waited before it started. A "latest" reader
    delivers each new latest block once. close() (or leaving the ``with`` block) stops it: no
    callback runs after it returns; a block the reader's thread takes while close() waits for it
    still reaches the callback, and the rest of a queue pool stays for the next reader.
    """

    def __init__(self, config: PoolConfigLike, callback: Callable[[memoryview], object],
                 **options) -> None:
        super().__init__(_pool_config(config, **options), callback)

    def hold(self) -> PoolHold:
        """Inside this reader's callback: a PoolHold that keeps the block being delivered, with
        its own read-only ``view`` and its ``sequence``; the block returns to the pool when the
        hold is closed or dropped. Raises SlotError elsewhere."""
        return super().hold()

    def close(self) -> None:
        """Stops the reader. Idempotent: a close while another thread's close is under way waits
        for that one to end (except inside the reader's own callback)."""
        super().close()

    def __enter__(self) -> "PoolReader":
        return self

    def __exit__(self, *exc) -> None:
        self.close()


class SimpleSlot:
    """One value by slot name, in one call each (SimpleSlotRW): a discarding slot with blocks
    of at most 65536 bytes, opened and let go again by every call."""

    def __init__(self, name: str) -> None:
        self.name = name

    def read(self) -> bytes:
        """The block waiting in the slot, or b"" when none waits."""
        return _native.simple_read(self.name)

    def write(self, data) -> WriteOutcome:
        """Stores ``data`` (any bytes-like object) as one block; returns what became of it."""
        return WriteOutcome(_native.simple_write(self.name, data))


def inspect_slot(name: str) -> SlotReport:
    """What the machine holds under the slot ``name``, seen without opening, locking or
    changing it (a snapshot): the document of ``slotctl info --json``. A name with nothing
    behind it gives state SlotState.ABSENT."""
    return inspect_slot_report(name)


def list_slots() -> List[SlotReport]:
    """Every slot, half or unfinished slot and posix-pipe FIFO of the machine, sorted by name:
    the entries of ``slotctl ls --json``."""
    return list_slot_reports()


_log = logging.getLogger("libslot")


def _forward_log(name: str, level: int, message: str) -> None:
    """Receives each library log record of WARN and above (on libslot's log thread)."""
    (_log.getChild(name) if name else _log).log(level, message)


_native._install_log_forwarding(_forward_log)

# At exit (last registered, first run): readers still open are stopped before the interpreter
# is finalised, after that no reader thread calls into Python; then the log records still
# queued are delivered and the library's later records go to stderr.
atexit.register(_native._stop_log_forwarding)
atexit.register(_native._close_all_readers)
