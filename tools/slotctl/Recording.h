// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Cli.h"

#include <Slot/ISlot.h>
#include <Slot/ISlotConfiguration.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace slotctl {

// Whether a read or info operand is a recording rather than a slot: it ends in ".mcap" and
// names an existing regular file. (A slot of such a name is reached when no such file exists.)
bool IsRecordingFile(const std::string& operand);

// Channel metadata of a recorded slot.
namespace meta {
const char* const Kind = "kind";
const char* const MaxBlockSize = "max_block_size";
const char* const QueueLength = "queue_length";
const char* const Host = "host";
const char* const Version = "libslot_version";
}  // namespace meta

// The channel metadata describing slot `cfg`.
std::map<std::string, std::string> SlotMetadata(const ISlotConfiguration& cfg);

// "12.3 MB" and the like, for summaries.
std::string ByteText(std::uint64_t bytes);

// Writes blocks into one slot in order: a block the slot refuses (a full reliable slot) is
// retried after a short pause until it is stored or `stopping` says so. Never drops silently.
class RetryingWriter {
public:
    enum class Result { Stored, TooLarge, Failed, Stopped };

    explicit RetryingWriter(const ISlotConfiguration& cfg);
    Result Write(const char* data, size_t size, const std::function<bool()>& stopping);

    const std::string& Name() const { return name_; }
    std::uint64_t Stored() const { return stored_; }
    std::uint64_t Retries() const { return retries_; }
    std::uint64_t Lost() const { return lost_; }  // too large or failed

private:
    std::string name_;
    size_t maxSize_;
    ISubscriberPtr writer_;
    std::uint64_t stored_ = 0, retries_ = 0, lost_ = 0;
};

// read FILE.mcap and info FILE.mcap.
int ReadRecording(const Arguments& arguments, const std::string& path);
int RecordingInfo(const std::string& path);

}  // namespace slotctl
