// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Slot/Export.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

// Texts from slots (names, details, user names) shown on a terminal or written as JSON. Such
// texts are bytes: they need not be UTF-8 and may hold control characters.
namespace Slot {

// Length of the valid UTF-8 sequence at text[at] (1 to 4) with its code point in `codePoint`,
// or 0 when the byte there starts no valid sequence (stray, overlong, surrogate, too large).
SLOT_EXPORT std::size_t Utf8SequenceAt(const std::string& text, std::size_t at,
                                       std::uint32_t& codePoint);

// Whether the code point is a control character: C0, DEL or C1.
inline bool IsControl(std::uint32_t codePoint) {
    return codePoint < 0x20 || (codePoint >= 0x7f && codePoint <= 0x9f);
}

// Whether the code point is a bidirectional formatting character (marks, embeddings, overrides,
// isolates): shown as it is, it reorders the text around it, so a name can pass for another.
inline bool IsBidiControl(std::uint32_t codePoint) {
    return codePoint == 0x061c || codePoint == 0x200e || codePoint == 0x200f ||
           (codePoint >= 0x202a && codePoint <= 0x202e) ||
           (codePoint >= 0x2066 && codePoint <= 0x2069);
}

// `text` safe to print on a terminal: control characters (C0, DEL and C1), bidirectional
// formatting characters and bytes that are not valid UTF-8 appear as \xNN, one per byte;
// everything else as it is. Applying it twice changes nothing more.
SLOT_EXPORT std::string Printable(const std::string& text);

// `text` as valid UTF-8: each byte that starts no valid sequence becomes the text \xNN.
SLOT_EXPORT std::string JsonText(const std::string& text);

// Builds a JSON document in order and writes it as one line, with ", " and ": " between items.
//
// Every string and key goes through JsonText, so that the output is always valid JSON and safe
// on a terminal: bytes that are not UTF-8 become the text \xNN (JSON cannot carry them), and
// control characters (C0, DEL, C1) and bidirectional formatting characters are written as \uXXXX
// escapes (C0 ones that JSON has a short escape for, such as \n and \t, as that escape).
class SLOT_EXPORT JsonWriter {
public:
    JsonWriter();
    ~JsonWriter();
    JsonWriter(const JsonWriter&) = delete;
    JsonWriter& operator=(const JsonWriter&) = delete;

    JsonWriter& BeginObject();
    JsonWriter& EndObject();
    JsonWriter& BeginArray();
    JsonWriter& EndArray();
    // The key of the next value inside an object.
    JsonWriter& Key(const std::string& key);
    JsonWriter& String(const std::string& value);
    JsonWriter& Number(std::uint64_t value);
    JsonWriter& SignedNumber(std::int64_t value);
    // In the shortest form that reads back as the same double; null when not finite.
    JsonWriter& Real(double value);
    JsonWriter& Bool(bool value);
    JsonWriter& Null();

    // The whole document on one line.
    std::string Text() const;

private:
    struct Document;
    std::unique_ptr<Document> document_;
};

}  // namespace Slot
