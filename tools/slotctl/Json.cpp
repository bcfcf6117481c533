// SPDX-License-Identifier: Apache-2.0
#include "Json.h"

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
    for (char c : value) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            quoted += '\\';
            quoted += c;
        } else if (u < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof(escaped), "\\u%04x", u);
            quoted += escaped;
        } else {
            quoted += c;
        }
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
