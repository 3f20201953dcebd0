// The XML reader base: paths, attributes and text handed to the subclass,
// documents across the read chunk, abandoning a broken file, skipping a
// preamble, and the error texts.
#include "Velto/Parsing/ExpatWrapper.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/test_support.h"

using testsupport::TempDir;
using testsupport::writeFile;

namespace {

// Records what the reader reports; sets brokenFile at a start tag named "stop".
class RecordingReader : public ExpatWrapper {
public:
    std::vector<std::string> starts;  // paths seen at start tags
    std::vector<AttrMap> startAttrs;
    std::string text;  // all character data, concatenated

protected:
    void startElement(const std::string& name, const AttrMap& attrs) override {
        starts.push_back(currentPath());
        startAttrs.push_back(attrs);
        if (name == "stop") brokenFile = true;
    }
    void endElement(const std::string&) override {}
    void cdataHandler(const char* s, size_t len) override { text.append(s, len); }
};

}  // namespace

TEST(ExpatWrapperTest, PathsAttributesAndTextAcrossTheChunkSize) {
    TempDir dir;
    for (size_t filler : {2u, 8155u, 20000u}) {  // one chunk, a document of exactly 8192 bytes, several
        const std::string file = dir.file("doc.xml");
        ASSERT_TRUE(writeFile(file, "<a x=\"1\"><b y=\"2\" y2=\"3\">" + std::string(filler, 'h') + "</b><c/></a>"));
        RecordingReader r;
        ASSERT_TRUE(r.parse(file, false)) << filler;
        EXPECT_EQ(r.starts, (std::vector<std::string>{"/a", "/a/b", "/a/c"}));
        EXPECT_EQ(r.startAttrs[1], (ExpatWrapper::AttrMap{{"y", "2"}, {"y2", "3"}}));
        EXPECT_EQ(r.text.size(), filler);
        EXPECT_EQ(r.currentPath(), "");
    }
}

TEST(ExpatWrapperTest, BrokenFileAbandonsParsingAndErrorTexts) {
    TempDir dir;
    const std::string file = dir.file("doc.xml");
    ASSERT_TRUE(writeFile(file, "<root><stop/>" + std::string(20000, ' ') + "<late/></root>"));
    RecordingReader r;
    EXPECT_FALSE(r.parse(file, false));
    EXPECT_EQ(r.parsingError(), "XML file structure is broken. Parsing abandoned !");
    EXPECT_EQ(r.starts, (std::vector<std::string>{"/root", "/root/stop"}));

    const std::string missing = dir.file("missing.xml");
    RecordingReader none;
    EXPECT_FALSE(none.parse(missing, false));
    EXPECT_EQ(none.parsingError(), "Failed to open XML file: " + missing + " Error: " + strerror(ENOENT));
}

TEST(ExpatWrapperTest, SkipFlagFindsTheDeclarationBehindAPreamble) {
    TempDir dir;
    const std::string preamble = "HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\n\r\n";
    const struct {
        std::string doc;
        bool found;
    } cases[] = {{preamble + "<?xml version=\"1.0\"?>\n<root>t</root>\n", true},
                 {"<?xml version=\"1.0\"?><root/>", true},
                 {preamble + "<?xml\nversion=\"1.0\"?><root/>", false},  // a line end after "<?xml"
                 {preamble + "<root/>", false}};
    for (const auto& c : cases) {
        const std::string file = dir.file("doc.xml");
        ASSERT_TRUE(writeFile(file, c.doc));
        RecordingReader r;
        EXPECT_EQ(r.parse(file, true), c.found) << c.doc;
        EXPECT_EQ(r.starts.size(), c.found ? 1u : 0u);
    }
}

