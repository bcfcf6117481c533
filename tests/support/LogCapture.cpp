// SPDX-License-Identifier: Apache-2.0
#include "LogCapture.h"

#include <log4cxx/appenderskeleton.h>
#include <log4cxx/helpers/object.h>
#include <log4cxx/logmanager.h>
#include <log4cxx/spi/loggingevent.h>

#include <algorithm>
#include <mutex>

namespace testsupport {

namespace capture_detail {
using namespace log4cxx;

class CaptureAppender : public AppenderSkeleton {
public:
    DECLARE_LOG4CXX_OBJECT(CaptureAppender)
    BEGIN_LOG4CXX_CAST_MAP()
    LOG4CXX_CAST_ENTRY(CaptureAppender)
    LOG4CXX_CAST_ENTRY_CHAIN(AppenderSkeleton)
    END_LOG4CXX_CAST_MAP()

    void append(const spi::LoggingEventPtr& event, helpers::Pool&) override {
        LogCapture::Event e{event->getLoggerName(), event->getLevel()->toString(),
                            event->getRenderedMessage()};
        std::lock_guard<std::mutex> lock(mutex_);
        events_.push_back(e);
    }
    void close() override {}
    bool requiresLayout() const override { return false; }

    std::vector<LogCapture::Event> Events() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }
    void Clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.clear();
    }

private:
    mutable std::mutex mutex_;
    std::vector<LogCapture::Event> events_;  // guarded by mutex_
};

IMPLEMENT_LOG4CXX_OBJECT(CaptureAppender)
}  // namespace capture_detail

class LogCapture::Appender {
public:
    Appender() : impl(std::make_shared<capture_detail::CaptureAppender>()) {}
    std::shared_ptr<capture_detail::CaptureAppender> impl;
};

LogCapture::LogCapture(const std::string& loggerName, const log4cxx::LevelPtr& level)
    : logger_(loggerName.empty() ? log4cxx::Logger::getRootLogger()
                                 : log4cxx::Logger::getLogger(loggerName)),
      previousLevel_(logger_->getLevel()),
      appender_(std::make_shared<Appender>()) {
    logger_->addAppender(appender_->impl);
    logger_->setLevel(level);
}

LogCapture::~LogCapture() {
    logger_->removeAppender(appender_->impl);
    logger_->setLevel(previousLevel_);
}

std::vector<LogCapture::Event> LogCapture::Events() const {
    return appender_->impl->Events();
}

std::vector<std::string> LogCapture::Messages(const std::string& level) const {
    std::vector<std::string> out;
    for (const Event& e : Events()) {
        if (level.empty() || e.level == level) {
            out.push_back(e.message);
        }
    }
    return out;
}

size_t LogCapture::Count(const std::string& level, const std::string& message) const {
    std::vector<Event> events = Events();
    return static_cast<size_t>(std::count_if(events.begin(), events.end(), [&](const Event& e) {
        return e.level == level && e.message == message;
    }));
}

size_t LogCapture::CountPrefix(const std::string& level, const std::string& prefix) const {
    std::vector<Event> events = Events();
    return static_cast<size_t>(std::count_if(events.begin(), events.end(), [&](const Event& e) {
        return e.level == level && e.message.compare(0, prefix.size(), prefix) == 0;
    }));
}

void LogCapture::Clear() {
    appender_->impl->Clear();
}

}  // namespace testsupport
