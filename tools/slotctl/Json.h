// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace slotctl {

// Builds --json output in order, on nlohmann::ordered_json, and prints it as one line.
//
// Every string goes through JsonText first, so that the output is always valid JSON and safe on
// a terminal: bytes that are not UTF-8 become the text \xNN (JSON cannot carry them), and
// control characters (C0, DEL, C1) are written as \u00XX escapes (C0 ones that JSON has a short
// escape for, such as \n and \t, as that escape).
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

    // The whole document on one line.
    std::string Text() const;

private:
    Json& Put(nlohmann::ordered_json value);

    std::vector<nlohmann::ordered_json> open_;  // the containers being built, innermost last
    std::vector<std::string> keys_;             // per open container: the key of its next value
    nlohmann::ordered_json done_;
};

// `text` as valid UTF-8: each byte that starts no valid sequence becomes the text \xNN.
std::string JsonText(const std::string& text);

// `value` on one line with ", " and ": " between items, and DEL and C1 control characters
// escaped as \u00XX too (nlohmann escapes only C0 ones).
std::string DumpJson(const nlohmann::ordered_json& value);

}  // namespace slotctl
