// Message bodies as JSON (every type both ways, the raw fallback, refusals),
// topic levels, and the entity each kind of message becomes.
#include "Bridge/FieldCodec.h"

#include <gtest/gtest.h>

#include "Bridge/Discovery.h"
#include "Bridge/TopicNames.h"

using namespace bridge;
using nlohmann::json;

namespace {

std::vector<MessageFieldInfo> fields(std::initializer_list<const char*> types) {
    std::vector<MessageFieldInfo> out;
    for (const char* t : types) out.push_back(MessageFieldInfo{"f" + std::to_string(out.size()), t, ""});
    return out;
}

std::string encodeHex(const std::vector<MessageFieldInfo>& f, const std::string& in, std::string& why) {
    std::vector<uint8_t> out;
    if (!encodeBody(f, json::parse(in), out, why)) return "refused";
    return toHexText(out.data(), out.size());
}

}  // namespace

TEST(FieldCodec, EveryTypeRoundTripsWithItsExactBytes) {
    struct Case { const char* type; const char* value; const char* hex; } cases[] = {
        {"uint8", "255", "ff"}, {"uint16", "258", "0102"}, {"uint32", "16909060", "01020304"},
        {"uint64", "18446744073709551615", "ffffffffffffffff"}, {"int8", "-1", "ff"}, {"int16", "-2", "fffe"},
        {"int32", "-16909060", "fefdfcfc"}, {"int64", "-9223372036854775808", "8000000000000000"},
        {"bool", "true", "01"}, {"bool", "false", "00"}, {"string", "\"hi\"", "686900"},
        {"bytes", "\"beef\"", "02beef"},
    };
    for (const Case& c : cases) {
        std::string why;
        std::string in = std::string("{\"f0\": ") + c.value + "}";
        EXPECT_EQ(c.hex, encodeHex(fields({c.type}), in, why)) << c.type << " " << why;
        std::vector<uint8_t> bytes;
        ASSERT_TRUE(fromHexText(c.hex, bytes));
        EXPECT_EQ(json::parse(in), decodeBody(fields({c.type}), bytes.data(), bytes.size())) << c.type;
    }
}

TEST(FieldCodec, BadValuesAreRefusedWithAReason) {
    struct Case { std::initializer_list<const char*> types; const char* in; const char* why; } cases[] = {
        {{"uint8"}, "{\"f0\": 256}", "field f0 is not a uint8"},
        {{"int8"}, "{\"f0\": -129}", "field f0 is not a int8"},
        {{"uint16"}, "{\"f0\": -1}", "field f0 is not a uint16"},
        {{"bool"}, "{\"f0\": 1}", "field f0 is not a bool"},
        {{"string"}, "{\"f0\": 5}", "field f0 is not a string"},
        {{"bytes"}, "{\"f0\": \"abc\"}", "field f0 is not a bytes"},
        {{"uint8", "bool"}, "{\"f0\": 1}", "missing field f1"},
        {{"uint8"}, "[1]", "the payload is not a JSON object"},
        {{"float"}, "{\"f0\": 1}", "this message takes {\"raw\": \"<hex>\"}"},
    };
    for (const Case& c : cases) {
        std::string why;
        EXPECT_EQ("refused", encodeHex(fields(c.types), c.in, why)) << c.in;
        EXPECT_EQ(c.why, why);
    }
}

// Unknown types, short or long bodies and bad bools come out raw; a message
// without fields is one zero byte.
TEST(FieldCodec, WhatDoesNotDecodeIsRaw) {
    std::string why;
    EXPECT_EQ("0a0b", encodeHex(fields({"float"}), "{\"raw\": \"0A0b\"}", why));
    EXPECT_EQ("00", encodeHex(fields({}), "{}", why));
    const uint8_t body[] = {0, 2, 5};
    EXPECT_EQ(json({{"raw", "000205"}}), decodeBody(fields({"float"}), body, 3));
    EXPECT_EQ(json({{"raw", "0002"}}), decodeBody(fields({"uint8"}), body, 2));
    EXPECT_EQ(json({{"raw", "0002"}}), decodeBody(fields({"uint32"}), body, 2));
    EXPECT_EQ(json({{"raw", "02"}}), decodeBody(fields({"bool"}), body + 1, 1));
    EXPECT_EQ(json({{"raw", "0205"}}), decodeBody(fields({"bytes"}), body + 1, 2));
    EXPECT_EQ(json::object(), decodeBody(fields({}), body, 1));
}

TEST(TopicNames, LevelsAndIdsKeepOnlyTheirAlphabet) {
    EXPECT_EQ("lamp-01_x.y", topicLevel("lamp-01_x.y"));
    EXPECT_EQ("a_b_c_d_e", topicLevel("a/b+c#d e"));
    EXPECT_EQ("_", topicLevel(""));
    EXPECT_EQ("x_y", discoveryId("x.y"));
    TopicNames t("velto", "homeassistant");
    EXPECT_EQ("velto/a_b/light/st_te/set", t.set("a/b", "light", "st+te"));
    EXPECT_EQ("homeassistant/switch/velto_lamp_1/li_ght_on/config", t.config("switch", "lamp.1", "li ght", "on"));
}

TEST(Discovery, EachKindOfMessageBecomesItsEntity) {
    struct Case { uint8_t kind, direction; std::initializer_list<const char*> types; const char* entity; } cases[] = {
        {1, 2, {"uint8", "bool"}, "sensor"}, {1, 0, {"float"}, "sensor"}, {2, 1, {}, "button"},
        {2, 1, {"int16"}, "number"}, {2, 1, {"bool"}, "switch"}, {2, 1, {"string"}, "text"},
        {2, 1, {"bytes"}, ""}, {2, 1, {"bool", "bool"}, ""}, {2, 2, {"bool"}, ""}, {2, 1, {"float"}, ""},
    };
    for (const Case& c : cases) {
        VeltoMessageInfo m;
        m.type = c.kind, m.direction = c.direction, m.fields = fields(c.types);
        EXPECT_EQ(c.entity, componentFor(m)) << int(c.kind) << " " << m.fields.size();
    }
}
