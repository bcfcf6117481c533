// SPDX-License-Identifier: Apache-2.0
#include "ShmHygiene.h"

#include <gtest/gtest.h>

#include <log4cxx/basicconfigurator.h>
#include <log4cxx/logger.h>
#include <boost/interprocess/shared_memory_object.hpp>

#include <dirent.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>
#include <atomic>
#include <cstdlib>

namespace testsupport {

namespace {

std::atomic<unsigned int> counter{0};

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) {
    return ::remove(path);
}

class Environment : public ::testing::Environment {
public:
    void SetUp() override {
        const std::string& dir = TestRunDir();
        ::setenv("SLOT_LOCK_DIR", dir.c_str(), 1);
        ::setenv("SLOT_PIPE_DIR", dir.c_str(), 1);
        const char* verbose = std::getenv("SLOT_TEST_LOG");
        if (verbose != nullptr && std::string(verbose) == "1") {
            log4cxx::BasicConfigurator::configure();
            log4cxx::Logger::getRootLogger()->setLevel(log4cxx::Level::getTrace());
        } else {
            log4cxx::Logger::getRootLogger()->setLevel(log4cxx::Level::getOff());
        }
    }
    void TearDown() override {
        std::vector<std::string> left = LeftoverShmObjects();
        for (const std::string& name : left) {
            boost::interprocess::shared_memory_object::remove(name.c_str());
        }
        EXPECT_TRUE(left.empty()) << "the tests left " << left.size()
                                  << " object(s) in /dev/shm, first: " << left.front();
        ::nftw(TestRunDir().c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
    }
};

}  // namespace

const std::string& TestNamePrefix() {
    static const std::string prefix = "slottest_" + std::to_string(::getpid()) + "_";
    return prefix;
}

std::string UniqueName(const std::string& stem) {
    return TestNamePrefix() + std::to_string(counter++) + "_" + stem;
}

ScopedSlotName::ScopedSlotName(const std::string& stem) : name_(UniqueName(stem)) {}

ScopedSlotName::~ScopedSlotName() {
    RemoveSlotObjects(name_);
}

bool Exists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

bool ShmExists(const std::string& name) {
    return Exists("/dev/shm/" + name);
}

void RemoveSlotObjects(const std::string& name) {
    boost::interprocess::shared_memory_object::remove(name.c_str());
    boost::interprocess::shared_memory_object::remove(("queue_" + name).c_str());
}

std::vector<std::string> LeftoverShmObjects() {
    std::vector<std::string> left;
    DIR* dir = ::opendir("/dev/shm");
    if (dir == nullptr) {
        return left;
    }
    const std::string& prefix = TestNamePrefix();
    const std::string queuePrefix = "queue_" + prefix;
    while (dirent* entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        if (name.compare(0, prefix.size(), prefix) == 0 ||
            name.compare(0, queuePrefix.size(), queuePrefix) == 0) {
            left.push_back(name);
        }
    }
    ::closedir(dir);
    return left;
}

const std::string& TestRunDir() {
    static const std::string dir = [] {
        std::string pattern = "/tmp/" + TestNamePrefix() + "XXXXXX";
        if (::mkdtemp(&pattern[0]) == nullptr) {
            std::abort();
        }
        return pattern;
    }();
    return dir;
}

ScopedMissingSharedFolders::ScopedMissingSharedFolders()
    : pipeDir_(TestRunDir() + "/" + UniqueName("nopipes")),
      lockDir_(TestRunDir() + "/" + UniqueName("nolocks")) {
    ::setenv("SLOT_PIPE_DIR", pipeDir_.c_str(), 1);
    ::setenv("SLOT_LOCK_DIR", lockDir_.c_str(), 1);
}

ScopedMissingSharedFolders::~ScopedMissingSharedFolders() {
    ::setenv("SLOT_PIPE_DIR", TestRunDir().c_str(), 1);
    ::setenv("SLOT_LOCK_DIR", TestRunDir().c_str(), 1);
    ::rmdir(pipeDir_.c_str());
    ::rmdir(lockDir_.c_str());
}

std::vector<std::string> ScopedMissingSharedFolders::Made() const {
    std::vector<std::string> made;
    for (const std::string* dir : {&pipeDir_, &lockDir_}) {
        if (Exists(*dir)) {
            made.push_back(*dir);
        }
    }
    return made;
}

void InstallTestEnvironment() {
    ::testing::AddGlobalTestEnvironment(new Environment);
}

}  // namespace testsupport
