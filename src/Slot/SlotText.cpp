// SPDX-License-Identifier: Apache-2.0
#include <Slot/SlotText.h>

#include <nlohmann/json.hpp>

#include <cstdio>
#include <utility>
#include <vector>

namespace Slot {

std::size_t Utf8SequenceAt(const std::string& text, std::size_t at, std::uint32_t& codePoint) {
    const unsigned char lead = static_cast<unsigned char>(text[at]);
    if (lead < 0x80) {
        codePoint = lead;
        return 1;
    }
    std::size_t length = 0;
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
    for (std::size_t i = 1; i < length; ++i) {
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

namespace {

// The text \xNN of one byte, as both escapings show a byte they cannot show as it is.
void AppendByteEscape(std::string& out, char byte) {
    char hex[8];
    std::snprintf(hex, sizeof(hex), "\\x%02x", static_cast<unsigned char>(byte));
    out += hex;
}

}  // namespace

std::string Printable(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        std::uint32_t codePoint = 0;
        std::size_t length = Utf8SequenceAt(text, i, codePoint);
        if (length != 0 && !IsControl(codePoint) && !IsBidiControl(codePoint)) {
            out.append(text, i, length);
        } else {
            // One escape per byte, also for a character of several bytes.
            length = length == 0 ? 1 : length;
            for (std::size_t k = 0; k < length; ++k) {
                AppendByteEscape(out, text[i + k]);
            }
        }
        i += length;
    }
    return out;
}

std::string JsonText(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        std::uint32_t codePoint = 0;
        const std::size_t length = Utf8SequenceAt(text, i, codePoint);
        if (length == 0) {
            AppendByteEscape(out, text[i]);
            ++i;
        } else {
            out.append(text, i, length);
            i += length;
        }
    }
    return out;
}

namespace {

// `value` on one line with ", " and ": " between items, and DEL, C1 control characters and
// bidirectional formatting characters escaped as \uXXXX too (nlohmann escapes only C0 ones).
std::string DumpJson(const nlohmann::ordered_json& value) {
    // Strings are valid UTF-8 already (JsonText); the handler only guards against a slip.
    const std::string dumped = value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    std::string out;
    out.reserve(dumped.size());
    // Outside strings the dump is ASCII, so DEL and the two-byte C1 sequences (C2 80..C2 9F)
    // can only be characters inside strings. Outside strings ", " and ": " separate items.
    bool inString = false;
    for (std::size_t i = 0; i < dumped.size(); ++i) {
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
        std::uint32_t codePoint = 0;
        std::size_t length = 0;
        if (c == 0x7f) {
            out += "\\u007f";
        } else if (c == 0xc2 && next >= 0x80 && next <= 0x9f) {
            std::snprintf(escaped, sizeof(escaped), "\\u%04x", static_cast<unsigned>(next));
            out += escaped;
            ++i;
        } else if (inString && c >= 0xc0 && (length = Utf8SequenceAt(dumped, i, codePoint)) != 0 &&
                   IsBidiControl(codePoint)) {
            std::snprintf(escaped, sizeof(escaped), "\\u%04x", static_cast<unsigned>(codePoint));
            out += escaped;
            i += length - 1;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

}  // namespace

struct JsonWriter::Document {
    std::vector<nlohmann::ordered_json> open;  // the containers being built, innermost last
    std::vector<std::string> keys;             // per open container: the key of its next value
    nlohmann::ordered_json done;

    JsonWriter& Put(JsonWriter& writer, nlohmann::ordered_json value) {
        if (open.empty()) {
            done = std::move(value);
        } else if (open.back().is_array()) {
            open.back().push_back(std::move(value));
        } else {
            open.back()[keys.back()] = std::move(value);
        }
        return writer;
    }
};

JsonWriter::JsonWriter() : document_(new Document) {}

JsonWriter::~JsonWriter() = default;

JsonWriter& JsonWriter::BeginObject() {
    document_->open.push_back(nlohmann::ordered_json::object());
    document_->keys.emplace_back();
    return *this;
}

JsonWriter& JsonWriter::BeginArray() {
    document_->open.push_back(nlohmann::ordered_json::array());
    document_->keys.emplace_back();
    return *this;
}

JsonWriter& JsonWriter::EndObject() {
    nlohmann::ordered_json closed = std::move(document_->open.back());
    document_->open.pop_back();
    document_->keys.pop_back();
    return document_->Put(*this, std::move(closed));
}

JsonWriter& JsonWriter::EndArray() {
    return EndObject();
}

JsonWriter& JsonWriter::Key(const std::string& key) {
    document_->keys.back() = JsonText(key);
    return *this;
}

JsonWriter& JsonWriter::String(const std::string& value) {
    return document_->Put(*this, JsonText(value));
}

JsonWriter& JsonWriter::Number(std::uint64_t value) {
    return document_->Put(*this, value);
}

JsonWriter& JsonWriter::SignedNumber(std::int64_t value) {
    return document_->Put(*this, value);
}

JsonWriter& JsonWriter::Real(double value) {
    return document_->Put(*this, value);
}

JsonWriter& JsonWriter::Bool(bool value) {
    return document_->Put(*this, value);
}

JsonWriter& JsonWriter::Null() {
    return document_->Put(*this, nullptr);
}

std::string JsonWriter::Text() const {
    return DumpJson(document_->done);
}

}  // namespace Slot
