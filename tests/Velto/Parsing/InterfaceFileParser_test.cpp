// Interface documents: messages with their fields, structs, meta alerts, and
// the kept oddities (number widths, one key for every struct, text pieces).
#include "Velto/Parsing/InterfaceFileParser.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/test_support.h"

namespace {

InterfaceInformations parseIntf(const std::string& body) {
    testsupport::TempDir dir;
    const std::string file = dir.file("doc.intf");
    EXPECT_TRUE(testsupport::writeFile(file, "<Velto-interface name=\"Light\" def=\"d\">" + body + "</Velto-interface>"));
    InterfaceFileParser parser("en", "ro");
    EXPECT_TRUE(parser.parse(file, false));
    return parser.data();
}

std::vector<std::string> fieldNames(const std::vector<MessageFieldInfo>& fields) {
    std::vector<std::string> names;
    for (const MessageFieldInfo& f : fields) names.push_back(f.name);
    return names;
}

}  // namespace

TEST(InterfaceFileParserTest, MessagesFieldsStructsAndNumberWidths) {
    const InterfaceInformations d = parseIntf(
        "<inherits> Base.1 </inherits><inherits>  </inherits>"
        "<messages>"
        "<message name=\"A\" id=\"3\" type=\"direct\" direction=\"IN\" security=\"2\">"
        "<field name=\"a1\" type=\"uint8\" default=\"255\"/><field name=\"a2\"/></message>"
        "<struct name=\"S1\"><field name=\"s1\"/></struct>"
        "<message name=\"B\" type=\"Notification\" id=\"70000\" security=\"300\"/>"
        "<struct name=\"S2\"><field name=\"t1\"/></struct>"
        "</messages>"
);
    EXPECT_EQ(d.name, "Light");
    EXPECT_EQ(d.inherits, (std::vector<std::string>{"Base.1"}));
    ASSERT_EQ(d.messages.size(), 2u);
    EXPECT_EQ(d.messages[0].type, 2);
    EXPECT_EQ(d.messages[0].direction, 1);
    EXPECT_EQ(d.messages[0].security, 2);
    EXPECT_EQ(fieldNames(d.messages[0].fields), (std::vector<std::string>{"a1", "a2"}));
    EXPECT_EQ(d.messages[0].fields[0].defaultValue, "255");
    EXPECT_EQ(d.messages[1].type, 0) << "kinds are case-sensitive";
    EXPECT_EQ(d.messages[1].id, 4464);  // 16-bit
    EXPECT_EQ(d.messages[1].security, 44);  // 8-bit
    EXPECT_TRUE(d.messages[1].fields.empty());
    // kept: every struct goes under the one key "struct", the last one wins.
    ASSERT_EQ(d.structs.size(), 1u);
    EXPECT_EQ(fieldNames(d.structs.at("struct")), (std::vector<std::string>{"t1"}));
}

TEST(InterfaceFileParserTest, MetaAlertDomainsConditionAndText) {
    const InterfaceInformations d = parseIntf(
        "<intelligence>"
        "<meta_alert notification=\"Fire\" criticality=\"high\" domains=\" a , b,,c ,\">"
        "<condition> temp &gt; 80 </condition>"
        "<text lang=\"ro\">Foc</text><text lang=\"en\">Fire</text></meta_alert>"
        "<meta_alert notification=\"N\"><text lang=\"ro\">Doar</text></meta_alert>"
        "</intelligence>");
    ASSERT_EQ(d.alerts.size(), 2u);
    EXPECT_EQ(d.alerts[0].criticality, "high");
    EXPECT_EQ(d.alerts[0].domains, (std::vector<std::string>{"a", "b", "", "c", ""}));
    EXPECT_EQ(d.alerts[0].condition, "80") << "each text piece assigns; the last piece wins";
    EXPECT_EQ(d.alerts[0].text, "Fire");
    EXPECT_EQ(d.alerts[1].text, "Doar") << "second language";
}
