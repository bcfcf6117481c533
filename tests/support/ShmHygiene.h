// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

namespace testsupport {

// Prefix of every interprocess object name a test run makes: "slottest_<pid of the test binary>_".
const std::string& TestNamePrefix();

// A fresh slot name, unique in this run and across parallel runs: prefix + counter + stem.
std::string UniqueName(const std::string& stem = "slot");

// Removes a slot's objects ("<name>" and "queue_<name>") when it
// goes out of scope, also when the test fails.
class ScopedSlotName {
public:
    explicit ScopedSlotName(const std::string& stem = "slot");
    ~ScopedSlotName();
    ScopedSlotName(const ScopedSlotName&) = delete;
    ScopedSlotName& operator=(const ScopedSlotName&) = delete;

    const std::string& str() const { return name_; }
    const char* c_str() const { return name_.c_str(); }
    operator const std::string&() const { return name_; }

private:
    std::string name_;
};

// Whether `path` exists (a symbolic link is not followed), and the shared-memory object `name`.
bool Exists(const std::string& path);
bool ShmExists(const std::string& name);

// Removes the objects of `name` now.
void RemoveSlotObjects(const std::string& name);

// Entries in /dev/shm that this run created and left behind.
std::vector<std::string> LeftoverShmObjects();

// Per-run directory for lock files (exported as SLOT_LOCK_DIR) and for named pipes
// (SLOT_PIPE_DIR). Created on first use, removed by the test environment.
const std::string& TestRunDir();

// Points SLOT_PIPE_DIR and SLOT_LOCK_DIR at two folders below TestRunDir() that do not exist,
// for tests that check that a mere look creates neither; back to TestRunDir() (and the folders
// removed, should they have been made) when it goes out of scope.
class ScopedMissingSharedFolders {
public:
    ScopedMissingSharedFolders();
    ~ScopedMissingSharedFolders();
    ScopedMissingSharedFolders(const ScopedMissingSharedFolders&) = delete;
    ScopedMissingSharedFolders& operator=(const ScopedMissingSharedFolders&) = delete;

    // Those of the two folders that exist now, by path.
    std::vector<std::string> Made() const;

private:
    std::string pipeDir_;
    std::string lockDir_;
};

// Installs the gtest environment that sets the directories above up, silences log4cxx by
// default (SLOT_TEST_LOG=1 prints everything to stderr) and, after the last test, fails the run
// if anything it created is left in /dev/shm (and removes it).
void InstallTestEnvironment();

}  // namespace testsupport
