// Specification documents: every section read, and the kept oddities (clients
// filtered by an eight-bit level, a dropped client's reason moving up, text
// pieces that assign, the description's language choice).
#include "Velto/Parsing/SpecFileParser.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/test_support.h"

namespace {

SpecFileData parseSpec(const std::string& xml, const std::string& lang1 = "en",
                       const std::string& lang2 = "en") {
    testsupport::TempDir dir;
    const std::string file = dir.file("doc.spec");
    EXPECT_TRUE(testsupport::writeFile(file, xml));
    SpecFileParser parser(lang1, lang2);
    EXPECT_TRUE(parser.parse(file, false));
    return parser.data();
}

std::string inInfo(const std::string& body) { return "<Velto-spec><info>" + body + "</info></Velto-spec>"; }

}  // namespace

TEST(SpecFileParserTest, ReadsACompleteDocument) {
    const SpecFileData d = parseSpec(
        "<?xml version=\"1.0\"?>\n<Velto-spec><info>\n"
        "  <specs> acme.example/Velto/specs/Lamp.1 </specs>\n"
        "  <signature capable=\"yes\" required=\"1\">"
        "<algorithm name=\"HMAC-SHA256\" id=\"2\" preference=\"5\" security=\"3\"/><algorithm/></signature>\n"
        "  <encryption capable=\"True\"><algorithm name=\"XOR\" id=\"1\"/></encryption>\n"
        "  <configurations><param name=\"period\" value=\"10\"/><param name=\"period\" value=\"20\"/>"
        "</configurations>\n"
        "  <dev_params><param name=\"color\" value=\"red\"/></dev_params>\n"
        " </info>\n"
        " <interfaces><interface name=\"Light\" intf=\"std/Light.1\"/><interface name=\"Lamp\"/></interfaces>\n"
        " <clients><client spec=\"s\" interface=\"i.1\" level=\"2\" required=\"TRUE\"/></clients>\n"
        "</Velto-spec>\n");
    EXPECT_EQ(d.specs, "acme.example/Velto/specs/Lamp.1");
    EXPECT_TRUE(d.ableSig && d.requireSig && d.ableEnc);
    EXPECT_FALSE(d.requireEnc);
    ASSERT_EQ(d.sigAlgs.size(), 2u);
    EXPECT_EQ(d.sigAlgs[0].id, 2);
    EXPECT_EQ(d.sigAlgs[0].security, 3);
    EXPECT_EQ(d.sigAlgs[1].preference, 1);  // defaults
    EXPECT_EQ(d.config, (std::map<std::string, std::string>{{"period", "20"}}));
    EXPECT_EQ(d.params, (std::map<std::string, std::string>{{"color", "red"}}));
    // An interface without intf is named after the specs seen so far.
    EXPECT_EQ(d.expInterfaces, (std::map<std::string, std::string>{
                                   {"Light", "std/Light.1"}, {"Lamp", "acme.example/Velto/specs/Lamp.1/Lamp"}}));
    ASSERT_EQ(d.clientFor.size(), 1u);
    EXPECT_EQ(d.clientFor[0].level, 2);
    EXPECT_TRUE(d.clientFor[0].required);
}

TEST(SpecFileParserTest, ClientsFilteredByEightBitLevelAndDroppedReasonGoesUp) {
    const SpecFileData d = parseSpec(
        "<Velto-spec><clients>"
        "<client interface=\"a\"/>"
        "<client interface=\"b\" level=\"260\"><reason>dropped one</reason></client>"
        "<client interface=\"c\" level=\"259\"/>"
        "<client level=\"1\"/>"
        "</clients></Velto-spec>");
    ASSERT_EQ(d.clientFor.size(), 2u);
    EXPECT_EQ(d.clientFor[0].reason, "dropped one");
    EXPECT_EQ(d.clientFor[1].interface, "c");
    EXPECT_EQ(d.clientFor[1].level, 3);
}

TEST(SpecFileParserTest, DescriptionLanguageAndTextPieces) {
    const std::string two = inInfo("<desc lang=\"fr\">Bonjour</desc><desc lang=\"en\">Hello</desc>");
    EXPECT_EQ(parseSpec(two, "de", "fr").description, "Bonjour") << "second choice";
    EXPECT_EQ(parseSpec(two, "de", "it").description, "Hello") << "smallest code in map order";
    // kept: expat hands "first&amp;last" over in three pieces and each assigns.
    EXPECT_EQ(parseSpec(inInfo("<specs>first&amp;last</specs>")).specs, "last");
}
