// SPDX-License-Identifier: Apache-2.0
#include <SlotGateway/Status.h>

#include <shared/SharedFolder.h>

#include <nlohmann/json.hpp>

#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iomanip>
#include <sstream>

namespace SlotGateway {

std::string StatusDocument(const std::string& gatewayName, std::uint64_t gatewayId, bool stopped,
                           const std::vector<RouteStatus>& routes) {
    nlohmann::json slots = nlohmann::json::array();
    for (const RouteStatus& status : routes) {
        const Route& route = status.route;
        slots.push_back({{"name", route.name},
                         {"type", route.TypeText()},
                         {"direction", ToString(route.direction)},
                         {"domain", route.domain},
                         {"partition", route.partition},
                         {"topic", route.topic},
                         {"matched_readers", status.matchedReaders},
                         {"matched_writers", status.matchedWriters},
                         {"sending", status.sending},
                         {"forwarded", status.counters.forwarded},
                         {"received", status.counters.received},
                         {"retried", status.counters.retried},
                         {"refused", status.counters.refused},
                         {"dropped", status.counters.dropped},
                         {"echoes_skipped", status.counters.echoes},
                         {"duplicates_skipped", status.counters.duplicates}});
    }
    std::ostringstream id;
    id << std::hex << std::setw(16) << std::setfill('0') << gatewayId;
    const std::time_t now = std::time(nullptr);
    char stamp[32] = {};
    std::tm utc;
    gmtime_r(&now, &utc);
    std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", &utc);
    nlohmann::json document = {{"gateway", gatewayName}, {"id", id.str()},     {"pid", getpid()},
                               {"time", stamp},          {"stopped", stopped}, {"slots", slots}};
    return document.dump(2) + "\n";
}

namespace {

constexpr const char* kTemporaryInfix = ".tmp.";
constexpr std::size_t kTemporarySuffix = 6;  // characters after the infix

// A name for a temporary of `name`, random: "<name>.tmp.XXXXXX".
std::string TemporaryName(const std::string& name) {
    static const char kChars[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    unsigned char random[kTemporarySuffix];
    if (getrandom(random, sizeof random, 0) != static_cast<ssize_t>(sizeof random)) {
        const auto seed = static_cast<std::uint64_t>(std::time(nullptr)) ^
                          (static_cast<std::uint64_t>(getpid()) << 20) ^
                          reinterpret_cast<std::uintptr_t>(&random);
        for (std::size_t i = 0; i < sizeof random; ++i) {
            random[i] = static_cast<unsigned char>(seed >> (i * 8));
        }
    }
    std::string result = name + kTemporaryInfix;
    for (const unsigned char byte : random) {
        result += kChars[byte % (sizeof kChars - 1)];
    }
    return result;
}

}  // namespace

std::string WriteFileAtomically(const std::string& path, const std::string& text) {
    std::string folderPath, name;
    if (!shared::SplitFolderAndName(path, folderPath, name)) {
        return path + ": not a file name";
    }
    shared::CheckedFolder folder;
    try {
        folder = shared::CheckedFolder::Open(folderPath);
    } catch (const std::exception& e) {
        return e.what();
    }
    // A new file of a name nobody has (O_EXCL, O_NOFOLLOW), so that nothing someone else keeps
    // in a shared folder is removed or written.
    std::string temporary;
    int fd = -1;
    for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
        temporary = TemporaryName(name);
        fd = openat(folder.fd(), temporary.c_str(),
                    O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
        if (fd < 0 && errno != EEXIST) {
            break;
        }
    }
    const std::string shown = folderPath + "/" + temporary;
    if (fd < 0 || fchmod(fd, 0644) != 0) {
        const std::string error = shown + ": " + std::strerror(errno);
        if (fd >= 0) {
            close(fd);
            unlinkat(folder.fd(), temporary.c_str(), 0);
        }
        return error;
    }
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            const std::string error = shown + ": " + std::strerror(errno);
            close(fd);
            unlinkat(folder.fd(), temporary.c_str(), 0);
            return error;
        }
        done += static_cast<std::size_t>(n);
    }
    close(fd);
    if (renameat(folder.fd(), temporary.c_str(), folder.fd(), name.c_str()) != 0) {
        const std::string error = path + ": " + std::strerror(errno);
        unlinkat(folder.fd(), temporary.c_str(), 0);
        return error;
    }
    return "";
}

unsigned RemoveStaleTemporaries(const std::string& path) {
    std::string folderPath, name;
    if (!shared::SplitFolderAndName(path, folderPath, name)) {
        return 0;
    }
    shared::CheckedFolder folder;
    try {
        folder = shared::CheckedFolder::Open(folderPath);
    } catch (const std::exception&) {
        return 0;
    }
    const int listFd = openat(folder.fd(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* dir = listFd >= 0 ? fdopendir(listFd) : nullptr;
    if (dir == nullptr) {
        if (listFd >= 0) {
            close(listFd);
        }
        return 0;
    }
    const std::string prefix = name + kTemporaryInfix;
    unsigned removed = 0;
    while (const dirent* entry = readdir(dir)) {
        const std::string entryName = entry->d_name;
        struct stat st;
        if (entryName.size() == prefix.size() + kTemporarySuffix &&
            entryName.compare(0, prefix.size(), prefix) == 0 &&
            fstatat(folder.fd(), entryName.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(st.st_mode) && st.st_uid == geteuid() &&
            unlinkat(folder.fd(), entryName.c_str(), 0) == 0) {
            ++removed;
        }
    }
    closedir(dir);
    return removed;
}

std::string FormatStatus(const std::string& text) {
    const nlohmann::json document = nlohmann::json::parse(text);
    std::ostringstream out;
    out << "gateway " << document.value("gateway", "?") << " (id " << document.value("id", "?")
        << ", pid " << document.value("pid", 0) << ") at " << document.value("time", "?")
        << (document.value("stopped", false) ? ", stopped" : "") << "\n";
    out << std::left << std::setw(24) << "slot" << std::setw(12) << "type" << std::setw(13)
        << "direction" << std::setw(24) << "topic" << std::right << std::setw(6) << "peers"
        << std::setw(11) << "forwarded" << std::setw(11) << "received" << std::setw(9) << "retried"
        << std::setw(9) << "refused" << std::setw(9) << "dropped"
        << "\n";
    for (const auto& slot : document.at("slots")) {
        const unsigned peers =
            slot.value("matched_readers", 0u) + slot.value("matched_writers", 0u);
        out << std::left << std::setw(24) << slot.value("name", "") << std::setw(12)
            << slot.value("type", "") << std::setw(13) << slot.value("direction", "")
            << std::setw(24) << slot.value("topic", "") << std::right << std::setw(6) << peers
            << std::setw(11) << slot.value("forwarded", 0ull) << std::setw(11)
            << slot.value("received", 0ull) << std::setw(9) << slot.value("retried", 0ull)
            << std::setw(9) << slot.value("refused", 0ull) << std::setw(9)
            << slot.value("dropped", 0ull) << "\n";
    }
    return out.str();
}

}  // namespace SlotGateway
