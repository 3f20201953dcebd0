// Message bodies as JSON: the fields an interface document declares, encoded
// and decoded in document order with the protocol's primitive encodings.
//
// Types: uint8/16/32/64 and int8/16/32/64 (big-endian), bool (one byte, 0 or
// 1), string (the text and a NUL), bytes (VLQ length, the bytes; hex in JSON).
// A message with a field of any other type travels as {"raw": "<hex>"} both
// ways, and so does a body that does not decode. The protocol carries no empty
// messages, so a message without fields travels as one zero byte.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Velto/Parsing/InterfaceFileParser.h"

namespace bridge {

enum class FieldType { U8, U16, U32, U64, I8, I16, I32, I64, BOOL, STRING, BYTES, OTHER };

FieldType fieldTypeOf(const std::string& typeName);
bool isNumeric(FieldType t);
// True when every field has one of the types above (a message without fields too).
bool fieldsKnown(const std::vector<MessageFieldInfo>& fields);

// The fields as a JSON object; {"raw": hex} when a type is unknown, the body
// does not decode, or bytes are left over.
nlohmann::json decodeBody(const std::vector<MessageFieldInfo>& fields, const uint8_t* data, size_t size);

// The body for a JSON object of fields ({"raw": hex} for messages of unknown
// types). Returns true with out filled; false with why set to one line (a
// missing field, a value of the wrong type or out of range, bad hex).
bool encodeBody(const std::vector<MessageFieldInfo>& fields, const nlohmann::json& in, std::vector<uint8_t>& out,
                std::string& why);

// Compact JSON text; invalid UTF-8 in strings is replaced, never thrown on.
std::string dumpJson(const nlohmann::json& j);

std::string toHexText(const uint8_t* data, size_t size);
// False on an odd count or a non-hex character.
bool fromHexText(const std::string& text, std::vector<uint8_t>& out);

}  // namespace bridge
