// SPDX-License-Identifier: Apache-2.0
#include "Process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace bench {

namespace {

std::string& SelfExecutable() {
    static std::string path;
    return path;
}

}  // namespace

void SetSelfExecutable(const char* argv0) {
    char buffer[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (n > 0) {
        buffer[n] = '\0';
        SelfExecutable() = buffer;
    } else {
        SelfExecutable() = argv0;
    }
}

ControlSegment::ControlSegment(const std::string& name, bool create)
    : name_(name), owner_(create), block_(nullptr) {
    const int fd = shm_open(name.c_str(), create ? (O_RDWR | O_CREAT | O_EXCL) : O_RDWR, 0600);
    if (fd < 0) {
        throw std::runtime_error("control segment " + name + ": " + std::strerror(errno));
    }
    if (create && ftruncate(fd, sizeof(ControlBlock)) != 0) {
        const int error = errno;
        close(fd);
        shm_unlink(name.c_str());
        throw std::runtime_error("control segment " + name + ": " + std::strerror(error));
    }
    void* address = mmap(nullptr, sizeof(ControlBlock), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (address == MAP_FAILED) {
        if (create) {
            shm_unlink(name.c_str());
        }
        throw std::runtime_error("control segment " + name + ": mmap failed");
    }
    block_ = static_cast<ControlBlock*>(address);
}

ControlSegment::~ControlSegment() {
    munmap(block_, sizeof(ControlBlock));
    if (owner_) {
        shm_unlink(name_.c_str());
    }
}

void ControlSegment::Reset() {
    std::memset(block_, 0, sizeof(ControlBlock));
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
}

pid_t SpawnChild(const std::vector<std::string>& args, const std::vector<int>& keepFds) {
    std::vector<std::string> argvText;
    argvText.push_back(SelfExecutable());
    argvText.push_back("--child");
    argvText.insert(argvText.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : argvText) {
        argv.push_back(&a[0]);
    }
    argv.push_back(nullptr);
    const pid_t parent = getpid();

    const pid_t pid = fork();
    if (pid < 0) {
        throw std::runtime_error(std::string("fork failed: ") + std::strerror(errno));
    }
    if (pid == 0) {
        // Only async-signal-safe calls between fork and exec.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) {
            _exit(127);
        }
        for (int fd : keepFds) {
            const int flags = fcntl(fd, F_GETFD);
            fcntl(fd, F_SETFD, flags & ~FD_CLOEXEC);
        }
        execv(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}

ChildResult WaitChild(pid_t pid, std::uint64_t deadlineNs) {
    ChildResult result;
    const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    for (;;) {
        int status = 0;
        const pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) {
            if (WIFEXITED(status)) {
                result.exited = true;
                result.status = WEXITSTATUS(status);
            } else if (WIFSIGNALED(status)) {
                result.status = WTERMSIG(status);
            }
            break;
        }
        if (done < 0 && errno != EINTR) {
            break;
        }
        const std::uint64_t now = NowNs();
        if (now >= deadlineNs) {
            // Our own child, by its pid only.
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            result.timedOut = true;
            break;
        }
        const std::uint64_t leftMs = (deadlineNs - now) / 1000000ull + 1;
        if (pidfd >= 0) {
            pollfd p = {pidfd, POLLIN, 0};
            poll(&p, 1, static_cast<int>(leftMs > 1000 ? 1000 : leftMs));
        } else {
            usleep(1000);
        }
    }
    if (pidfd >= 0) {
        close(pidfd);
    }
    return result;
}

void ArmChildWatchdog(unsigned int seconds) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    alarm(seconds);
}

}  // namespace bench
