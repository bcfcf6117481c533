// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/AbortSlotCreationException.h>
#include <Slot/SlotFactory.h>

#include <FileUtils/NamedPipeCreator.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <gtest/gtest.h>

#include <unistd.h>

#include <functional>
#include <string>

namespace testsupport {

// The two ways the factory makes a reader: one that sleeps on the write signal, and one that
// spins first, longer than a hand-over takes, so that blocks arrive while it spins.
enum class Flavour { Notifying, Spinning };

inline std::string FlavourName(Flavour flavour) {
    return flavour == Flavour::Notifying ? "Notifying" : "Spinning";
}

// Both flavours as test parameters, named by FlavourName.
inline auto Flavours() {
    return testing::Values(Flavour::Notifying, Flavour::Spinning);
}
inline std::string FlavourParamName(const testing::TestParamInfo<Flavour>& info) {
    return FlavourName(info.param);
}

inline INotifierPtr MakeReader(Flavour flavour, const ISlotConfiguration& cfg,
                               const ISubscriberPtr& first = ISubscriberPtr()) {
    if (flavour == Flavour::Notifying) {
        return SlotFactory::CreateSlotReader(&cfg, first);
    }
    // Short enough that the spinning threads of a test do not starve a loaded machine for long.
    return SlotFactory::CreateSpinningSlotReader(&cfg, boost::posix_time::milliseconds(20), first);
}

// A discarding reader drops data older than its update time: generous for sanitized runs.
inline SimpleSlotCfg ReaderCfg(
    const std::string& name, const std::string& type,
    const boost::posix_time::time_duration& update = boost::posix_time::milliseconds(500)) {
    return SimpleSlotCfg(name, type, update, 4);
}

inline void WriteThroughWriter(const ISlotConfiguration& cfg, const std::string& bytes) {
    SlotFactory::CreateSlotWriter(&cfg)->onNotify("", bytes.data(), bytes.size());
}

// Removes the named pipe of slot `name` at the end of the scope, also when the test fails.
struct ScopedPipe {
    explicit ScopedPipe(const std::string& name)
        : path(FileUtils::NamedPipeCreator::ConstructPipeFilename(name)) {}
    ~ScopedPipe() { ::unlink(path.c_str()); }
    const std::string path;
};

// The text of the refusal that `make` throws; "" when it throws none.
inline std::string RefusalOf(const std::function<void()>& make) {
    try {
        make();
    } catch (const AbortSlotCreationException& e) {
        return e.what();
    }
    return "";
}

}  // namespace testsupport
