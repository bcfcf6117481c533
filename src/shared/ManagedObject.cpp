// SPDX-License-Identifier: Apache-2.0
#include <shared/CrashPoint.h>
#include <shared/ManagedObject.h>
#include <shared/MutexOwner.h>
#include <shared/SharedFolder.h>

#include <boost/interprocess/exceptions.hpp>

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace shared {

namespace {

// Boost's creation states (managed_open_or_create_impl).
enum : std::uint32_t { Uninitialised = 0, Initialising = 1, Initialised = 2, Corrupted = 3 };

[[noreturn]] void Fail(const std::string& text) {
    throw boost::interprocess::interprocess_exception(text.c_str());
}

[[noreturn]] void FailSystem(int error) {
    throw boost::interprocess::interprocess_exception(boost::interprocess::error_info(error));
}

class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

class Mapping {
public:
    Mapping(int fd, std::size_t size, int protection)
        : size_(size), address_(::mmap(nullptr, size, protection, MAP_SHARED, fd, 0)) {}
    ~Mapping() {
        if (address_ != MAP_FAILED) {
            ::munmap(address_, size_);
        }
    }
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;
    bool ok() const { return address_ != MAP_FAILED; }
    char* get() const { return static_cast<char*>(address_); }

private:
    std::size_t size_;
    void* address_;
};

std::uint32_t* StateWord(const Mapping& mapping) {
    return reinterpret_cast<std::uint32_t*>(mapping.get());
}

// Creates `name`, which did not exist; throws (leaving nothing behind) when it cannot.
void CreateObject(int fd, const std::string& name, std::size_t size, std::size_t userOffset,
                  const std::function<void(void*, std::size_t)>& initialise) {
    auto removeAndFail = [&](const std::string* text, int error) {
        ::shm_unlink(name.c_str());
        if (text != nullptr) {
            Fail(*text);
        }
        FailSystem(error);
    };
    // Permissions regardless of the umask.
    if (::fchmod(fd, 0644) != 0) {
        removeAndFail(nullptr, errno);
    }
    // Reserve every page now: on a full tmpfs this fails with ENOSPC instead of a later SIGBUS.
    const int reserved = ::posix_fallocate(fd, 0, static_cast<off_t>(size));
    if (reserved != 0) {
        removeAndFail(nullptr, reserved);
    }
    CrashPoint("create-sized");
    Mapping mapping(fd, size, PROT_READ | PROT_WRITE);
    if (!mapping.ok()) {
        removeAndFail(nullptr, errno);
    }
    std::uint32_t* state = StateWord(mapping);
    __atomic_store_n(state, static_cast<std::uint32_t>(Initialising), __ATOMIC_SEQ_CST);
    CrashPoint("create-initialising");
    try {
        initialise(mapping.get() + userOffset, size - userOffset);
    } catch (const std::exception& e) {
        const std::string text = e.what();
        removeAndFail(&text, 0);
    }
    __atomic_store_n(state, static_cast<std::uint32_t>(Initialised), __ATOMIC_RELEASE);
}

enum class Found { Ready, Vanished, Unfinished };

// Waits for another process's object to become initialised.
Found AwaitObject(int fd, const std::string& name, std::size_t userOffset,
                  const std::string& remedy) {
    const auto limit = CreationWaitLimit();
    const auto deadline = std::chrono::steady_clock::now() + limit;
    std::string cause;
    for (;;) {
        struct stat st;
        if (::fstat(fd, &st) != 0) {
            FailSystem(errno);
        }
        if (st.st_nlink == 0) {
            return Found::Vanished;  // removed meanwhile (e.g. its creator ran out of space)
        }
        const std::size_t size = static_cast<std::size_t>(st.st_size);
        if (size == 0) {
            cause = "has size 0";
        } else if (size < userOffset + sizeof(std::uint32_t)) {
            Fail("'" + name + "' is damaged: " + std::to_string(size) +
                 " bytes are too few for a slot object; " + remedy);
        } else {
            Mapping mapping(fd, sizeof(std::uint32_t), PROT_READ);
            if (!mapping.ok()) {
                FailSystem(errno);
            }
            const std::uint32_t state = __atomic_load_n(StateWord(mapping), __ATOMIC_ACQUIRE);
            if (state == Initialised) {
                return Found::Ready;
            }
            if (state != Uninitialised && state != Initialising) {
                Fail("'" + name + "' is damaged (creation state " + std::to_string(state) + "); " +
                     remedy);
            }
            cause = state == Uninitialised ? "was never initialised" : "is still being initialised";
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            Fail("'" + name + "' " + cause + ": its creator did not finish it within " +
                 std::to_string(limit.count()) + " ms and has probably died; " + remedy);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

}  // namespace

std::chrono::milliseconds CreationWaitLimit() {
    // Read at every use (only slow paths wait), so a test can change it in a forked child.
    const char* text = std::getenv("SLOT_CREATION_WAIT_MS");
    if (text != nullptr && *text != '\0') {
        char* end = nullptr;
        const unsigned long value = std::strtoul(text, &end, 10);
        if (*end == '\0' && value <= 600000) {
            return std::chrono::milliseconds(value);
        }
    }
    return std::chrono::milliseconds(2000);
}

bool PrepareManagedObject(const std::string& name, std::size_t size, std::size_t userOffset,
                          const std::function<void(void*, std::size_t)>& initialise,
                          const std::string& remedy) {
    if (size < userOffset + sizeof(std::uint32_t)) {
        FailSystem(EINVAL);
    }
    // An object removed while we wait for it is looked at again; a few rounds cover a creator
    // that gives up (no space) while others race to open.
    for (int round = 0; round < 8; ++round) {
        const int created = ::shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (created >= 0) {
            Fd fd(created);
            CreateObject(fd.get(), name, size, userOffset, initialise);
            return true;
        }
        if (errno != EEXIST) {
            FailSystem(errno);
        }
        const int opened = ::shm_open(name.c_str(), O_RDWR | O_CLOEXEC, 0);
        if (opened < 0) {
            if (errno == ENOENT) {
                continue;
            }
            FailSystem(errno);
        }
        Fd fd(opened);
        // Another user who owns the object, or may write it, could truncate it under this
        // process (SIGBUS) or share its blocks: refused before anything of it is mapped.
        struct stat st;
        if (::fstat(fd.get(), &st) != 0) {
            FailSystem(errno);
        }
        if (std::optional<std::string> problem =
                SharedWriteProblem(fd.get(), st, "'" + ShmPath(name) + "'")) {
            Fail(*problem);
        }
        if (AwaitObject(fd.get(), name, userOffset, remedy) == Found::Ready) {
            return false;
        }
    }
    Fail("'" + name + "' keeps disappearing while it is opened");
}

namespace {

// Returns once `done` (tried first, and again after each look at the holder) is true; see
// AwaitUnheldMutex for the bound and the dead holder.
template <class Done>
void WaitForManagerMutex(const pthread_mutex_t* native, const Done& done, const std::string& what,
                         const std::string& remedy) {
    if (done()) {
        return;
    }
    const auto limit = CreationWaitLimit();
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        // The owner is recorded just after the lock word is taken and cleared just before it is
        // released, so a death in between leaves no owner.
        const pid_t owner = MutexOwnerThread(native);
        if (done()) {
            return;
        }
        if (owner != 0 && ProcessOfThread(owner) == 0) {
            Fail(what + " is held by thread " + std::to_string(owner) +
                 ", which died holding it; " + remedy);
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            Fail(what + " has been held by " +
                 (owner != 0 ? "thread " + std::to_string(owner)
                             : std::string("a thread that died while taking it")) +
                 " for more than " + std::to_string(limit.count()) + " ms; " + remedy);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

}  // namespace

void AwaitUnheldMutex(const void* mutex, const std::string& what, const std::string& remedy) {
    const pthread_mutex_t* native = static_cast<const pthread_mutex_t*>(mutex);
    WaitForManagerMutex(
        native, [native] { return __atomic_load_n(&native->__data.__lock, __ATOMIC_RELAXED) == 0; },
        what, remedy);
}

void LockUnheldMutex(void* mutex, const std::string& what, const std::string& remedy) {
    pthread_mutex_t* native = static_cast<pthread_mutex_t*>(mutex);
    WaitForManagerMutex(
        native, [native] { return pthread_mutex_trylock(native) == 0; }, what, remedy);
}

}  // namespace shared
