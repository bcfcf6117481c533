// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ChildProcess.h"

#include <Slot/BoostInterprocess/ReliableSlot.h>

#include <string>

namespace testsupport {

// A child process that opens the reliable slot `name`, locks its header mutex and holds it
// until released or killed: a live or (after SIGKILL) a dead holder.
class HeaderHolder {
public:
    explicit HeaderHolder(const std::string& name)
        : child_([this, name] {
              ReliableSlot slot(boost::interprocess::open_or_create, name.c_str(), 64, 4);
              slot.GetLockable()->lock();
              locked_.Post();
              release_.WaitFor(std::chrono::seconds(60));
              slot.GetLockable()->unlock();
              return 0;
          }) {}

    bool WaitLocked() { return locked_.WaitFor(); }
    void Release() { release_.Post(); }
    ChildProcess& Child() { return child_; }

private:
    PipeSignal locked_;
    PipeSignal release_;
    ChildProcess child_;
};

}  // namespace testsupport
