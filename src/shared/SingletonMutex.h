// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <shared/Export.h>

#include <string>

namespace shared {

// A named process-wide marker: IsUnique() is true while this object is the only live
// SingletonMutex of its name in the process. Thread-safe.
class SHARED_EXPORT SingletonMutex {
public:
    explicit SingletonMutex(const std::string& name);
    ~SingletonMutex();

    SingletonMutex(const SingletonMutex&) = delete;
    SingletonMutex& operator=(const SingletonMutex&) = delete;

    bool IsUnique() const;

private:
    std::string name_;
};

}  // namespace shared
