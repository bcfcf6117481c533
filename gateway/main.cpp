// SPDX-License-Identifier: Apache-2.0
// slot-gateway: runs a gateway from a configuration file until SIGINT, SIGTERM or SIGHUP.
#include <SlotGateway/Gateway.h>
#include <SlotGateway/Status.h>
#include <shared/LogConfiguration.h>

#include <log4cxx/basicconfigurator.h>
#include <log4cxx/level.h>
#include <log4cxx/logger.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>

namespace {

const char* const kUsage =
    "usage: slot-gateway --config FILE [--status-file FILE] [--timeout SECONDS] [--lease-ms MS]\n"
    "                    [--log-config FILE] [--verbose]\n"
    "       slot-gateway --check FILE      validate a configuration and exit\n"
    "       slot-gateway --status FILE     print a running gateway's status file\n";

int Usage(const std::string& problem) {
    std::cerr << "slot-gateway: " << problem << "\n" << kUsage;
    return 2;
}

bool ParseSeconds(const std::string& text, double& seconds) {
    char* end = nullptr;
    errno = 0;
    seconds = std::strtod(text.c_str(), &end);
    return errno == 0 && end != text.c_str() && *end == '\0' && seconds > 0 && seconds < 1e7;
}

}  // namespace

int main(int argc, char** argv) {
    std::string configPath, statusFile, checkPath, showPath, logConfig;
    double timeout = 0;
    unsigned leaseMs = 0;  // 0: the configuration's
    bool verbose = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= argc) {
                return false;
            }
            out = argv[++i];
            return true;
        };
        std::string text;
        if (arg == "--config") {
            if (!value(configPath))
                return Usage("--config needs a file");
        } else if (arg == "--status-file") {
            if (!value(statusFile))
                return Usage("--status-file needs a file");
        } else if (arg == "--check") {
            if (!value(checkPath))
                return Usage("--check needs a file");
        } else if (arg == "--status") {
            if (!value(showPath))
                return Usage("--status needs a file");
        } else if (arg == "--log-config") {
            if (!value(logConfig))
                return Usage("--log-config needs a file");
        } else if (arg == "--timeout") {
            if (!value(text) || !ParseSeconds(text, timeout))
                return Usage("--timeout needs seconds > 0");
        } else if (arg == "--lease-ms") {
            char* end = nullptr;
            const unsigned long ms = value(text) ? std::strtoul(text.c_str(), &end, 10) : 0;
            if (end == nullptr || end == text.c_str() || *end != '\0' ||
                ms < SlotGateway::kMinLeaseMs || ms > SlotGateway::kMaxLeaseMs)
                return Usage("--lease-ms needs milliseconds from " +
                             std::to_string(SlotGateway::kMinLeaseMs) + " to " +
                             std::to_string(SlotGateway::kMaxLeaseMs));
            leaseMs = static_cast<unsigned>(ms);
        } else if (arg == "--verbose") {
            verbose = true;
        } else if (arg == "--help" || arg == "-h") {
            std::cout << kUsage;
            return 0;
        } else {
            return Usage("unknown argument '" + arg + "'");
        }
    }

    if (!showPath.empty()) {
        std::ifstream in(showPath);
        if (!in) {
            std::cerr << "slot-gateway: " << showPath << ": cannot be read\n";
            return 1;
        }
        std::ostringstream text;
        text << in.rdbuf();
        try {
            std::cout << SlotGateway::FormatStatus(text.str(), std::time(nullptr));
        } catch (const std::exception& e) {
            std::cerr << "slot-gateway: " << showPath << ": not a status file: " << e.what()
                      << "\n";
            return 1;
        }
        return 0;
    }
    if (!checkPath.empty()) {
        try {
            const SlotGateway::Config config = SlotGateway::LoadConfig(checkPath);
            std::cout << checkPath << ": " << config.routes.size() << " slot(s), valid\n";
            // A stop takes the grace and a little more (DDS's last words, its shutdown).
            constexpr unsigned kStopSlackMs = 5000;
            constexpr unsigned kUnitStopMs = SLOT_GATEWAY_STOP_TIMEOUT_SEC * 1000;
            if (config.stopGraceMs + kStopSlackMs > kUnitStopMs) {
                std::cerr << "slot-gateway: warning: " << checkPath << ": stop_grace_ms "
                          << config.stopGraceMs << " leaves less than " << kStopSlackMs / 1000
                          << " s of the shipped unit's TimeoutStopSec="
                          << SLOT_GATEWAY_STOP_TIMEOUT_SEC
                          << ": systemd would SIGKILL a gateway still stopping; raise "
                             "TimeoutStopSec (systemctl edit slot-gateway)\n";
            }
            return 0;
        } catch (const SlotGateway::ConfigError& e) {
            std::cerr << "slot-gateway: " << e.what() << "\n";
            return 1;
        }
    }
    if (configPath.empty()) {
        return Usage("--config is required");
    }

    // A file as slotctl reads one (.xml: DOMConfigurator, else properties); else INFO and above
    // on stdout. --verbose lowers the root level to DEBUG, over a file's too.
    if (!logConfig.empty()) {
        if (const std::optional<std::string> problem =
                shared::ConfigureLoggingFromFile(logConfig)) {
            std::cerr << "slot-gateway: " << *problem << "\n";
            return 2;
        }
    } else {
        log4cxx::BasicConfigurator::configure();
        log4cxx::Logger::getRootLogger()->setLevel(log4cxx::Level::getInfo());
    }
    if (verbose) {
        log4cxx::Logger::getRootLogger()->setLevel(log4cxx::Level::getDebug());
    }

    SlotGateway::Config config;
    try {
        config = SlotGateway::LoadConfig(configPath);
    } catch (const SlotGateway::ConfigError& e) {
        std::cerr << "slot-gateway: " << e.what() << "\n";
        return 1;
    }
    if (!statusFile.empty()) {
        config.statusFile = statusFile;
    }
    if (leaseMs != 0) {
        config.leaseMs = leaseMs;
    }

    // Every thread (ours, the slot readers', Cyclone's) inherits this mask; the main thread
    // takes the stop signals synchronously.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    try {
        SlotGateway::Gateway gateway(config);
        const auto end = std::chrono::steady_clock::now() +
                         std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                             std::chrono::duration<double>(timeout > 0 ? timeout : 1e7));
        for (;;) {
            const timespec slice = {0, 200 * 1000 * 1000};
            const int signal = sigtimedwait(&stopSignals, nullptr, &slice);
            if (signal > 0) {
                LOG4CXX_INFO(log4cxx::Logger::getLogger("SlotGateway"),
                             "Stopping on " << strsignal(signal));
                break;
            }
            if (std::chrono::steady_clock::now() >= end) {
                LOG4CXX_INFO(log4cxx::Logger::getLogger("SlotGateway"), "Stopping: time is up");
                break;
            }
        }
        // A second stop signal while stopping ends the grace at once: the blocks in hand are
        // given back instead of waiting out stop_grace_ms (or the service manager's SIGKILL).
        std::atomic<bool> stopped{false};
        std::thread impatient([&] {
            while (!stopped) {
                const timespec slice = {0, 200 * 1000 * 1000};
                const int signal = sigtimedwait(&stopSignals, nullptr, &slice);
                if (signal > 0) {
                    LOG4CXX_WARN(log4cxx::Logger::getLogger("SlotGateway"),
                                 "Stopping at once on " << strsignal(signal)
                                                        << ": the blocks in hand are given back");
                    gateway.EndGrace();
                    return;
                }
            }
        });
        try {
            gateway.Stop();
        } catch (...) {
            stopped = true;
            impatient.join();
            throw;
        }
        stopped = true;
        impatient.join();
    } catch (const std::exception& e) {
        std::cerr << "slot-gateway: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
