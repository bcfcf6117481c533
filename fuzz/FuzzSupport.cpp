// SPDX-License-Identifier: Apache-2.0
#include "FuzzSupport.h"

#include <log4cxx/level.h>
#include <log4cxx/logger.h>

#include <sys/stat.h>
#include <unistd.h>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace fuzzsupport {

void QuietLogging() {
    log4cxx::Logger::getRootLogger()->setLevel(log4cxx::Level::getOff());
}

namespace {

// Plain storage: it must outlive every static destructor, the exit handler below runs after
// them.
char privateRoot[PATH_MAX];

void RemovePrivateRoot() {
    std::error_code ignored;
    std::filesystem::remove_all(privateRoot, ignored);
}

void MakeFolder(const std::string& path) {
    if (::mkdir(path.c_str(), 0700) != 0) {
        Fail("cannot make " + path);
    }
}

}  // namespace

const std::string& PrivateRoot() {
    static const std::string root = [] {
        const char* tmp = std::getenv("TMPDIR");
        const std::string pattern =
            std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/slotfuzz.XXXXXX";
        if (pattern.size() >= sizeof(privateRoot)) {
            Fail("TMPDIR is too long");
        }
        pattern.copy(privateRoot, pattern.size());
        if (::mkdtemp(privateRoot) == nullptr) {
            Fail("cannot make a private folder " + pattern);
        }
        std::atexit(RemovePrivateRoot);
        return std::string(privateRoot);
    }();
    return root;
}

const SharedFolders& UsePrivateFolders() {
    static const SharedFolders folders = [] {
        const std::string base = PrivateRoot() + "/a/b";
        MakeFolder(PrivateRoot() + "/a");
        MakeFolder(base);
        SharedFolders made{base + "/pipes", base + "/locks"};
        MakeFolder(made.pipes);
        MakeFolder(made.locks);
        ::setenv("SLOT_PIPE_DIR", made.pipes.c_str(), 1);
        ::setenv("SLOT_LOCK_DIR", made.locks.c_str(), 1);
        return made;
    }();
    return folders;
}

const std::string& ProcessTag() {
    static const std::string tag = "slotfuzz_" + std::to_string(::getpid()) + "_";
    return tag;
}

void NoteSlotInUse(const std::string& name) {
    const std::string path = PrivateRoot() + "/slot-in-use";
    std::FILE* file = std::fopen(path.c_str(), "w");
    if (file == nullptr) {
        Fail("cannot write " + path);
    }
    std::fwrite(name.data(), 1, name.size(), file);
    std::fclose(file);
}

void Fail(const std::string& what) {
    std::fprintf(stderr, "==FUZZ PROPERTY BROKEN== %s\n", what.c_str());
    std::fflush(stderr);
    std::abort();
}

std::string Escaped(const std::string& bytes) {
    std::string out;
    for (const char ch : bytes) {
        const unsigned char c = static_cast<unsigned char>(ch);
        if (c < 0x20 || c >= 0x7f || c == '\\' || c == '"') {
            char hex[8];
            std::snprintf(hex, sizeof(hex), "\\x%02x", c);
            out += hex;
        } else {
            out += ch;
        }
    }
    return out;
}

}  // namespace fuzzsupport
