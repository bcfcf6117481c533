// SPDX-License-Identifier: Apache-2.0
#include "Transport.h"

#include <log4cxx/consoleappender.h>
#include <log4cxx/level.h>
#include <log4cxx/logger.h>
#include <log4cxx/logmanager.h>
#include <log4cxx/patternlayout.h>

namespace bench {

void ConfigureSlotLogging() {
    // Refused and discarded blocks are WARN lines; the writers learn about them from
    // Slot::LastWriteOutcome instead, so only errors (which explain a failed run) are logged.
    log4cxx::LogManager::resetConfiguration();
    log4cxx::LoggerPtr root = log4cxx::Logger::getRootLogger();
    root->setLevel(log4cxx::Level::getError());
    root->addAppender(std::make_shared<log4cxx::ConsoleAppender>(
        std::make_shared<log4cxx::PatternLayout>("slotbench: library %p [%c]: %m%n"),
        log4cxx::ConsoleAppender::getSystemErr()));
}

}  // namespace bench
