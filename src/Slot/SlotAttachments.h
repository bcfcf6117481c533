// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/Export.h>

#include <sys/types.h>
#include <string>
#include <vector>

// The processes attached to a slot, as `ipcs` (nattch) and `lsof` show them for other objects.
//
// A process is attached when it maps or holds open the slot's header segment "<name>" or its
// queue "queue_<name>" (seen in /proc/<pid>/maps and /proc/<pid>/fd), holds open the posix-pipe
// FIFO of that name, or holds the reliable reader's lock file. Objects that were removed while
// mapped ("(deleted)") belong to an earlier slot of the name and do not count, nor does a
// descriptor of the header or queue open for reading only: that is an inspector (slotctl, a
// survey) reading the object for a moment.
//
// Only processes whose /proc entries this process may read are seen: as an ordinary user, other
// users' processes are counted in `unreadable` instead. The answer is a snapshot.
struct SLOT_EXPORT SlotAttachment {
    pid_t pid = 0;
    uid_t uid = 0;
    std::string command;  // its command line, arguments separated by spaces (its name when
                          // the command line is empty, e.g. a kernel thread or a zombie)
    bool header = false;  // maps or holds open the header segment
    bool queue = false;   // maps or holds open the queue
    bool pipe = false;    // holds open the posix-pipe FIFO
    bool reader = false;  // holds the reliable reader's lock file

    // "header, queue, reader lock", in that order.
    std::string What() const;
};

struct SlotAttachmentList {
    std::vector<SlotAttachment> processes;  // sorted by pid
    unsigned unreadable = 0;                // processes whose maps or fds could not be read
};

// A slot to look for: its name and the posix-pipe FIFO of that name (SlotReport::pipePath;
// empty: none).
struct SlotAttachmentQuery {
    std::string name;
    std::string pipePath;
};

class SLOT_EXPORT SlotAttachments {
public:
    // Every process attached to slot `name`. `pipePath` is the posix-pipe FIFO to look for (from
    // SlotReport::pipePath; empty: none). Never throws for what it finds.
    static SlotAttachmentList Find(const std::string& name, const std::string& pipePath = "");

    // Find for many slots with one pass over /proc (each process's maps and descriptors are
    // read once, whatever the number of slots): one list per slot, in the order asked. A
    // repeated name gets the same list again; an invalid name an empty one.
    static std::vector<SlotAttachmentList> FindMany(const std::vector<SlotAttachmentQuery>& slots);
};
