// SPDX-License-Identifier: Apache-2.0
#include <shared/SingletonMutex.h>

#include <shared/AtForkMutex.h>

#include <unistd.h>
#include <map>

namespace shared {

namespace {

// Holders per name. Entries are erased when their count drops to 0, except in a forked child's
// fork handler, which only zeroes the counts. Never freed: usable during static teardown.
std::map<std::string, unsigned int>* Holders = nullptr;

void InitHolders() {
    Holders = new std::map<std::string, unsigned int>;
}

// The parent's objects are no holders in a forked child.
void ForgetHoldersInChild() {
    for (std::pair<const std::string, unsigned int>& holder : *Holders) {
        holder.second = 0;
    }
}

// fork() takes it around itself: a child never finds it held by a thread it does not have.
using HoldersLock = AtForkMutex<InitHolders, ForgetHoldersInChild>::Lock;

}  // namespace

SingletonMutex::SingletonMutex(const std::string& name) : name_(name), pid_(::getpid()) {
    HoldersLock lock;
    ++(*Holders)[name_];
}

SingletonMutex::~SingletonMutex() {
    if (::getpid() != pid_) {
        return;  // a copy made by fork: it was never counted here
    }
    HoldersLock lock;
    std::map<std::string, unsigned int>::iterator it = Holders->find(name_);
    if (it != Holders->end() && it->second != 0 && --it->second == 0) {
        Holders->erase(it);
    }
}

bool SingletonMutex::IsUnique() const {
    if (::getpid() != pid_) {
        return false;
    }
    HoldersLock lock;
    std::map<std::string, unsigned int>::const_iterator it = Holders->find(name_);
    return it != Holders->end() && it->second == 1;
}

}  // namespace shared
