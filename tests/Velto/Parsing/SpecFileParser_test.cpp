#include "Velto/Parsing/SpecFileParser.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/test_support.h"

using testsupport::TempDir;
using testsupport::writeFile;

namespace {

struct Parsed {
    bool ok = false;
    SpecFileData data;
};

Parsed parseSpec(const std::string& xml, const std::string& lang1 = "en",
                 const std::string& lang2 = "en") {
    TempDir dir;
    const std::string file = dir.file("doc.spec");
    Parsed out;
    if (!writeFile(file, xml)) return out;
    SpecFileParser parser(lang1, lang2);
    out.ok = parser.parse(file, false);
    out.data = parser.data();
    return out;
}

std::string inInfo(const std::string& body) {
    return "<Velto-spec><info>" + body + "</info></Velto-spec>";
}

}  // namespace

TEST(SpecFileParserTest, ReadsACompleteDocument) {
    const Parsed p = parseSpec(
        "<?xml version=\"1.0\"?>\n"
        "<Velto-spec>\n"
        " <info>\n"
        "  <specs> acme.example/Velto/specs/Lamp.1 </specs>\n"
        "  <desc lang=\"en\">A lamp</desc>\n"
        "  <signature capable=\"yes\" required=\"1\">\n"
        "   <algorithm name=\"HMAC-SHA256\" id=\"2\" preference=\"5\" security=\"3\"/>\n"
        "   <algorithm name=\"HMAC-SHA1\" id=\"1\"/>\n"
        "  </signature>\n"
        "  <encryption capable=\"True\"><algorithm name=\"XOR\" id=\"1\"/></encryption>\n"
        "  <configurations><param name=\"period\" value=\"10\"/><param name=\"period\" value=\"20\"/>"
        "<param value=\"nameless\"/></configurations>\n"
        "  <dev_params><param name=\"color\" value=\"red\"/></dev_params>\n"
        "  <unknown><param name=\"ignored\" value=\"1\"/></unknown>\n"
        " </info>\n"
        " <desc lang=\"en\">outside info</desc>\n"
        " <interfaces><interface name=\"Light\" intf=\"acme.example/Velto/specs/std/Light.1\" "
        "extra=\"x\"/></interfaces>\n"
        " <clients><client spec=\"s\" interface=\"i.1\" level=\"2\" required=\"TRUE\">"
        "<reason lang=\"en\">to switch</reason></client></clients>\n"
        "</Velto-spec>\n");
    ASSERT_TRUE(p.ok);
    const SpecFileData& d = p.data;
    EXPECT_EQ(d.specs, "acme.example/Velto/specs/Lamp.1");
    EXPECT_EQ(d.description, "A lamp");
    EXPECT_TRUE(d.ableSig);
    EXPECT_TRUE(d.requireSig);
    EXPECT_TRUE(d.ableEnc);
    EXPECT_FALSE(d.requireEnc);

    ASSERT_EQ(d.sigAlgs.size(), 2u);
    EXPECT_EQ(d.sigAlgs[0].name, "HMAC-SHA256");
    EXPECT_EQ(d.sigAlgs[0].id, 2);
    EXPECT_EQ(d.sigAlgs[0].preference, 5);
    EXPECT_EQ(d.sigAlgs[0].security, 3);
    EXPECT_EQ(d.sigAlgs[1].name, "HMAC-SHA1");
    ASSERT_EQ(d.encAlgs.size(), 1u);
    EXPECT_EQ(d.encAlgs[0].name, "XOR");

    EXPECT_EQ(d.config, (std::map<std::string, std::string>{{"period", "20"}}));
    EXPECT_EQ(d.params, (std::map<std::string, std::string>{{"color", "red"}}));
    EXPECT_EQ(d.expInterfaces,
              (std::map<std::string, std::string>{{"Light", "acme.example/Velto/specs/std/Light.1"}}));

    ASSERT_EQ(d.clientFor.size(), 1u);
    EXPECT_EQ(d.clientFor[0].specs, "s");
    EXPECT_EQ(d.clientFor[0].interface, "i.1");
    EXPECT_EQ(d.clientFor[0].level, 2);
    EXPECT_TRUE(d.clientFor[0].required);
    EXPECT_EQ(d.clientFor[0].reason, "to switch");
}

TEST(SpecFileParserTest, SignatureAndEncryptionFlags) {
    const Parsed none = parseSpec(inInfo(""));
    ASSERT_TRUE(none.ok);
    EXPECT_FALSE(none.data.ableSig || none.data.requireSig || none.data.ableEnc || none.data.requireEnc);

    // Without attributes: able to sign, unable to encrypt, nothing required.
    const Parsed bare = parseSpec(inInfo("<signature/><encryption/>"));
    ASSERT_TRUE(bare.ok);
    EXPECT_TRUE(bare.data.ableSig);
    EXPECT_FALSE(bare.data.requireSig);
    EXPECT_FALSE(bare.data.ableEnc);
    EXPECT_FALSE(bare.data.requireEnc);

    const Parsed mixed = parseSpec(inInfo("<signature required=\"YES\" capable=\"false\"/>"));
    EXPECT_TRUE(mixed.data.requireSig);
    EXPECT_FALSE(mixed.data.ableSig);

    // An unknown value leaves the flag as an earlier element set it.
    const Parsed maybe = parseSpec(inInfo(
        "<signature required=\"yes\"/><signature required=\"maybe\" capable=\"maybe\"/>"
        "<encryption capable=\"1\" required=\"1\"/><encryption capable=\"no\" required=\"?\"/>"));
    EXPECT_TRUE(maybe.data.requireSig);
    EXPECT_TRUE(maybe.data.ableSig);
    EXPECT_FALSE(maybe.data.ableEnc);
    EXPECT_TRUE(maybe.data.requireEnc);
}

TEST(SpecFileParserTest, AlgorithmDefaults) {
    const Parsed p = parseSpec(inInfo(
        "<signature><algorithm/></signature>"
        "<encryption><algorithm id=\"abc\" preference=\"-2\" security=\"7x\"/></encryption>"));
    ASSERT_EQ(p.data.sigAlgs.size(), 1u);
    EXPECT_EQ(p.data.sigAlgs[0].name, "");
    EXPECT_EQ(p.data.sigAlgs[0].id, 0);
    EXPECT_EQ(p.data.sigAlgs[0].preference, 1);
    EXPECT_EQ(p.data.sigAlgs[0].security, 1);
    ASSERT_EQ(p.data.encAlgs.size(), 1u);
    EXPECT_EQ(p.data.encAlgs[0].id, 0);
    EXPECT_EQ(p.data.encAlgs[0].preference, -2);
    EXPECT_EQ(p.data.encAlgs[0].security, 7);
}

TEST(SpecFileParserTest, InterfaceIdentifierDerivesFromTheSpecsSeenSoFar) {
    const Parsed after = parseSpec(
        "<Velto-spec><info><specs>std/Light.1</specs></info>"
        "<interfaces><interface name=\"Lamp\"/><interface name=\"Dim\" intf=\"a\"/>"
        "<interface name=\"Dim\" intf=\"b\"/></interfaces></Velto-spec>");
    EXPECT_EQ(after.data.expInterfaces,
              (std::map<std::string, std::string>{{"Lamp", "std/Light.1/Lamp"}, {"Dim", "b"}}));

    const Parsed before = parseSpec(
        "<Velto-spec><interfaces><interface name=\"Lamp\"/></interfaces>"
        "<info><specs>std/Light.1</specs></info></Velto-spec>");
    EXPECT_EQ(before.data.expInterfaces.at("Lamp"), "/Lamp");
    EXPECT_EQ(before.data.specs, "std/Light.1");
}

TEST(SpecFileParserTest, ClientsAreFilteredByInterfaceAndEightBitLevel) {
    const Parsed p = parseSpec(
        "<Velto-spec><clients>"
        "<client interface=\"a\" level=\"4\"/>"
        "<client interface=\"b\" level=\"260\"/>"
        "<client interface=\"c\" level=\"259\" required=\"no\"/>"
        "<client level=\"1\"/>"
        "<client interface=\"d\"/>"
        "</clients></Velto-spec>");
    ASSERT_EQ(p.data.clientFor.size(), 2u);
    EXPECT_EQ(p.data.clientFor[0].interface, "c");
    EXPECT_EQ(p.data.clientFor[0].level, 3);
    EXPECT_FALSE(p.data.clientFor[0].required);
    EXPECT_EQ(p.data.clientFor[1].interface, "d");
    EXPECT_EQ(p.data.clientFor[1].level, 1) << "default level";
    EXPECT_EQ(p.data.clientFor[1].specs, "");
}

TEST(SpecFileParserTest, ReasonOfADroppedClientGoesToThePreviousEntry) {
    const Parsed p = parseSpec(
        "<Velto-spec><clients>"
        "<client interface=\"a\"/>"
        "<client interface=\"b\" level=\"9\"><reason>dropped one</reason></client>"
        "<client interface=\"c\"><reason lang=\"ro\">motiv</reason><reason>plain</reason></client>"
        "</clients></Velto-spec>");
    ASSERT_EQ(p.data.clientFor.size(), 2u);
    EXPECT_EQ(p.data.clientFor[0].reason, "dropped one");
    EXPECT_EQ(p.data.clientFor[1].reason, "plain") << "untagged text sorts first";
}

TEST(SpecFileParserTest, DescriptionLanguageChoice) {
    const std::string two = inInfo("<desc lang=\"fr\">Bonjour</desc><desc lang=\"en\">Hello</desc>");
    EXPECT_EQ(parseSpec(two, "en", "en").data.description, "Hello");
    EXPECT_EQ(parseSpec(two, "de", "fr").data.description, "Bonjour") << "second choice";
    // Neither preferred language: the smallest language code in map order.
    EXPECT_EQ(parseSpec(two, "de", "it").data.description, "Hello");
    const std::string frIt = inInfo("<desc lang=\"it\">Ciao</desc><desc lang=\"fr\">Bonjour</desc>");
    EXPECT_EQ(parseSpec(frIt, "de", "es").data.description, "Bonjour");

    // White space only adds nothing, so it does not hide the other language.
    const std::string blank = inInfo("<desc lang=\"en\">  \n\t </desc><desc lang=\"fr\">Bonjour</desc>");
    EXPECT_EQ(parseSpec(blank).data.description, "Bonjour");
    EXPECT_EQ(parseSpec(inInfo("<desc> \n </desc>")).data.description, "");
}

TEST(SpecFileParserTest, TextPiecesAssignSoTheLastPieceWins) {
    // expat hands "a&amp;b" over in three pieces.
    const Parsed p = parseSpec(inInfo("<specs>first&amp;last</specs>"));
    ASSERT_TRUE(p.ok);
    EXPECT_EQ(p.data.specs, "last");
}

TEST(SpecFileParserTest, MalformedDocumentFailsButKeepsWhatWasCollected) {
    const Parsed p = parseSpec("<Velto-spec><info><specs>id.1</specs><signature></info></Velto-spec>");
    EXPECT_FALSE(p.ok);
    EXPECT_EQ(p.data.specs, "id.1");
    EXPECT_TRUE(p.data.ableSig);

    SpecFileParser missing("en", "en");
    EXPECT_FALSE(missing.parse("/nonexistent-dir/doc.spec", false));
    EXPECT_EQ(missing.data().specs, "");
}
