// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <cstdint>
#include <string>

namespace slotctl {

// How read and peek print a block: "text", "hex", "raw", "frames" or "ndjson".
//
// frames: each block as a frame, a 4-byte little-endian unsigned length followed by that many
// bytes (an empty block is the four bytes 00 00 00 00); write --frames takes the same stream.
// ndjson: one JSON object per line: {"time":"<UTC, ISO 8601, microseconds>Z","size":N,
// "base64":"<the bytes, base64>"}.
bool IsBlockFormat(const std::string& format);
std::string FormatBlock(const std::string& format, const std::string& block,
                        const boost::posix_time::ptime& time);

std::string Base64(const std::string& bytes);

// The 4-byte frame header of a block of `size` bytes.
std::string FrameHeader(std::uint32_t size);

// Cuts frames off the front of a byte stream.
class FrameParser {
public:
    void Append(const char* data, size_t size) { buffer_.append(data, size); }
    // Moves the next whole frame's bytes into `block`; false when none is complete yet.
    bool Next(std::string& block);
    // The length the next frame declares, when its header is complete; -1 otherwise.
    std::int64_t NextSize() const;
    // Bytes of an incomplete frame still held (a truncated stream when the input has ended).
    size_t Pending() const { return buffer_.size() - start_; }

private:
    std::string buffer_;
    size_t start_ = 0;
};

}  // namespace slotctl
