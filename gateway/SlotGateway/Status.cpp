// SPDX-License-Identifier: Apache-2.0
#include <SlotGateway/Status.h>

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
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

std::string WriteFileAtomically(const std::string& path, const std::string& text) {
    // A new file of a name nobody has (O_EXCL: no symlink followed), so that nothing someone
    // else keeps in a shared folder is removed or written.
    std::string name = path + ".tmp.XXXXXX";
    const int fd = mkostemp(&name[0], O_CLOEXEC);
    const std::string temporary = name;
    if (fd < 0 || fchmod(fd, 0644) != 0) {
        const std::string error = temporary + ": " + std::strerror(errno);
        if (fd >= 0) {
            close(fd);
            unlink(temporary.c_str());
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
            const std::string error = temporary + ": " + std::strerror(errno);
            close(fd);
            unlink(temporary.c_str());
            return error;
        }
        done += static_cast<std::size_t>(n);
    }
    close(fd);
    if (rename(temporary.c_str(), path.c_str()) != 0) {
        const std::string error = path + ": " + std::strerror(errno);
        unlink(temporary.c_str());
        return error;
    }
    return "";
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
