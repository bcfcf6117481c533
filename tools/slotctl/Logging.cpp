// SPDX-License-Identifier: Apache-2.0
#include "Logging.h"

#include "Cli.h"

#include <log4cxx/consoleappender.h>
#include <log4cxx/logger.h>
#include <log4cxx/logmanager.h>
#include <log4cxx/patternlayout.h>
#include <log4cxx/propertyconfigurator.h>
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
