// SPDX-License-Identifier: Apache-2.0
#include "Logging.h"

#include "Cli.h"

#include <shared/LogConfiguration.h>

#include <log4cxx/helpers/writer.h>
#include <log4cxx/logger.h>
#include <log4cxx/logmanager.h>
#include <log4cxx/patternlayout.h>
#include <log4cxx/writerappender.h>

#include <optional>

namespace layout_detail {
using namespace log4cxx;  // for the object macros

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

// A namespace of its own: IMPLEMENT_LOG4CXX_OBJECT opens a namespace "log4cxx" inside the one it
// stands in, which the next class's macros would then take for log4cxx's.
namespace console_detail {
using namespace log4cxx;  // for the object macros

// The console's writer: standard error through slotctl's own path (WriteErr), whose wait for a
// terminal or pipe that takes nothing ends at a stop signal. log4cxx's console writer would
// block there in a write, on whatever thread logs, with the stop signals blocked.
class StandardErrorWriter : public helpers::Writer {
public:
    DECLARE_LOG4CXX_OBJECT(StandardErrorWriter)
    BEGIN_LOG4CXX_CAST_MAP()
    LOG4CXX_CAST_ENTRY(StandardErrorWriter)
    LOG4CXX_CAST_ENTRY_CHAIN(helpers::Writer)
    END_LOG4CXX_CAST_MAP()

    void close(helpers::Pool&) override {}
    void flush(helpers::Pool&) override {}
    void write(const LogString& text, helpers::Pool&) override { slotctl::WriteErr(text); }
};

IMPLEMENT_LOG4CXX_OBJECT(StandardErrorWriter)
}  // namespace console_detail

namespace slotctl {

void ConfigureLogging(const LogOptions& options) {
    log4cxx::LoggerPtr root = log4cxx::Logger::getRootLogger();
    if (!options.configFile.empty()) {
        if (const std::optional<std::string> problem =
                shared::ConfigureLoggingFromFile(options.configFile)) {
            throw UsageError(*problem);
        }
    } else if (options.console) {
        auto console = std::make_shared<log4cxx::WriterAppender>();
        console->setLayout(std::make_shared<layout_detail::PrintableLayout>());
        console->setWriter(std::make_shared<console_detail::StandardErrorWriter>());
        // The threshold, not only the root level: a logger set to WARN by name must not
        // reach the console when only errors are wanted.
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

}  // namespace slotctl
