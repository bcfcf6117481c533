// SPDX-License-Identifier: Apache-2.0
// Fuzzes slotctl's command-line parsing: the option parser, the number and duration checks, the
// slot name and type checks and the quoting of names in messages. The input is a command line:
// its words are separated by NUL bytes, as the kernel hands argv to a program (so no word holds
// a NUL). The first byte chooses which command's option table is used. Parsing touches nothing
// outside the process; only CommandError may leave it.
#include "Cli.h"
#include "FuzzSupport.h"

#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

using fuzzsupport::Escaped;
using fuzzsupport::Fail;

namespace {

struct CommandTable {
    const char* command;
    std::set<std::string> valued;
    std::set<std::string> flags;
};

// The option tables of slotctl's commands (read and write also take the slot options).
const std::vector<CommandTable>& Tables() {
    static const std::vector<CommandTable> tables = {
        {"ls", {}, {"json"}},
        {"info", {}, {"json"}},
        {"rm", {"min-age"}, {"stale"}},
        {"read",
         {"type", "max-size", "queue", "update-time", "count", "timeout", "format"},
         {"follow"}},
        {"write",
         {"type", "max-size", "queue", "update-time", "length", "every", "count"},
         {"lines"}},
        {"demo", {"duration", "rate", "burst", "size", "queue", "update-time", "prefix"}, {}},
    };
    return tables;
}

void CheckQuoted(const std::string& text) {
    const std::string quoted = slotctl::Quote(text);
    if (quoted.size() < 2 || quoted.front() != '\'' || quoted.back() != '\'') {
        Fail("Quote does not quote: " + Escaped(quoted));
    }
    if (quoted.size() > 2 + 300 * 4 + 3) {
        Fail("Quote of " + std::to_string(text.size()) + " bytes is " +
             std::to_string(quoted.size()) + " bytes long");
    }
    for (const char ch : quoted) {
        const unsigned char c = static_cast<unsigned char>(ch);
        if (c < 0x20 || c == 0x7f) {
            Fail("Quote lets a control character through: " + Escaped(quoted));
        }
    }
}

void CheckName(const std::string& name) {
    try {
        slotctl::CheckSlotName(name);
    } catch (const slotctl::CommandError& e) {
        if (e.Status() != slotctl::ExitUsage) {
            Fail("a refused name is not a usage error");
        }
        return;
    }
    // Accepted: it must be usable as the name of a shared-memory object and of a file in the
    // pipe and lock folders.
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos ||
        name.size() + 6 > NAME_MAX) {
        Fail("CheckSlotName accepts " + Escaped(name));
    }
}

void CheckNumber(const slotctl::Arguments& arguments, const std::string& option, std::uint64_t min,
                 std::uint64_t max) {
    std::uint64_t value = 0;
    try {
        value = arguments.GetNumber(option, min, min, max);
    } catch (const slotctl::CommandError&) {
        return;
    }
    if (value < min || value > max) {
        Fail("--" + option + " gives " + std::to_string(value) + " outside [" +
             std::to_string(min) + ", " + std::to_string(max) + "]");
    }
    if (arguments.Has(option)) {
        const std::string text = arguments.Get(option);
        std::uint64_t expected = 0;
        for (const char c : text) {
            if (c < '0' || c > '9') {
                Fail("--" + option + " accepts " + Escaped(text));
            }
            expected = expected * 10 + static_cast<std::uint64_t>(c - '0');
        }
        if (expected != value) {
            Fail("--" + option + " reads " + Escaped(text) + " as " + std::to_string(value));
        }
    }
}

void CheckSeconds(const slotctl::Arguments& arguments, const std::string& option, double min,
                  double max) {
    double value = 0;
    try {
        value = arguments.GetSeconds(option, min, min, max);
    } catch (const slotctl::CommandError&) {
        return;
    }
    if (!std::isfinite(value) || value < min || value > max) {
        Fail("--" + option + " gives a duration outside its range");
    }
}

void ParseCommandLine(const CommandTable& table, const std::vector<std::string>& words) {
    const slotctl::Arguments arguments(table.command, words, table.valued, table.flags);
    // Every operand is one of the words, and none is taken for an option before "--".
    size_t found = 0;
    for (const std::string& operand : arguments.Operands()) {
        bool seen = false;
        for (; found < words.size() && !seen; ++found) {
            seen = words[found] == operand;
        }
        if (!seen) {
            Fail("operand " + Escaped(operand) + " is not a word of the command line, in order");
        }
        CheckName(operand);
        CheckQuoted(operand);
    }
    for (const std::string& option : table.valued) {
        CheckQuoted(arguments.Get(option));
    }
    try {
        arguments.ExpectOperands(1, 2, "one or two operands");
    } catch (const slotctl::CommandError&) {
    }
    if (arguments.Has("type")) {
        try {
            slotctl::CheckSlotType(arguments.Get("type"));
        } catch (const slotctl::CommandError&) {
        }
    }
    for (const char* option : {"count", "length", "queue", "max-size", "rate", "size"}) {
        CheckNumber(arguments, option, 1, INT_MAX);
    }
    CheckNumber(arguments, "timeout", 0, UINT64_MAX >> 1);
    CheckNumber(arguments, "every", 0, 86400000);
    CheckSeconds(arguments, "min-age", 0.0, 1e9);
    CheckSeconds(arguments, "duration", 0.0, 86400.0);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzsupport::QuietLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
    if (size == 0 || size > 4096) {
        return 0;
    }
    const CommandTable& table = Tables()[data[0] % Tables().size()];
    std::vector<std::string> words;
    std::string word;
    for (size_t i = 1; i < size; ++i) {
        if (data[i] == 0) {
            words.push_back(word);
            word.clear();
        } else {
            word += static_cast<char>(data[i]);
        }
    }
    if (size > 1) {
        words.push_back(word);
    }
    // Also straight through the number parser, with bounds from the input.
    if (!words.empty()) {
        const std::uint64_t max = size > 2 ? (std::uint64_t{1} << (data[1] % 64)) : 0;
        const std::uint64_t min = max >> (size > 3 ? data[2] % 8 : 0) >> 1;
        try {
            const std::uint64_t value = slotctl::ParseNumber(words.back(), "n", min, max);
            if (value < min || value > max) {
                Fail("ParseNumber gives a value outside its range");
            }
        } catch (const slotctl::CommandError&) {
        }
    }
    try {
        ParseCommandLine(table, words);
    } catch (const slotctl::CommandError& e) {
        if (e.Status() != slotctl::ExitUsage) {
            Fail("parsing ends with a status other than a usage error");
        }
        CheckQuoted(e.what());
    }
    return 0;
}
