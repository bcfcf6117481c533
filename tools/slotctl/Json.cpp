// SPDX-License-Identifier: Apache-2.0
#include "Json.h"

#include "Cli.h"

#include <cstdio>

namespace slotctl {

Json& Json::Value(const std::string& token) {
    if (afterKey_) {
        afterKey_ = false;
    } else if (!first_.empty()) {
        if (!first_.back()) {
            text_ += ", ";
        }
        first_.back() = false;
    }
    text_ += token;
    return *this;
}

Json& Json::Open(const char* bracket) {
    Value(bracket);
    first_.push_back(true);
    return *this;
}

Json& Json::Close(const char* bracket) {
    first_.pop_back();
    text_ += bracket;
    return *this;
}

Json& Json::BeginObject() {
    return Open("{");
}

Json& Json::EndObject() {
    return Close("}");
}

Json& Json::BeginArray() {
    return Open("[");
}

Json& Json::EndArray() {
    return Close("]");
}

Json& Json::Key(const std::string& key) {
    Value(Quoted(key) + ": ");
    afterKey_ = true;
    return *this;
}

Json& Json::String(const std::string& value) {
    return Value(Quoted(value));
}

std::string Json::Quoted(const std::string& value) {
    std::string quoted = "\"";
    for (size_t i = 0; i < value.size();) {
        std::uint32_t codePoint = 0;
        const size_t length = Utf8SequenceAt(value, i, codePoint);
        char escaped[16];
        if (length == 0) {
            // Not UTF-8: JSON cannot carry the byte, so it becomes the text \xNN.
            std::snprintf(escaped, sizeof(escaped), "\\\\x%02x",
                          static_cast<unsigned char>(value[i]));
            quoted += escaped;
            ++i;
            continue;
        }
        if (codePoint == '"' || codePoint == '\\') {
            quoted += '\\';
            quoted += static_cast<char>(codePoint);
        } else if (IsControl(codePoint)) {
            std::snprintf(escaped, sizeof(escaped), "\\u%04x", static_cast<unsigned>(codePoint));
            quoted += escaped;
        } else {
            quoted.append(value, i, length);
        }
        i += length;
    }
    return quoted + '"';
}

Json& Json::Number(std::uint64_t value) {
    return Value(std::to_string(value));
}

Json& Json::SignedNumber(std::int64_t value) {
    return Value(std::to_string(value));
}

Json& Json::Bool(bool value) {
    return Value(value ? "true" : "false");
}

Json& Json::Null() {
    return Value("null");
}

}  // namespace slotctl
