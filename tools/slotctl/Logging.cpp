// SPDX-License-Identifier: Apache-2.0
#include "Logging.h"

#include "Cli.h"

#include <log4cxx/appenderskeleton.h>
#include <log4cxx/consoleappender.h>
#include <log4cxx/helpers/object.h>
#include <log4cxx/helpers/pool.h>
#include <log4cxx/logger.h>
#include <log4cxx/logmanager.h>
#include <log4cxx/patternlayout.h>
#include <log4cxx/propertyconfigurator.h>
#include <log4cxx/spi/loggingevent.h>
#include <log4cxx/xml/domconfigurator.h>

#include <unistd.h>

namespace layout_detail {
using namespace log4cxx;

// "slotctl: LEVEL [logger] message", made Printable: library messages carry slot names.
class PrintableLayout : public PatternLayout {
public:
    DECLARE_LOG4CXX_OBJECT(PrintableLayout)
    BEGIN_LOG4CXX_CAST_MAP()
    LOG4CXX_CAST_ENTRY(PrintableLayout)
    LOG4CXX_CAST_ENTRY_CHAIN(PatternLayout)
    END_LOG4CXX_CAST_MAP()

    PrintableLayout() : PatternLayout(LOG4CXX_STR("slotctl: %p [%c] %m")) {}

    void format(LogString& output, const spi::LoggingEventPtr& event,
                helpers::Pool& pool) const override {
        LogString line;
        PatternLayout::format(line, event, pool);
        output += slotctl::Printable(line) + "\n";
    }
};

IMPLEMENT_LOG4CXX_OBJECT(PrintableLayout)
}  // namespace layout_detail

namespace slotctl {

namespace tap_detail {
using namespace log4cxx;

class TapAppender : public AppenderSkeleton {
public:
    DECLARE_LOG4CXX_OBJECT(TapAppender)
    BEGIN_LOG4CXX_CAST_MAP()
    LOG4CXX_CAST_ENTRY(TapAppender)
    LOG4CXX_CAST_ENTRY_CHAIN(AppenderSkeleton)
    END_LOG4CXX_CAST_MAP()

    TapAppender() = default;
    explicit TapAppender(std::function<void(const LogEvent&)> onEvent)
        : onEvent_(std::move(onEvent)) {}

    void append(const spi::LoggingEventPtr& event, helpers::Pool&) override {
        if (onEvent_ && event->getLevel()->isGreaterOrEqual(Level::getWarn())) {
            onEvent_(LogEvent{event->getLoggerName(), event->getLevel()->toString(),
                              event->getRenderedMessage()});
        }
    }
    void close() override {}
    bool requiresLayout() const override { return false; }

private:
    std::function<void(const LogEvent&)> onEvent_;
};

IMPLEMENT_LOG4CXX_OBJECT(TapAppender)

}  // namespace tap_detail

namespace {

// "Slot.Writer" and "Slot.Reader" are children of "Slot": their events reach an appender of
// "Slot" too, unless a configuration turned additivity off.
const char* const TappedLogger = "Slot";
const char* const WarnedLoggers[] = {"Slot", "Slot.Writer"};

}  // namespace

void ConfigureLogging(const LogOptions& options) {
    log4cxx::LoggerPtr root = log4cxx::Logger::getRootLogger();
    if (!options.configFile.empty()) {
        if (::access(options.configFile.c_str(), R_OK) != 0) {
            throw UsageError("cannot read log configuration " + Quote(options.configFile));
        }
        if (EndsWith(options.configFile, ".xml")) {
            log4cxx::xml::DOMConfigurator::configure(options.configFile);
        } else {
            log4cxx::PropertyConfigurator::configure(options.configFile);
        }
    } else if (options.console) {
        log4cxx::LayoutPtr layout = std::make_shared<layout_detail::PrintableLayout>();
        std::shared_ptr<log4cxx::ConsoleAppender> console =
            std::make_shared<log4cxx::ConsoleAppender>(layout,
                                                       log4cxx::ConsoleAppender::getSystemErr());
        // The threshold, not only the root level: loggers lowered to WARN for a WarningTap
        // must not reach the console when only errors are wanted.
        if (options.errorsOnly && options.verbosity == 0) {
            console->setThreshold(log4cxx::Level::getError());
        }
        root->addAppender(console);
        root->setLevel(log4cxx::Level::getWarn());
    }
    if (options.verbosity == 1) {
        root->setLevel(log4cxx::Level::getDebug());
    } else if (options.verbosity >= 2) {
        root->setLevel(log4cxx::Level::getTrace());
    }
}

std::vector<std::string> LogArguments(const LogOptions& options) {
    std::vector<std::string> args;
    if (options.verbosity == 1) {
        args.push_back("-v");
    } else if (options.verbosity >= 2) {
        args.push_back("-vv");
    }
    if (!options.configFile.empty()) {
        args.push_back("--log-config");
        args.push_back(options.configFile);
    }
    return args;
}

WarningTap::WarningTap(std::function<void(const LogEvent&)> onEvent)
    : appender_(std::make_shared<tap_detail::TapAppender>(std::move(onEvent))) {
    for (const char* name : WarnedLoggers) {
        log4cxx::LoggerPtr logger = log4cxx::Logger::getLogger(name);
        if (!logger->isWarnEnabled()) {
            logger->setLevel(log4cxx::Level::getWarn());
        }
    }
    log4cxx::Logger::getLogger(TappedLogger)->addAppender(appender_);
}

WarningTap::~WarningTap() {
    log4cxx::Logger::getLogger(TappedLogger)->removeAppender(appender_);
}

}  // namespace slotctl
