// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <log4cxx/level.h>
#include <log4cxx/logger.h>

#include <memory>
#include <string>
#include <vector>

namespace testsupport {

// Captures what log4cxx emits on one logger (and its children) for the lifetime of the object.
// The logger's level is set to `level` and restored afterwards. Thread-safe.
class LogCapture {
public:
    struct Event {
        std::string logger;
        std::string level;  // "TRACE", "DEBUG", "INFO", "WARN", "ERROR", "FATAL"
        std::string message;
    };

    explicit LogCapture(const std::string& loggerName = "",
                        const log4cxx::LevelPtr& level = log4cxx::Level::getTrace());
    ~LogCapture();

    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<Event> Events() const;
    // Messages at `level` (all levels when empty), in order.
    std::vector<std::string> Messages(const std::string& level = "") const;
    // How many events have exactly this level and text.
    size_t Count(const std::string& level, const std::string& message) const;
    // How many events at `level` start with `prefix`.
    size_t CountPrefix(const std::string& level, const std::string& prefix) const;
    void Clear();

private:
    class Appender;
    log4cxx::LoggerPtr logger_;
    log4cxx::LevelPtr previousLevel_;
    std::shared_ptr<Appender> appender_;
};

}  // namespace testsupport
