// SPDX-License-Identifier: Apache-2.0
// Recordings in the tests of slotctl record and replay: fresh paths, and what a file holds.
#pragma once

#include "Mcap.h"
#include "ShmHygiene.h"

#include <cstdint>
#include <string>
#include <vector>

namespace slotctltest {

// A fresh path for a recording, inside the run's directory (removed with it).
inline std::string RecordingPath(const std::string& stem) {
    return testsupport::TestRunDir() + "/" + testsupport::UniqueName(stem) + ".mcap";
}

struct Recording {
    mcap::ReadResult result;
    std::vector<std::string> blocks;
    std::vector<std::uint32_t> sequences;
};

// Every message of the file, in file order, with how far reading got.
inline Recording ReadRecording(const std::string& path) {
    Recording recording;
    recording.result = mcap::Read(path, [&](const mcap::Message& m, const mcap::Channel&) {
        recording.blocks.emplace_back(m.data, m.size);
        recording.sequences.push_back(m.sequence);
        return true;
    });
    return recording;
}

}  // namespace slotctltest
