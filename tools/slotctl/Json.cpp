#include "Json.h"

#include <cstdio>

namespace slotctl {

void Json::BeforeValue() {
    if (afterKey_) {
        afterKey_ = false;
        return;
    }
    if (!first_.empty()) {
        if (!first_.back()) {
            text_ += ", ";
        }
        first_.back() = false;
    }
}

Json& Json::BeginObject() {
    BeforeValue();
    text_ += '{';
    first_.push_back(true);
    return *this;
}

Json& Json::EndObject() {
    first_.pop_back();
    text_ += '}';
    return *this;
}

Json& Json::BeginArray() {
    BeforeValue();
    text_ += '[';
    first_.push_back(true);
    return *this;
}

Json& Json::EndArray() {
    first_.pop_back();
    text_ += ']';
    return *this;
}

Json& Json::Key(const std::string& key) {
    BeforeValue();
    AppendQuoted(key);
    text_ += ": ";
    afterKey_ = true;
    return *this;
}

Json& Json::String(const std::string& value) {
    BeforeValue();
    AppendQuoted(value);
    return *this;
}

void Json::AppendQuoted(const std::string& value) {
    text_ += '"';
    for (char c : value) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            text_ += '\\';
            text_ += c;
        } else if (u < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof(escaped), "\\u%04x", u);
            text_ += escaped;
        } else {
            text_ += c;
        }
    }
    text_ += '"';
}

Json& Json::Number(std::uint64_t value) {
    BeforeValue();
    text_ += std::to_string(value);
    return *this;
}

Json& Json::SignedNumber(std::int64_t value) {
    BeforeValue();
    text_ += std::to_string(value);
    return *this;
}

Json& Json::Bool(bool value) {
    BeforeValue();
    text_ += value ? "true" : "false";
    return *this;
}

Json& Json::Null() {
    BeforeValue();
    text_ += "null";
    return *this;
}

}  // namespace slotctl
