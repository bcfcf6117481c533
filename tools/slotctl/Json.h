// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace slotctl {

// A minimal JSON writer for --json output: objects and arrays built in order, one line.
// Strings are escaped so that the output is valid JSON and safe on a terminal: control
// characters (C0, DEL, C1) as \u00XX, bytes that are not UTF-8 as the text \xNN.
class Json {
public:
    Json& BeginObject();
    Json& EndObject();
    Json& BeginArray();
    Json& EndArray();
    // The key of the next value inside an object.
    Json& Key(const std::string& key);
    Json& String(const std::string& value);
    Json& Number(std::uint64_t value);
    Json& SignedNumber(std::int64_t value);
    Json& Bool(bool value);
    Json& Null();

    const std::string& Text() const { return text_; }

private:
    // Writes `token` (a value, or the start of one) where the next value goes.
    Json& Value(const std::string& token);
    Json& Open(const char* bracket);
    Json& Close(const char* bracket);
    static std::string Quoted(const std::string& value);

    std::string text_;
    std::vector<bool> first_;  // per open container: no element written yet
    bool afterKey_ = false;
};

}  // namespace slotctl
