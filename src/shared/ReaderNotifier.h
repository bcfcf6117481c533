// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/Export.h>
#include <shared/Notifier.h>

#include <sys/types.h>

namespace shared {

// The Notifier of a reader: its notifications come from a thread that the reader started in the
// process that made it (the readers of slots, named pipes and pools).
//
// A child forked without exec gets a copy of the reader without that thread, and with the
// reader's locks as the parent's threads held them at the fork: a delivery in progress then
// leaves the Notifier's mutex (and a reader's own delivery lock) held in the child for good. There
// the copy is Inherited and delivers nothing, so subscribe, unsubscribe and unsubscribeAll return
// at once without taking a lock, and hasSubscribers is false; dropping the copy is the readers'
// own (their destructors let the parent's thread and claims be). A plain Notifier keeps working
// in a child: one made before a fork may be used there.
class SHARED_EXPORT ReaderNotifier : public Notifier {
public:
    ReaderNotifier();

    void subscribe(ISubscriber* subscriber) override;
    void unsubscribe(ISubscriber* subscriber) override;
    void unsubscribeAll() override;
    // Hides Notifier's: false in an inherited copy.
    bool hasSubscribers();

    // True in a process forked from the one that made this reader: its thread, and every claim
    // or lock the reader holds, are that process's.
    bool Inherited() const;

private:
    const pid_t pid_;  // the process that made the reader
};

}  // namespace shared
