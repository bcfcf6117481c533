// SPDX-License-Identifier: Apache-2.0
#include "Json.h"

#include "Cli.h"

#include <cstdio>
#include <utility>

namespace slotctl {

std::string JsonText(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        std::uint32_t codePoint = 0;
        const size_t length = Utf8SequenceAt(text, i, codePoint);
        if (length == 0) {
            char escaped[8];
            std::snprintf(escaped, sizeof(escaped), "\\x%02x", static_cast<unsigned char>(text[i]));
            out += escaped;
            ++i;
        } else {
            out.append(text, i, length);
            i += length;
        }
    }
    return out;
}

std::string DumpJson(const nlohmann::ordered_json& value) {
    // Strings are valid UTF-8 already (JsonText); the handler only guards against a slip.
    const std::string dumped = value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    std::string out;
    out.reserve(dumped.size());
    // Outside strings the dump is ASCII, so DEL and the two-byte C1 sequences (C2 80..C2 9F)
    // can only be characters inside strings.
    // Outside strings a ", " and ": " separate, as slotctl always printed them.
    bool inString = false;
    for (size_t i = 0; i < dumped.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(dumped[i]);
        if (inString && c == '\\') {
            out += dumped.substr(i, 2);  // an escape: its second byte is never special
            ++i;
            continue;
        }
        if (c == '"') {
            inString = !inString;
        } else if (!inString && (c == ',' || c == ':')) {
            out += static_cast<char>(c);
            out += ' ';
            continue;
        }
        const unsigned char next =
            i + 1 < dumped.size() ? static_cast<unsigned char>(dumped[i + 1]) : 0;
        char escaped[8];
        if (c == 0x7f) {
            out += "\\u007f";
        } else if (c == 0xc2 && next >= 0x80 && next <= 0x9f) {
            std::snprintf(escaped, sizeof(escaped), "\\u%04x", static_cast<unsigned>(next));
            out += escaped;
            ++i;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

Json& Json::Put(nlohmann::ordered_json value) {
    if (open_.empty()) {
        done_ = std::move(value);
    } else if (open_.back().is_array()) {
        open_.back().push_back(std::move(value));
    } else {
        open_.back()[keys_.back()] = std::move(value);
    }
    return *this;
}

Json& Json::BeginObject() {
    open_.push_back(nlohmann::ordered_json::object());
    keys_.emplace_back();
    return *this;
}

Json& Json::BeginArray() {
    open_.push_back(nlohmann::ordered_json::array());
    keys_.emplace_back();
    return *this;
}

Json& Json::EndObject() {
    nlohmann::ordered_json closed = std::move(open_.back());
    open_.pop_back();
    keys_.pop_back();
    return Put(std::move(closed));
}

Json& Json::EndArray() {
    return EndObject();
}

Json& Json::Key(const std::string& key) {
    keys_.back() = JsonText(key);
    return *this;
}

Json& Json::String(const std::string& value) {
    return Put(JsonText(value));
}

Json& Json::Number(std::uint64_t value) {
    return Put(value);
}

Json& Json::SignedNumber(std::int64_t value) {
    return Put(value);
}

Json& Json::Bool(bool value) {
    return Put(value);
}

Json& Json::Null() {
    return Put(nullptr);
}

std::string Json::Text() const {
    return DumpJson(done_);
}

}  // namespace slotctl
