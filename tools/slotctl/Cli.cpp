// SPDX-License-Identifier: Apache-2.0
#include "Cli.h"

#include "Names.h"

#include <Slot/SlotFactory.h>
#include <Slot/SlotNames.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

namespace slotctl {

Arguments::Arguments(const std::string& command, const std::vector<std::string>& args,
                     const std::set<std::string>& valued, const std::set<std::string>& flags)
    : command_(command) {
    bool optionsEnded = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (optionsEnded || arg == "-" || arg.empty() || arg[0] != '-') {
            operands_.push_back(arg);
            continue;
        }
        if (arg == "--") {
            optionsEnded = true;
            continue;
        }
        auto unknown = [&] {
            return UsageError(command_ + ": unknown option '" + arg + "' (see slotctl " + command_ +
                              " --help)");
        };
        if (!StartsWith(arg, "--")) {
            throw unknown();
        }
        std::string name = arg.substr(2);
        std::string value;
        const std::string::size_type equals = name.find('=');
        const bool inlineValue = equals != std::string::npos;
        if (inlineValue) {
            value = name.substr(equals + 1);
            name.erase(equals);
        }
        if (valued.count(name) != 0) {
            if (!inlineValue) {
                if (i + 1 >= args.size()) {
                    throw UsageError(command_ + ": option '--" + name + "' needs a value");
                }
                value = args[++i];
            }
            values_[name] = value;
            allValues_[name].push_back(value);
        } else if (flags.count(name) != 0 && !inlineValue) {
            flags_.insert(name);
        } else {
            throw unknown();
        }
    }
}

bool Arguments::Has(const std::string& option) const {
    return flags_.count(option) != 0 || values_.count(option) != 0;
}

std::string Arguments::Get(const std::string& option, const std::string& fallback) const {
    const auto it = values_.find(option);
    return it == values_.end() ? fallback : it->second;
}

std::vector<std::string> Arguments::GetAll(const std::string& option) const {
    const auto it = allValues_.find(option);
    return it == allValues_.end() ? std::vector<std::string>() : it->second;
}

std::uint64_t Arguments::GetNumber(const std::string& option, std::uint64_t fallback,
                                   std::uint64_t min, std::uint64_t max) const {
    const auto it = values_.find(option);
    if (it == values_.end()) {
        return fallback;
    }
    return ParseNumber(it->second, command_ + ": --" + option, min, max);
}

double Arguments::GetSeconds(const std::string& option, double fallback, double min,
                             double max) const {
    const auto it = values_.find(option);
    if (it == values_.end()) {
        return fallback;
    }
    const char* text = it->second.c_str();
    char* end = nullptr;
    errno = 0;
    const double value = std::strtod(text, &end);
    if (it->second.empty() || *end != '\0' || errno != 0 || !(value >= min && value <= max)) {
        char range[96];
        std::snprintf(range, sizeof(range), "a number of seconds from %g to %g", min, max);
        throw UsageError(command_ + ": --" + option + " must be " + range + ", not '" + it->second +
                         "'");
    }
    return value;
}

void Arguments::ExpectOperands(size_t min, size_t max, const std::string& what) const {
    if (operands_.size() < min || operands_.size() > max) {
        throw UsageError(command_ + ": expected " + what + " (see slotctl " + command_ +
                         " --help)");
    }
}

std::uint64_t ParseNumber(const std::string& text, const std::string& what, std::uint64_t min,
                          std::uint64_t max) {
    bool ok = !text.empty() && text.size() <= 19;
    std::uint64_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') {
            ok = false;
            break;
        }
        value = value * 10 + static_cast<std::uint64_t>(c - '0');
    }
    if (!ok || value < min || value > max) {
        throw UsageError(what + " must be a whole number from " + std::to_string(min) + " to " +
                         std::to_string(max) + ", not '" + text + "'");
    }
    return value;
}

void CheckSlotName(const std::string& name) {
    if (const std::optional<std::string> problem = Slot::SlotNameProblem(name)) {
        throw UsageError("invalid slot name " + Quote(name) + ": the name " + *problem);
    }
}

void CheckSlotType(const std::string& type) {
    if (!SlotFactory::SlotTypeIsValid(type)) {
        throw UsageError("invalid slot type " + Quote(type) +
                         ": use discarding, reliable or posix-pipe");
    }
}

size_t Utf8SequenceAt(const std::string& text, size_t at, std::uint32_t& codePoint) {
    const unsigned char lead = static_cast<unsigned char>(text[at]);
    if (lead < 0x80) {
        codePoint = lead;
        return 1;
    }
    size_t length = 0;
    std::uint32_t value = 0;
    std::uint32_t minimum = 0;
    if ((lead & 0xe0) == 0xc0) {
        length = 2;
        value = lead & 0x1f;
        minimum = 0x80;
    } else if ((lead & 0xf0) == 0xe0) {
        length = 3;
        value = lead & 0x0f;
        minimum = 0x800;
    } else if ((lead & 0xf8) == 0xf0) {
        length = 4;
        value = lead & 0x07;
        minimum = 0x10000;
    } else {
        return 0;
    }
    if (text.size() - at < length) {
        return 0;
    }
    for (size_t i = 1; i < length; ++i) {
        const unsigned char next = static_cast<unsigned char>(text[at + i]);
        if ((next & 0xc0) != 0x80) {
            return 0;
        }
        value = (value << 6) | (next & 0x3f);
    }
    if (value < minimum || value > 0x10ffff || (value >= 0xd800 && value <= 0xdfff)) {
        return 0;
    }
    codePoint = value;
    return length;
}

std::string Printable(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        std::uint32_t codePoint = 0;
        size_t length = Utf8SequenceAt(text, i, codePoint);
        if (length != 0 && !IsControl(codePoint)) {
            out.append(text, i, length);
        } else {
            // One escape per byte, also for an encoded C1 control (two bytes).
            length = length == 0 ? 1 : length;
            for (size_t k = 0; k < length; ++k) {
                char hex[8];
                std::snprintf(hex, sizeof(hex), "\\x%02x", static_cast<unsigned char>(text[i + k]));
                out += hex;
            }
        }
        i += length;
    }
    return out;
}

std::string Quote(const std::string& name) {
    const size_t shown = name.size() > 300 ? 300 : name.size();
    return "'" + Printable(name.substr(0, shown)) + (shown < name.size() ? "..." : "") + "'";
}

bool StartsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

bool EndsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::string Join(const std::vector<std::string>& parts) {
    std::string text;
    for (size_t i = 0; i < parts.size(); ++i) {
        text += (i == 0 ? "" : ", ") + parts[i];
    }
    return text;
}

std::string Padded(const std::string& text, size_t width) {
    return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

std::string RightAligned(const std::string& text, size_t width) {
    return text.size() >= width ? text : std::string(width - text.size(), ' ') + text;
}

}  // namespace slotctl
