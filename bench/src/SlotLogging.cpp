// SPDX-License-Identifier: Apache-2.0
#include "Transport.h"

#include <log4cxx/appenderskeleton.h>
#include <log4cxx/helpers/object.h>
#include <log4cxx/level.h>
#include <log4cxx/logger.h>
#include <log4cxx/logmanager.h>
#include <log4cxx/spi/loggingevent.h>

#include <atomic>
#include <cstdio>

namespace bench {

namespace {

std::atomic<std::uint64_t> refusals{0};
std::atomic<std::uint64_t> otherMessages{0};

}  // namespace

namespace logging_detail {
using namespace log4cxx;

// Counts what the library logs at WARN and above; prints nothing except the first few
// unexpected messages, on stderr, to explain a failed run.
class CountingAppender : public AppenderSkeleton {
public:
    DECLARE_LOG4CXX_OBJECT(CountingAppender)
    BEGIN_LOG4CXX_CAST_MAP()
    LOG4CXX_CAST_ENTRY(CountingAppender)
    LOG4CXX_CAST_ENTRY_CHAIN(AppenderSkeleton)
    END_LOG4CXX_CAST_MAP()

    void append(const spi::LoggingEventPtr& event, helpers::Pool&) override {
        const std::string& message = event->getRenderedMessage();
        if (event->getLoggerName() == "Slot" &&
            message.find("is full, the data was not written") != std::string::npos) {
            refusals.fetch_add(1, std::memory_order_relaxed);
            return;
        }
        if (otherMessages.fetch_add(1, std::memory_order_relaxed) < 5) {
            std::fprintf(stderr, "slotbench: library %s [%s]: %s\n",
                         event->getLevel()->toString().c_str(), event->getLoggerName().c_str(),
                         message.c_str());
        }
    }
    void close() override {}
    bool requiresLayout() const override { return false; }
};

IMPLEMENT_LOG4CXX_OBJECT(CountingAppender)
}  // namespace logging_detail

void ConfigureSlotLogging() {
    log4cxx::LogManager::resetConfiguration();
    log4cxx::LoggerPtr root = log4cxx::Logger::getRootLogger();
    root->setLevel(log4cxx::Level::getWarn());
    root->addAppender(std::make_shared<logging_detail::CountingAppender>());
}

std::uint64_t SlotRefusalsLogged() {
    return refusals.load(std::memory_order_relaxed);
}

std::uint64_t SlotOtherMessagesLogged() {
    return otherMessages.load(std::memory_order_relaxed);
}

}  // namespace bench
