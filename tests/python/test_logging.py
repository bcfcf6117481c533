# SPDX-License-Identifier: Apache-2.0
"""The library's log in Python: quiet and correct by default (WARN and above to the logger
"libslot"), configure_logging and a host's own log4cxx configuration taking over, and no hang
when records come from reader threads while Python waits for them or exits."""

import logging
import os
import re
import textwrap

import libslot
from conftest import check_child, run_python

WAIT = 30  # seconds


def full_queue_message(name):
    return f"Queue in '{name}' is full, the data was not written"


def test_warnings_reach_the_libslot_logger_and_nothing_below_warn(name, caplog):
    caplog.set_level(logging.DEBUG, logger="libslot")
    # A reliable slot of one block refuses the second: one WARN line.
    with libslot.Writer(name, type="reliable", queue_length=1) as writer:
        assert writer.write(b"1") is libslot.WriteOutcome.STORED
        assert writer.write(b"2") is libslot.WriteOutcome.REFUSED
    assert libslot._native._flush_log(WAIT)
    records = [r for r in caplog.records if r.name.startswith("libslot")]
    assert [(r.name, r.levelno, r.getMessage()) for r in records] == \
        [("libslot.Slot", logging.WARNING, full_queue_message(name))]


# A child interpreter: only what it prints tells whether log4cxx complained.
DEFAULT = textwrap.dedent("""
    import sys, libslot
    name = sys.argv[1]
    with libslot.Writer(name, type="reliable", queue_length=1) as writer:
        writer.write(b"1")
        writer.write(b"2")               # refused: the one WARN line
        with libslot.Reader(name, type="reliable") as reader:
            print(reader.get(timeout=30))
    libslot.remove_slot(name)
""")


def test_a_script_prints_no_log4cxx_warning_and_only_the_warning_itself(name):
    # Python's last-resort handler: the message alone, no "log4cxx:" complaint.
    err = check_child(run_python(DEFAULT, name), "b'1'\n")
    assert err == full_queue_message(name) + "\n"


def test_configure_logging_sends_the_log_to_stderr_instead(name):
    code = DEFAULT.replace("import sys, libslot", textwrap.dedent("""
        import logging, sys, libslot
        forwarded = []
        class Keep(logging.Handler):
            def emit(self, record):
                forwarded.append(record)
        logging.getLogger("libslot").addHandler(Keep())
        libslot.configure_logging("INFO")
        import atexit
        atexit.register(lambda: print("forwarded", len(forwarded)))
    """))
    err = check_child(run_python(code, name), "b'1'\nforwarded 0\n")
    # BasicConfigurator's layout: "<ms> [<thread>] LEVEL logger <NDC> - message".
    assert re.search(r"\] WARN Slot +- " + re.escape(full_queue_message(name)) + "\n", err), err
    assert re.search(r"\] INFO Slot +- Creating ReliableSlotReader for " + re.escape(name), err), err


def test_a_host_log4cxx_configuration_is_left_alone(name, tmp_path):
    config = tmp_path / "log4cxx.properties"
    config.write_text("log4j.rootLogger=WARN, err\n"
                      "log4j.appender.err=org.apache.log4j.ConsoleAppender\n"
                      "log4j.appender.err.Target=System.err\n"
                      "log4j.appender.err.layout=org.apache.log4j.PatternLayout\n"
                      "log4j.appender.err.layout.ConversionPattern=host %p %c %m%n\n")
    result = run_python(DEFAULT, name, env=dict(os.environ, LOG4CXX_CONFIGURATION=str(config)))
    assert check_child(result, "b'1'\n") == "host WARN Slot " + full_queue_message(name) + "\n"


# Records logged on a reader's thread (the callback writes into a full slot) while the main
# thread closes the reader, and while the interpreter exits with such a reader running.
READER_THREAD_WARNINGS = textwrap.dedent("""
    import logging, sys, threading, libslot
    name = sys.argv[1]
    seen = threading.Event()
    class Seen(logging.Handler):
        def emit(self, record):
            seen.set()
    logging.getLogger("libslot").addHandler(Seen())
    full = libslot.Writer(name + "_full", type="reliable", queue_length=1)
    full.write(b"x")
    def callback(block):
        for _ in range(50):
            full.write(block)            # refused: a WARN record on the reader's thread
    source = libslot.Writer(name, type="reliable")
    for round in range(3):
        reader = libslot.Reader(name, callback, type="reliable", update_time=0.01)
        for _ in range(20):
            source.write(b"b")
        assert seen.wait(30)
        reader.close()                   # joins the thread that is logging
        seen.clear()
    reader = libslot.Reader(name, callback, type="reliable", update_time=0.01)
    def write_forever():
        while True:
            source.write(b"b")
    threading.Thread(target=write_forever, daemon=True).start()
    assert seen.wait(30)
    print("exiting", flush=True)
""")


def test_records_from_reader_threads_neither_hang_close_nor_exit(names):
    result = run_python(READER_THREAD_WARNINGS, names("warn", ("_full",)), timeout=120)
    check_child(result, "exiting\n")
