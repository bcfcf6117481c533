// SPDX-License-Identifier: Apache-2.0
#include "Commands.h"

namespace slotctl {

const char* ToolHelp() {
    return R"HELP(usage: slotctl [-v|-vv] [--log-config FILE] COMMAND [ARGS]

Sees and pokes the slots of this machine: the shared-memory header segment "<name>" with its
message queue "queue_<name>", and the named pipes of posix-pipe slots; and its zero-copy pools
(files of /dev/shm/libslot-pools), which ls, info, write, read, hz and rm handle too.

A name that is only a pool means the pool; one that is both a slot and a pool is refused until
--slot or --pool says which; --type latest or --type queue (the pool kinds) means a pool, which
write and read create when it is missing (--max-size: its block size, --queue: its number of
blocks).

commands:
  ls [--json | --names]       every slot, half slot and posix-pipe FIFO, one line each
  info NAME [--json]          one slot in detail (read without disturbing it)
  write NAME [DATA | -]       write blocks (DATA, or standard input)
  read NAME                   print the blocks that arrive
  rm NAME... | rm --stale     remove slots, or stale ones left by a crash
  hz NAME / bw NAME           write rate / estimated bandwidth, without reading anything
  peek NAME                   the last block taken from the slot, without changing anything
  top [--once] [--json]       every slot and pool live: rates, fill, reader, attached processes
  record -o FILE.mcap NAME... record the blocks that arrive (slots, pools) to an MCAP file
  replay FILE.mcap...         write recorded blocks back into slots and pools
  demo                        blocks flowing through the three slot types, live
  help [COMMAND]              this text, or a command's

options (anywhere before "--"):
  -v, -vv             the library's DEBUG / TRACE logging on stderr
  --log-config FILE   a log4cxx configuration (.xml: DOMConfigurator, else properties)
  -h, --help          help for the tool, or for the command given
  --version           the versions of slotctl and of the libSlot it runs with

exit status: 0 ok, 1 failed (not a slot, no permission, data refused...), 2 bad command line,
124 read or write gave up waiting (--timeout), 130 interrupted.
)HELP";
}

const char* CommandHelp(const std::string& command) {
    if (command == "ls") {
        return R"HELP(usage: slotctl ls [--json | --names]

Lists every slot of this machine: NAME, KIND (a queue of capacity 1 is discarding, larger is
reliable; a FIFO alone is posix-pipe), STATE, MAX BLOCK size in bytes, WAITING blocks /
capacity, LAST WRITE (UTC; "never" means not written since the slot was last opened) and, for
reliable slots, the READER that holds the machine-wide reader lock ("pid N", "held" when the
pid is unknown, "none"). OWNER is the user owning the header segment (else the queue, else the
FIFO); AGE the time since it was created (status change time), as 12s, 5m, 3h or 2d.

STATE is "slot"; "pipe" for a posix-pipe FIFO; "header-only" or "queue-only" for half a slot
(e.g. after a crash; see rm --stale); "dead-holder" when a lock inside it is held by a process
that no longer exists (NOTE names its pid; remove the slot with rm --stale); "busy" when a live
process kept a lock inside it held at every look (NOTE names it); "unfinished" when its
creator has not finished it, or died doing so; "no-access" when this user cannot open it;
"damaged" otherwise.

Nothing is opened through the library (which would reset the header): the library's
inspection reads the objects' bytes and checks every offset in them, takes no lock and never
waits. Objects of other programs in /dev/shm are skipped. Names are printed with control
characters and bytes that are not UTF-8 escaped as \xNN.
  --json    one JSON array of objects (name, state, kind, max_block_size, waiting, capacity,
            last_write, reader {lock_file, held, pid}, pipe, holder {lock, pid, alive},
            owner, uid, age_seconds, detail); unknown values are null; control characters
            are \u00XX escapes (\n, \t... for those JSON has a short escape for) and bytes
            that are not UTF-8 the text \xNN
  --names   only the names of the slots, then of the pools, one per line, whole and escaped as
            in the table (for scripts and the shell's completion)
)HELP";
    }
    if (command == "info") {
        return R"HELP(usage: slotctl info NAME [--json]
       slotctl info FILE.mcap      a recording: channels, counts, time range, gaps

Shows one slot in detail without disturbing it: kind, block size, waiting blocks, last write
time and its age, the reliable reader's lock, the header segment (size, managed and free
bytes, the named objects last_write_tstamp, output_buffer_data_size, output_buffer_handle,
cond_on_write and their sizes) and the queue (size, capacity), and every lock found held with
its holder, alive or dead, its owner and age, and the processes attached to it: pid, user,
what they use (header, queue, pipe: mapped or open, as /proc/PID/maps and /proc/PID/fd show;
reader lock: the holder of the reliable reader's lock file) and command line. Half, unfinished
and damaged slots are shown as far as they can be read.
  --json    the same as one JSON object (the ls fields plus "header", "queue", "locks" and
            "attached" [{pid, uid, command, header, queue, pipe, reader}])
Fails (status 1) when NAME is not a slot or cannot be opened.
A pool is shown with its kind, block size and count, its blocks free, loaned, waiting and
held, the pids holding blocks ("dead pid N" for a process gone), the queue's reader and the
processes attached; --json prints its ls keys plus "file", "file_size" and "attached".
)HELP";
    }
    if (command == "write") {
        return R"HELP(usage: slotctl write NAME [options] [DATA | -]

Writes DATA, or standard input when DATA is "-" or missing, as one block through a writer made
by the library's factory. The slot is created when it does not exist.
  --type T          discarding (default for a new slot), reliable or posix-pipe; an existing
                    slot keeps its kind unless --type is given
  --max-size N      maximum block size of a new slot (default 65536; an existing slot keeps
                    its own)
  --queue N         queue capacity of a new reliable slot (default 16)
  --length N        cut or pad (with zero bytes) each block to N bytes (at most the slot's
                    maximum block size)
  --lines           one block per line (without the newline), read as the lines come
  --every MS        wait MS milliseconds between blocks; repeats the block until Ctrl-C
                    unless --count is given
  --count N         write the block N times (0: until Ctrl-C)
  --frames          standard input is a stream of frames, each one block: a 4-byte
                    little-endian length, then that many bytes (as read --format frames
                    writes them); input that ends inside a frame, or a frame larger than the
                    slot's maximum block size, ends the command with status 1
  --timeout MS      give up (status 124, as timeout(1)) when opening the slot or storing
                    one block takes longer than MS ms, e.g. while another process holds the
                    slot's lock
Standard input is read only as far as a block takes it: more than the slot's maximum block
size (for --lines: a line longer than it, unless --length cuts it) is refused, status 1.
The library's warnings about refused or dropped blocks ("Queue in '<name>' is full, the data
was not written", "One data block discarded from <name>", a full named pipe...) are printed
as it logs them, followed by a summary line. Status 1 when a block was refused, dropped or
failed, or when a posix-pipe still held bytes as it was closed with no reader (lost with it);
discarding a waiting block is how a discarding slot works and is not a failure.
  --pool, --slot    which one NAME means when it is both (see slotctl help); a pool is
                    written through a pool writer, one copy into a loaned block
)HELP";
    }
    if (command == "read") {
        return R"HELP(usage: slotctl read NAME [options]
       slotctl read FILE.mcap [--format F] [--count N]

Subscribes to a reader of the library and prints each block as it arrives, after the line
"slotctl: reading 'NAME' (TYPE)" on stderr. The reader is the factory's; for a reliable slot
it is built the same way but subscribed before its thread starts, so that no block waiting in
the queue is delivered to nobody. The slot is created when it does not exist. A discarding reader delivers only blocks written after it started, and only while
they are not older than the update time; a reliable slot has one reader on the whole machine
and it also gets the blocks that were waiting; a posix-pipe is a byte stream, printed in the
chunks it arrives in.
  --type T, --max-size N, --queue N    as for write
  --update-time MS    the reader's update time (default 100)
  --count N           end after N blocks (default 1; 0: no limit); from a reliable slot or
                      a queue pool exactly N are taken, the rest stays in it; stopped
                      otherwise, a block the reader took is printed too, never lost
  --follow            no limit (until Ctrl-C)
  --timeout MS        give up when no block came for MS ms, or the slot could not be opened
                      within MS ms: status 124 (as timeout(1)), also with --follow, after
                      "slotctl: no block from 'NAME' within MS ms (N of COUNT read)" on
                      stderr ("(N read)" with --follow or --count 0); the blocks that
                      came before are printed. A reader starts in one update time, taking
                      blocks meanwhile: a time-out within its start says "slotctl: the
                      reader of 'NAME' did not finish starting within MS ms (its start
                      takes one update time, U ms; N of COUNT read)", unless COUNT was
                      reached meanwhile (status 0). The end of the start and the
                      reader's stop are waited for, so read may end up to two update
                      times after MS ms
  --format F          text: "<n> bytes: <text>", control characters and bytes that are
                            not UTF-8 as \xNN, \n \t \r \\ short (default)
                      hex:  "<n> bytes:" and a hex dump
                      raw:  the bytes alone, for pipes
                      frames: each block as a 4-byte little-endian length and its bytes
                              (binary-safe; write --frames reads it back)
                      ndjson: one JSON object per line: {"time":"<arrival, UTC>Z","size":N,
                              "base64":"<the bytes>"}
  --pool, --slot      which one NAME means when it is both (see slotctl help); a queue pool
                      has one reader, as a reliable slot: a second is refused, naming it
)HELP";
    }
    if (command == "rm") {
        return R"HELP(usage: slotctl rm NAME...
       slotctl rm --stale [NAME...]

Removes each slot through SlotFactory::RemoveSlot (header segment and queue) and the
posix-pipe FIFO of the same name, and says what was removed. Objects that are not slot parts
are never removed. Processes still using a slot keep their mappings; new ones make a new slot.
  --stale          remove only stale slots: half slots (a header without its queue or the
                   reverse), unfinished ones and those whose lock a dead process holds, and
                   reader lock files whose slot is gone; the named ones, or, without names,
                   every one on the machine; FIFOs are kept
  --min-age SECS   with --stale, leave slots younger than this (default 5): a slot being
                   created is briefly half or unfinished; one no longer stale when it is
                   about to go (a writer repaired it) is left too
  --force          remove a slot even though processes are attached to it
A slot that other processes are attached to (see info) is not removed, with a warning naming
them, unless --force is given. The reliable reader's lock file left behind by a reader that
ended is removed with the slot, or alone when the slot is already gone ("removed 'NAME' (no
slot left): lock file ..."); one still held is kept. A lock file is claimed with a
non-blocking lock before it is unlinked, through the checked lock folder, never through a link.
Status 1 when a name was not a slot, was in use, or could not be removed.
  --pool, --slot   which one NAME means when it is both. A pool's file is removed unless live
                   processes are attached to it (--force); with --stale only a damaged pool
                   is, and --stale alone removes every damaged pool too
)HELP";
    }
    if (command == "hz" || command == "bw") {
        return R"HELP(usage: slotctl hz NAME [--window SECS] [--timeout MS]
       slotctl bw NAME [--window SECS] [--timeout MS]

Counts the writes into a slot without reading from it: every write advances the sequence
word of the slot's write condition, which is read from the header segment with plain reads
(no lock, no reader, nothing taken: a reliable slot's reader still gets every block, a
discarding slot's reader is not disturbed). One line per window on stdout:
  hz: "rate: R writes/s (N writes in S s); average A writes/s over T s"
  bw: "estimated bandwidth: ..." = writes x the size of the last block a reader took (the only
      block size the header keeps); an ESTIMATE, exact only when all blocks have one size
A pool's publishes are counted from its sequence, read as ls reads it (no block taken); bw
refuses a pool. --pool, --slot: which one NAME means when it is both.
  --window SECS   length of each window (default 1)
  --timeout MS    stop after MS ms (default: until Ctrl-C); the planned end of the watch,
                  status 0
A posix-pipe cannot be watched (its bytes would have to be read). Status 1 when the slot has
no usable header or goes away, 130 on Ctrl-C.
)HELP";
    }
    if (command == "peek") {
        return R"HELP(usage: slotctl peek NAME [--format F]

Prints the slot's output buffer, the copy of the last block a reader took from it, read from
the header segment with plain reads: nothing is taken, locked or changed. A slot that was not
read since it was last opened shows an empty block. Slots only: a pool has no output buffer
(read takes its blocks).
  --format F    text (default), hex, raw, frames or ndjson, as for read (the ndjson time is
                the slot's last write time, null when unknown)
)HELP";
    }
    if (command == "top") {
        return R"HELP(usage: slotctl top [--interval SECS] [--once] [--json]

Every slot of this machine, refreshed every interval, one row each: NAME, KIND and STATE (the
words of ls), WRITE/S and MB/S (from the slot's write counter, as hz and bw: the bytes are
estimated from the size of the last block a reader took; "-" until two looks, or when no
block was taken), WAITING blocks / capacity with a bar, the reliable READER's pid ("none",
"held" when unknown, "-" for other kinds), ATT the number of attached processes (as info
lists them) and LAST the age of the last write. Like ls it reads nothing from the slots: no
block is taken, no lock, nothing waits. Names are escaped as everywhere in slotctl; a name too
long for its column ends in '~'.

Pools have rows too: KIND latest or queue, STATE healthy or damaged, WRITE/S from the pool's
sequence (as hz counts it; MB/S is "-"), WAITING the blocks in use (waiting, held or loaned)
of the pool's block count, READER a queue pool's reader, ATT the attached processes and LAST
the age of the last publish. A pool is surveyed as ls does: without attaching to it.

keys: q quits; s sorts by the next column (NAME, WRITE/S, MB/S, WAITING, LAST: largest or
most recent first); / filters by name (type a part of the name as shown, Enter applies, Esc
cancels, an empty filter shows all); p pauses and resumes. The view fits 80x24 and follows the
terminal's size. Ctrl-C (or Ctrl-\) ends it too (status 130), with the terminal restored.

  --interval SECS   time between looks, 0.1 to 3600 (default 1)
  --once            one table after one interval (the rates need two looks), then exit; also
                    what top does when standard input or output is not a terminal
  --json            one JSON object per interval, one line each: {"time", "interval_seconds",
                    "slots": [...]}, each slot or pool with the fields of ls --json plus
                    writes_per_second, bytes_per_second (null when unknown),
                    attached_processes and last_write_age_seconds; with --once a single one
The full-screen view needs ncurses: a slotctl built without it has --once and --json only.
)HELP";
    }
    if (command == "record") {
        return R"HELP(usage: slotctl record -o FILE.mcap [options] NAME...

Reads the slots and pools and writes every block that arrives to an MCAP file: one channel per
slot (topic = the slot's name, metadata kind, max_block_size, queue_length, host,
libslot_version) or pool (topic = its name, metadata object "pool", kind latest or queue,
max_block_size, block_count, host, libslot_version), one message per block with log_time =
arrival (ns, UTC), publish_time = the same, and a sequence: a reliable slot's blocks are
numbered 1, 2, 3...; a discarding slot's take the slot's write counter and a pool's block its
own sequence number, so writes the recorder never saw show as gaps. A reliable slot or queue
pool has one reader per machine: the recorder is it, and refuses one that already has a
reader. A name that is only a pool is a pool; --pool or --slot decides for a name that is
both. A pool's block is written to the file from shared memory, not copied first.
Ctrl-C (SIGINT, SIGTERM) stops it cleanly: summary and footer are written, status 0 (1 when
a block recorded was not passed on by --tee: it stays recorded, the rest stay in NAME). A
recorder killed with SIGKILL leaves a file without summary whose records read and replay up to
the last one it wrote (with --compression zstd, up to the last closed chunk: at most one chunk
or one second is lost). The end prints blocks, bytes and gaps per slot, the files, and whether
the recorder kept up; on a terminal a progress line shows the same while it runs.
  -o, --output FILE        the file (never overwritten: it must not exist)
  --compression zstd|none  zstd: chunks of 1 MiB compressed with zstd, with message and chunk
                           indexes; none (default): plain messages, each in the file at once
  --split-size N[K|M|G]    start a new file when one reaches N bytes; files are then named
                           FILE-000.mcap, FILE-001.mcap, ... (no block is lost in between)
  --split-duration SECS    start a new file every SECS seconds (same names)
  --duration SECS          stop after SECS seconds
  --count N                stop after N blocks (blocks a reliable reader already took are
                           recorded too)
  --tee OTHER              pass every recorded block on into slot OTHER (one NAME only), in
                           order; a refused block is retried: the consumer then reads OTHER.
                           A pool's blocks go into the pool OTHER, made like the recorded one
                           when missing
  --pool, --slot           which one a NAME means that is both a slot and a pool
  --update-time MS         the readers' update time (default 100)
)HELP";
    }
    if (command == "replay") {
        return R"HELP(usage: slotctl replay [options] FILE.mcap...

Writes recorded blocks back into slots of the recorded names, file after file, creating a
missing slot with the recorded kind and sizes (the defaults of write when the file does not
say). A pool's channel goes into a pool, made with the recorded kind, block size and block
count when missing, and written through loans; a slot's blocks never go into a name that is
only a pool, nor a pool's into a slot. A block refused (a full reliable slot or queue pool, a
pool without a free block) is retried until stored, and counted; nothing is dropped silently.
The end prints blocks and retries per slot or pool, and the bytes a posix-pipe still held as it
was closed with no reader (lost with it: status 1). A channel that cannot be replayed into (its
name not a valid slot name, a pool's metadata unusable) fails alone: its reason is printed once,
its blocks are counted as not written, the others go on, status 1. The recorded pace runs over
all FILEs of a pass as one timeline (a day between two recordings is waited for: use --max or
separate runs for unrelated files).
  --map OLD=NEW      replay channel OLD into slot or pool NEW (may be repeated)
  --rate X           X times the recorded pace (default 1: as recorded); a wait of 10 s or
                     more for the next block is announced with how long it is
  --max              as fast as the slots accept
  --loop             start again at the end, until Ctrl-C
  --topics A,B       only these channels
  --update-time MS   update time of the slots it opens (default 100)

read FILE.mcap [--format F] [--count N] prints a recording as read prints a slot, and
info FILE.mcap summarises it (channels, metadata, counts, time range, gaps). An operand is a
recording when it ends in ".mcap" and names a regular file.
)HELP";
    }
    if (command == "demo") {
        return R"HELP(usage: slotctl demo [options]

Starts a publisher process and a subscriber process and shows, live, blocks flowing through a
discarding, a reliable and a posix-pipe slot: blocks sent, received, discarded or refused, and
the median and 99th-percentile latency from write to subscriber. Ends with a summary table and
removes every object it made (also on Ctrl-C).
  --duration SECS    how long the publisher writes (default 10)
  --rate N           blocks per second into each slot (default 1000)
  --burst N          blocks written back to back (default 50): bursts show what each type does
                     when the reader falls behind
  --size N           block size in bytes, 16 to 4096 (default 64)
  --queue N          capacity of the reliable slot (default 16)
  --update-time MS   the readers' update time (default 100)
  --prefix P         slot names P-discarding, P-reliable, P-posix-pipe (default
                     slotctl-demo-<pid>)
)HELP";
    }
    if (command == "help") {
        return R"HELP(usage: slotctl help [COMMAND]
       slotctl COMMAND --help

Prints the overview of slotctl and its commands, or, with COMMAND, that command's usage and
options.
)HELP";
    }
    return "(internal command of slotctl demo)\n";
}

}  // namespace slotctl
