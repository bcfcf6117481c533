# SPDX-License-Identifier: Apache-2.0
"""Records of the slot survey: what the machine holds under a slot's name."""

from __future__ import annotations

import datetime
import enum
from dataclasses import dataclass, field
from typing import List, Optional


class SlotKind(str, enum.Enum):
    """Kind of a slot, as far as its objects tell."""

    UNKNOWN = "unknown"
    DISCARDING = "discarding"
    RELIABLE = "reliable"
    POSIX_PIPE = "posix-pipe"


class SlotState(str, enum.Enum):
    """State of a slot as a whole, decided in this order."""

    ABSENT = "absent"
    PIPE = "pipe"
    DEAD_HOLDER = "dead-holder"
    NO_ACCESS = "no-access"
    DAMAGED = "damaged"
    UNFINISHED = "unfinished"
    HALF = "half"
    BUSY = "busy"
    HEALTHY = "healthy"


class PartState(str, enum.Enum):
    """State of one shared-memory object of a slot."""

    ABSENT = "absent"
    OK = "ok"
    NO_ACCESS = "no access"
    UNFINISHED = "unfinished"
    DAMAGED = "damaged"
    FOREIGN = "not a slot part"


def _enum(kind, text):
    try:
        return kind(text)
    except ValueError:  # a state this package does not know yet: keep the text
        return text


@dataclass(frozen=True)
class SlotPart:
    """One shared-memory object of a slot (the header segment or the queue)."""

    state: PartState
    object: str
    path: str
    detail: str
    size: int
    age_seconds: Optional[float]
    owner: int
    mode: int
    writable: bool


@dataclass(frozen=True)
class HeaderPart(SlotPart):
    """The header segment: free bytes, last write time (UTC, None when not written since it
    was last opened) and the output buffer."""

    free_bytes: int = 0
    last_write: Optional[datetime.datetime] = None
    output_data_size: int = 0
    output_buffer_size: int = 0


@dataclass(frozen=True)
class QueuePart(SlotPart):
    """The queue: capacity and largest block, and the blocks waiting now."""

    capacity: int = 0
    max_block_size: int = 0
    waiting: int = 0


@dataclass(frozen=True)
class HeldLock:
    """A lock inside a slot found held: its holder's thread and live process (0: dead)."""

    lock: str
    thread: int
    process: int

    @property
    def holder_dead(self) -> bool:
        """True when the thread that holds the lock no longer exists."""
        return self.process == 0


@dataclass(frozen=True)
class SlotReport:
    """A snapshot of one slot, taken without opening it, locking it or changing it."""

    name: str
    state: SlotState
    detail: str
    kind: SlotKind
    header: HeaderPart
    queue: QueuePart
    held_locks: List[HeldLock] = field(default_factory=list)
    dead_holder: int = 0
    reader_lock_file: str = ""
    reader_pid: int = 0
    pipe_path: str = ""

    @property
    def capacity(self) -> int:
        """Blocks the queue holds."""
        return self.queue.capacity

    @property
    def max_block_size(self) -> int:
        """Largest block in bytes."""
        return self.queue.max_block_size

    @property
    def waiting(self) -> int:
        """Blocks waiting in the queue."""
        return self.queue.waiting

    @property
    def last_write(self) -> Optional[datetime.datetime]:
        """Time of the last write (UTC), None when not written since it was last opened."""
        return self.header.last_write


def _part(cls, d):
    d = dict(d)
    d["state"] = _enum(PartState, d["state"])
    if "last_write" in d and d["last_write"] is not None:
        d["last_write"] = datetime.datetime.fromtimestamp(d["last_write"], datetime.timezone.utc)
    return cls(**d)


def report_from_dict(d) -> SlotReport:
    """Builds a SlotReport from the native survey's dict."""
    d = dict(d)
    d["state"] = _enum(SlotState, d["state"])
    d["kind"] = _enum(SlotKind, d["kind"])
    d["header"] = _part(HeaderPart, d["header"])
    d["queue"] = _part(QueuePart, d["queue"])
    d["held_locks"] = [HeldLock(**lock) for lock in d["held_locks"]]
    return SlotReport(**d)
