// Field encodings of message bodies, on the protocol's own packing helpers.
#include "Bridge/FieldCodec.h"

#include <limits>

#include "Device/CliOptions.h"
#include "Velto/data_packing.h"

namespace bridge {

using nlohmann::json;

namespace {

struct TypeName {
    const char* name;
    FieldType type;
};
const TypeName TYPE_NAMES[] = {
    {"uint8", FieldType::U8},  {"uint16", FieldType::U16},    {"uint32", FieldType::U32},  {"uint64", FieldType::U64},
    {"int8", FieldType::I8},   {"int16", FieldType::I16},     {"int32", FieldType::I32},   {"int64", FieldType::I64},
    {"bool", FieldType::BOOL}, {"string", FieldType::STRING}, {"bytes", FieldType::BYTES},
};

template <typename T>
bool readInt(const uint8_t*& cur, size_t& left, json& out) {
    T v = 0;
    if (!getFromBuffer(cur, left, v)) return false;
    out = v;
    return true;
}

// One field from the body; false when the bytes do not hold it.
bool readField(FieldType t, const uint8_t*& cur, size_t& left, json& out) {
    switch (t) {
        case FieldType::U8: return readInt<uint8_t>(cur, left, out);
        case FieldType::U16: return readInt<uint16_t>(cur, left, out);
        case FieldType::U32: return readInt<uint32_t>(cur, left, out);
        case FieldType::U64: return readInt<uint64_t>(cur, left, out);
        case FieldType::I8: return readInt<int8_t>(cur, left, out);
        case FieldType::I16: return readInt<int16_t>(cur, left, out);
        case FieldType::I32: return readInt<int32_t>(cur, left, out);
        case FieldType::I64: return readInt<int64_t>(cur, left, out);
        case FieldType::BOOL: {
            uint8_t b = 0;
            if (!getFromBuffer(cur, left, b) || b > 1) return false;
            out = b == 1;
            return true;
        }
        case FieldType::STRING: {
            std::string s;
            if (!getFromBuffer(cur, left, s)) return false;
            out = s;  // invalid UTF-8 is replaced when the JSON is written (dumpJson)
            return true;
        }
        case FieldType::BYTES: {
            uint32_t n = 0;
            if (!decodeVLQSize(cur, left, n) || n > left) return false;
            out = toHexText(cur, n);
            cur += n;
            left -= n;
            return true;
        }
        default: return false;
    }
}

template <typename T>
bool putInt(const json& v, std::vector<uint8_t>& out) {
    bool fits = false;
    if (v.is_number_unsigned())
        fits = v.get<uint64_t>() <= static_cast<uint64_t>(std::numeric_limits<T>::max());
    else if (v.is_number_integer())
        fits = v.get<int64_t>() >= static_cast<int64_t>(std::numeric_limits<T>::min()) &&
               (v.get<int64_t>() < 0 ||
                static_cast<uint64_t>(v.get<int64_t>()) <= static_cast<uint64_t>(std::numeric_limits<T>::max()));
    if (!fits) return false;
    uint8_t buf[8];
    uint8_t* cur = buf;
    size_t left = sizeof(buf);
    addToBuffer(v.get<T>(), cur, left);
    out.insert(out.end(), buf, cur);
    return true;
}

// One field into the body; false when the value does not suit the type.
bool writeField(FieldType t, const json& v, std::vector<uint8_t>& out) {
    switch (t) {
        case FieldType::U8: return putInt<uint8_t>(v, out);
        case FieldType::U16: return putInt<uint16_t>(v, out);
        case FieldType::U32: return putInt<uint32_t>(v, out);
        case FieldType::U64: return putInt<uint64_t>(v, out);
        case FieldType::I8: return putInt<int8_t>(v, out);
        case FieldType::I16: return putInt<int16_t>(v, out);
        case FieldType::I32: return putInt<int32_t>(v, out);
        case FieldType::I64: return putInt<int64_t>(v, out);
        case FieldType::BOOL:
            if (!v.is_boolean()) return false;
            out.push_back(v.get<bool>() ? 1 : 0);
            return true;
        case FieldType::STRING: {
            if (!v.is_string()) return false;
            const std::string& s = v.get_ref<const std::string&>();
            if (s.find('\0') != std::string::npos) return false;
            out.insert(out.end(), s.begin(), s.end());
            out.push_back(0);
            return true;
        }
        case FieldType::BYTES: {
            std::vector<uint8_t> b;
            if (!v.is_string() || !fromHexText(v.get<std::string>(), b)) return false;
            uint8_t vlq[5];
            uint8_t* cur = vlq;
            size_t left = sizeof(vlq);
            encodeSizeVLQ(static_cast<uint32_t>(b.size()), cur, left);
            out.insert(out.end(), vlq, cur);
            out.insert(out.end(), b.begin(), b.end());
            return true;
        }
        default: return false;
    }
}

json rawOf(const uint8_t* data, size_t size) { return json{{"raw", toHexText(data, size)}}; }

}  // namespace

FieldType fieldTypeOf(const std::string& typeName) {
    for (const TypeName& t : TYPE_NAMES)
        if (typeName == t.name) return t.type;
    return FieldType::OTHER;
}

bool isNumeric(FieldType t) { return t < FieldType::BOOL; }

bool fieldsKnown(const std::vector<MessageFieldInfo>& fields) {
    for (const MessageFieldInfo& f : fields)
        if (fieldTypeOf(f.type) == FieldType::OTHER) return false;
    return true;
}

json decodeBody(const std::vector<MessageFieldInfo>& fields, const uint8_t* data, size_t size) {
    if (!fieldsKnown(fields)) return rawOf(data, size);
    json out = json::object();
    if (fields.empty()) return size == 1 && data[0] == 0 ? out : rawOf(data, size);
    const uint8_t* cur = data;
    size_t left = size;
    for (const MessageFieldInfo& f : fields) {
        json v;
        if (!readField(fieldTypeOf(f.type), cur, left, v)) return rawOf(data, size);
        out[f.name] = v;
    }
    return left == 0 ? out : rawOf(data, size);
}

bool encodeBody(const std::vector<MessageFieldInfo>& fields, const json& in, std::vector<uint8_t>& out,
                std::string& why) {
    out.clear();
    if (!in.is_object()) return why = "the payload is not a JSON object", false;
    if (!fieldsKnown(fields)) {
        auto raw = in.find("raw");
        if (raw == in.end() || !raw->is_string() || !fromHexText(raw->get<std::string>(), out) || out.empty())
            return why = "this message takes {\"raw\": \"<hex>\"}", false;
        return true;
    }
    for (const MessageFieldInfo& f : fields) {
        auto v = in.find(f.name);
        if (v == in.end()) return why = "missing field " + f.name, false;
        if (!writeField(fieldTypeOf(f.type), *v, out)) return why = "field " + f.name + " is not a " + f.type, false;
    }
    if (fields.empty()) out.push_back(0);
    return true;
}

std::string dumpJson(const json& j) { return j.dump(-1, ' ', false, json::error_handler_t::replace); }

std::string toHexText(const uint8_t* data, size_t size) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    s.reserve(size * 2);
    for (size_t i = 0; i < size; ++i) {
        s += digits[data[i] >> 4];
        s += digits[data[i] & 15];
    }
    return s;
}

bool fromHexText(const std::string& text, std::vector<uint8_t>& out) { return device::parseHex(text, out); }

}  // namespace bridge
