// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/Export.h>

#include <sys/types.h>
#include <string>

namespace shared {

// A named process-wide marker: IsUnique() is true while this object is the only live
// SingletonMutex of its name in the process. Thread-safe.
//
// A child forked (without exec) starts with none: the copies of the parent's objects are not
// counted in it (IsUnique is false for them, destroying them changes no count), so the child's
// own object of a name is unique there. The registry's mutex is never found held in a child.
class SHARED_EXPORT SingletonMutex {
public:
    explicit SingletonMutex(const std::string& name);
    ~SingletonMutex();

    SingletonMutex(const SingletonMutex&) = delete;
    SingletonMutex& operator=(const SingletonMutex&) = delete;

    bool IsUnique() const;

private:
    std::string name_;
    pid_t pid_;  // the process that counts this object
};

}  // namespace shared
