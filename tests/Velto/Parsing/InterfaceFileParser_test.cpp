#include "Velto/Parsing/InterfaceFileParser.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/test_support.h"

using testsupport::TempDir;
using testsupport::writeFile;

namespace {

struct Parsed {
    bool ok = false;
    InterfaceInformations data;
};

Parsed parseIntf(const std::string& xml, const std::string& lang1 = "en",
                 const std::string& lang2 = "ro") {
    TempDir dir;
    const std::string file = dir.file("doc.intf");
    Parsed out;
    if (!writeFile(file, xml)) return out;
    InterfaceFileParser parser(lang1, lang2);
    out.ok = parser.parse(file, false);
    out.data = parser.data();
    return out;
}

std::string inRoot(const std::string& body) {
    return "<Velto-interface name=\"Light\" def=\"d\">" + body + "</Velto-interface>";
}

std::vector<std::string> fieldNames(const std::vector<MessageFieldInfo>& fields) {
    std::vector<std::string> names;
    for (const MessageFieldInfo& f : fields) names.push_back(f.name);
    return names;
}

}  // namespace

TEST(InterfaceFileParserTest, ReadsACompleteDocument) {
    const Parsed p = parseIntf(
        "<?xml version=\"1.0\"?>\n"
        "<Velto-interface name=\"Light.1\" def=\"std\">\n"
        " <description>Switches a light</description>\n"
        " <inherits> Base.1 </inherits>\n"
        " <inherits>   </inherits>\n"
        " <inherits>Named.2</inherits>\n"
        " <messages>\n"
        "  <message name=\"On\" id=\"3\" type=\"direct\" direction=\"IN\" security=\"2\">\n"
        "   <field name=\"level\" type=\"uint8\" default=\"255\"/>\n"
        "  </message>\n"
        "  <message name=\"State\" id=\"4\" type=\"notification\" direction=\"OUT\"/>\n"
        " </messages>\n"
        " <methods><method name=\"toggle\" input=\"none\" output=\"bool\"/></methods>\n"
        " <field name=\"stray\"/>\n"
        "</Velto-interface>\n");
    ASSERT_TRUE(p.ok);
    const InterfaceInformations& d = p.data;
    EXPECT_EQ(d.name, "Light.1");
    EXPECT_EQ(d.def, "std");
    EXPECT_EQ(d.description, "");
    EXPECT_EQ(d.inherits, (std::vector<std::string>{"Base.1", "Named.2"}));

    ASSERT_EQ(d.messages.size(), 2u);
    EXPECT_EQ(d.messages[0].name, "On");
    EXPECT_EQ(d.messages[0].id, 3);
    EXPECT_EQ(d.messages[0].type, 2);
    EXPECT_EQ(d.messages[0].direction, 1);
    EXPECT_EQ(d.messages[0].security, 2);
    ASSERT_EQ(d.messages[0].fields.size(), 1u);
    EXPECT_EQ(d.messages[0].fields[0].type, "uint8");
    EXPECT_EQ(d.messages[0].fields[0].defaultValue, "255");
    EXPECT_EQ(d.messages[1].type, 1);
    EXPECT_EQ(d.messages[1].direction, 2);
    EXPECT_EQ(d.messages[1].security, 1) << "default security";
    EXPECT_TRUE(d.messages[1].fields.empty());

    ASSERT_EQ(d.methods.size(), 1u);
    EXPECT_EQ(d.methods[0].name, "toggle");
    EXPECT_EQ(d.methods[0].input, "none");
    EXPECT_EQ(d.methods[0].output, "bool");
    EXPECT_TRUE(d.structs.empty());
}

TEST(InterfaceFileParserTest, MessageKindDirectionAndNumberWidths) {
    const Parsed p = parseIntf(inRoot(
        "<messages>"
        "<message type=\"Notification\" direction=\"in\" id=\"70000\" security=\"300\"/>"
        "<message type=\"DIRECT\" id=\"-1\"/>"
        "<message id=\"x\"/>"
        "</messages>"));
    ASSERT_EQ(p.data.messages.size(), 3u);
    EXPECT_EQ(p.data.messages[0].type, 0) << "kinds are case-sensitive";
    EXPECT_EQ(p.data.messages[0].direction, 0);
    EXPECT_EQ(p.data.messages[0].id, 4464);
    EXPECT_EQ(p.data.messages[0].security, 44);
    EXPECT_EQ(p.data.messages[1].type, 0);
    EXPECT_EQ(p.data.messages[1].id, -1);
    EXPECT_EQ(p.data.messages[2].id, 0);
    EXPECT_EQ(p.data.messages[2].name, "");
}

TEST(InterfaceFileParserTest, FieldsBelongToTheirMessageAndStructsShareOneKey) {
    const Parsed p = parseIntf(inRoot(
        "<messages>"
        "<message name=\"A\"><field name=\"a1\"/><field name=\"a2\"/><field name=\"a3\"/></message>"
        "<struct name=\"S1\"><field name=\"s1\"/></struct>"
        "<message name=\"B\"/>"
        "<struct name=\"S2\"><field name=\"t1\" type=\"int\"/><field name=\"t2\"/></struct>"
        "<message name=\"C\"><field name=\"c1\"/></message>"
        "</messages>"));
    ASSERT_TRUE(p.ok);
    ASSERT_EQ(p.data.messages.size(), 3u);
    EXPECT_EQ(fieldNames(p.data.messages[0].fields), (std::vector<std::string>{"a1", "a2", "a3"}));
    EXPECT_TRUE(p.data.messages[1].fields.empty());
    EXPECT_EQ(fieldNames(p.data.messages[2].fields), (std::vector<std::string>{"c1"}));

    ASSERT_EQ(p.data.structs.size(), 1u);
    ASSERT_EQ(p.data.structs.count("struct"), 1u);
    EXPECT_EQ(fieldNames(p.data.structs.at("struct")), (std::vector<std::string>{"t1", "t2"}));
    EXPECT_EQ(p.data.structs.at("struct")[0].type, "int");
}

TEST(InterfaceFileParserTest, MetaAlertDomainsConditionAndText) {
    const Parsed p = parseIntf(inRoot(
        "<intelligence>"
        "<meta_alert notification=\"Fire\" criticality=\"high\" domains=\"lights\">"
        "<condition> temp &gt; 80 </condition>"
        "<text lang=\"ro\">Foc</text><text lang=\"en\">Fire</text></meta_alert>"
        "<meta_alert notification=\"N\"><text lang=\"ro\">Doar</text></meta_alert>"
        "<meta_alert domains=\" a , b,,c ,\"><text>plain</text><text lang=\"fr\">feu</text></meta_alert>"
        "</intelligence>"));
    ASSERT_TRUE(p.ok);
    ASSERT_EQ(p.data.alerts.size(), 3u);
    const MetaAlert& first = p.data.alerts[0];
    EXPECT_EQ(first.notification, "Fire");
    EXPECT_EQ(first.criticality, "high");
    EXPECT_EQ(first.domains, (std::vector<std::string>{"lights"}));
    EXPECT_EQ(first.condition, "80") << "each text piece assigns; the last piece wins";
    EXPECT_EQ(first.text, "Fire");

    EXPECT_EQ(p.data.alerts[1].domains, (std::vector<std::string>{""}));
    EXPECT_EQ(p.data.alerts[1].text, "Doar") << "second language";
    EXPECT_EQ(p.data.alerts[1].condition, "");

    // Commas split the value into stripped pieces, empty pieces included.
    EXPECT_EQ(p.data.alerts[2].domains, (std::vector<std::string>{"a", "b", "", "c", ""}));
    EXPECT_EQ(p.data.alerts[2].text, "plain") << "untagged text sorts first";
}

TEST(InterfaceFileParserTest, MalformedDocumentFailsButKeepsWhatWasCollected) {
    const Parsed p = parseIntf(inRoot("<messages><message name=\"A\" id=\"5\"></messages>"));
    EXPECT_FALSE(p.ok);
    EXPECT_EQ(p.data.name, "Light");
    ASSERT_EQ(p.data.messages.size(), 1u);
    EXPECT_EQ(p.data.messages[0].id, 5);
}
