# SPDX-License-Identifier: Apache-2.0
"""Fixtures of the libslot suite: unique slot names removed after each test, private lock and
pipe folders, child processes with time limits, and a final check for leftovers in /dev/shm."""

import itertools
import os
import shutil
import subprocess
import sys
import tempfile

import pytest

# Lock files and FIFOs of this run go to a private folder (children inherit it), removed when
# pytest ends (also after a run that only collects).
RUN_DIR = tempfile.mkdtemp(prefix="libslot-pytest-")
os.environ["SLOT_LOCK_DIR"] = os.path.join(RUN_DIR, "lock")
os.environ["SLOT_PIPE_DIR"] = os.path.join(RUN_DIR, "pipes")

import libslot  # noqa: E402  (after the folders above are set)

PREFIX = f"pyslottest_{os.getpid()}_"
_counter = itertools.count()
SLOTCTL = os.environ.get("SLOTCTL", "")
CHILD_TIMEOUT = 120  # seconds; generous for sanitizer builds on a loaded machine


def unique_name(stem="slot"):
    """A slot name no other test or parallel run uses."""
    return f"{PREFIX}{next(_counter)}_{stem}"


def remove_everything(name):
    """Removes the slot's shared memory and its reader lock file (remove_slot), its FIFO, and a
    pool of that name."""
    libslot.remove_slot(name)
    libslot.remove_pool(name)
    try:
        os.unlink(os.path.join(os.environ["SLOT_PIPE_DIR"], name + ".fifo"))
    except FileNotFoundError:
        pass


def lock_file(name):
    """The reliable reader's lock file of slot `name` in this run's lock folder."""
    return os.path.join(os.environ["SLOT_LOCK_DIR"], name + ".lock")


@pytest.fixture
def names():
    """Makes unique slot names (names("stem")) and removes their objects afterwards, also when
    the test fails; names("stem", suffixes) removes those of the name plus each suffix too."""
    made = []

    def make(stem="slot", suffixes=()):
        name = unique_name(stem)
        made.extend([name] + [name + suffix for suffix in suffixes])
        return name

    yield make
    for name in made:
        remove_everything(name)


@pytest.fixture
def name(names):
    """One unique slot name, removed afterwards."""
    return names()


def run_python(code, *args, timeout=CHILD_TIMEOUT, **kwargs):
    """Runs `code` in a fresh interpreter (this one, with this environment); returns the
    CompletedProcess. A child that outlives `timeout` is killed and fails the test."""
    return subprocess.run([sys.executable, "-c", code, *args], capture_output=True,
                          timeout=timeout, **kwargs)


def check_child(result, stdout, returncode=0):
    """Checks a child's exit status and whole output; returns its stderr, which shows no sign of
    a crash, a Python error, a sanitizer's report or a log4cxx complaint (none of which need
    change the exit status)."""
    err = result.stderr.decode()
    assert result.returncode == returncode, err
    assert result.stdout.decode() == stdout, err
    for sign in ("Fatal", "Traceback", "runtime error", "Sanitizer", "log4cxx:"):
        assert sign not in err, err
    return err


def slotctl(*args, input=None, timeout=CHILD_TIMEOUT):
    """Runs slotctl (the C++ side of the cross-language tests)."""
    if not SLOTCTL:
        pytest.skip("slotctl is not built")
    return subprocess.run([SLOTCTL, *args], input=input, capture_output=True, timeout=timeout)


POOL_DIR = "/dev/shm/libslot-pools"


def shm_leftovers():
    """Objects of this run in /dev/shm and its pool folder (paths relative to /dev/shm)."""
    left = [f for f in os.listdir("/dev/shm") if PREFIX in f]
    if os.path.isdir(POOL_DIR):
        left += [os.path.join("libslot-pools", f) for f in os.listdir(POOL_DIR) if PREFIX in f]
    return sorted(left)


@pytest.fixture(scope="session", autouse=True)
def no_leftovers():
    """After the last test: nothing of this run may remain in /dev/shm (it is removed, and the
    run fails)."""
    yield
    left = shm_leftovers()
    for f in left:
        os.unlink(os.path.join("/dev/shm", f))
    assert not left, f"left in /dev/shm: {left}"


def pytest_unconfigure(config):
    shutil.rmtree(RUN_DIR, ignore_errors=True)
