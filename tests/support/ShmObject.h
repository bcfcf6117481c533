// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>
#include <cstddef>
#include <string>
#include <vector>

namespace testsupport {

typedef std::vector<unsigned char> Bytes;

// The bytes of the shared-memory object `name`; empty when it cannot be read.
Bytes ReadObject(const std::string& name);

// Makes the object `name` hold exactly `bytes`; a missing one is created with `mode`, an
// existing one keeps its own. False on any error.
bool WriteObject(const std::string& name, const Bytes& bytes, mode_t mode = 0644);

// The whole object `name` mapped shared, as another process sees it; unmapped on destruction.
// `bytes` is null when it could not be opened or mapped.
class MappedObject {
public:
    MappedObject(const std::string& name, bool writable);
    ~MappedObject();
    MappedObject(const MappedObject&) = delete;
    MappedObject& operator=(const MappedObject&) = delete;

    unsigned char* bytes = nullptr;
    size_t size = 0;
};

}  // namespace testsupport
