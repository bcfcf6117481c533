// SPDX-License-Identifier: Apache-2.0
#include "BlockFormat.h"

#include "Cli.h"
#include "Names.h"

#include <Slot/SlotText.h>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <cstdio>

namespace slotctl {

namespace {

// The block as names are printed (Slot::Printable: control characters and bytes that are not
// UTF-8 as \xNN), with a backslash doubled and \n, \t, \r in their short form.
std::string TextLine(const std::string& block) {
    std::string line = std::to_string(block.size()) + " bytes: ";
    // These bytes never occur inside a UTF-8 sequence: the text between them is escaped alone.
    size_t from = 0;
    for (size_t at = 0; at <= block.size(); ++at) {
        const char c = at < block.size() ? block[at] : '\0';
        const char* escape = c == '\n'   ? "\\n"
                             : c == '\t' ? "\\t"
                             : c == '\r' ? "\\r"
                             : c == '\\' ? "\\\\"
                                         : nullptr;
        if (escape != nullptr || at == block.size()) {
            line += Slot::Printable(block.substr(from, at - from));
            if (escape != nullptr) {
                line += escape;
            }
            from = at + 1;
        }
    }
    return line + "\n";
}

std::string HexLines(const std::string& block) {
    std::string out = std::to_string(block.size()) + " bytes:\n";
    for (size_t offset = 0; offset < block.size(); offset += 16) {
        char line[128];
        int n = std::snprintf(line, sizeof(line), "  %06zx ", offset);
        std::string ascii;
        for (size_t i = offset; i < offset + 16; ++i) {
            if (i < block.size()) {
                const unsigned char u = static_cast<unsigned char>(block[i]);
                n += std::snprintf(line + n, sizeof(line) - static_cast<size_t>(n), " %02x", u);
                ascii += (u >= 0x20 && u < 0x7f) ? static_cast<char>(u) : '.';
            } else {
                n += std::snprintf(line + n, sizeof(line) - static_cast<size_t>(n), "   ");
            }
        }
        out += std::string(line) + "  |" + ascii + "|\n";
    }
    return out;
}

std::string NdjsonLine(const std::string& block, const boost::posix_time::ptime& time) {
    Slot::JsonWriter line;
    line.BeginObject().Key("time");
    time.is_special() ? line.Null() : line.String(FormatTime(time));
    line.Key("size").Number(block.size());
    line.Key("base64").String(Base64(block));
    line.EndObject();
    return line.Text() + "\n";
}

}  // namespace

bool IsBlockFormat(const std::string& format) {
    return format == "text" || format == "hex" || format == "raw" || format == "frames" ||
           format == "ndjson";
}

std::string FormatBlock(const std::string& format, const std::string& block,
                        const boost::posix_time::ptime& time) {
    if (format == "raw") {
        return block;
    }
    if (format == "hex") {
        return HexLines(block);
    }
    if (format == "frames") {
        return FrameHeader(static_cast<std::uint32_t>(block.size())) + block;
    }
    if (format == "ndjson") {
        return NdjsonLine(block, time);
    }
    return TextLine(block);
}

std::string Base64(const std::string& bytes) {
    static const char alphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 2 < bytes.size(); i += 3) {
        const std::uint32_t v = std::uint32_t(std::uint8_t(bytes[i])) << 16 |
                                std::uint32_t(std::uint8_t(bytes[i + 1])) << 8 |
                                std::uint8_t(bytes[i + 2]);
        out += alphabet[v >> 18];
        out += alphabet[(v >> 12) & 63];
        out += alphabet[(v >> 6) & 63];
        out += alphabet[v & 63];
    }
    if (i < bytes.size()) {
        std::uint32_t v = std::uint32_t(std::uint8_t(bytes[i])) << 16;
        if (i + 1 < bytes.size()) {
            v |= std::uint32_t(std::uint8_t(bytes[i + 1])) << 8;
        }
        out += alphabet[v >> 18];
        out += alphabet[(v >> 12) & 63];
        out += i + 1 < bytes.size() ? alphabet[(v >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

std::string FrameHeader(std::uint32_t size) {
    std::string header(4, '\0');
    for (int i = 0; i < 4; ++i) {
        header[static_cast<size_t>(i)] = static_cast<char>((size >> (8 * i)) & 0xff);
    }
    return header;
}

std::int64_t FrameParser::NextSize() const {
    if (Pending() < 4) {
        return -1;
    }
    std::uint32_t size = 0;
    for (int i = 3; i >= 0; --i) {
        size = size << 8 | std::uint8_t(buffer_[start_ + static_cast<size_t>(i)]);
    }
    return size;
}

bool FrameParser::Next(std::string& block) {
    const std::int64_t declared = NextSize();
    if (declared < 0) {
        return false;
    }
    const size_t size = static_cast<size_t>(declared);
    if (Pending() - 4 < size) {
        return false;
    }
    block.assign(buffer_, start_ + 4, size);
    start_ += 4 + size;
    // Drop consumed bytes now and then, not at every frame.
    if (start_ > 65536 && start_ * 2 > buffer_.size()) {
        buffer_.erase(0, start_);
        start_ = 0;
    }
    return true;
}

}  // namespace slotctl
