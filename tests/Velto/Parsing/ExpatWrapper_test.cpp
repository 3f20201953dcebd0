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
    std::vector<std::string> ends;    // paths seen at end tags
    std::vector<AttrMap> startAttrs;
    std::string text;                 // all character data, concatenated

    using ExpatWrapper::attrStack;
    using ExpatWrapper::elementStack;
    using ExpatWrapper::skipTillXML;

protected:
    void startElement(const std::string& name, const AttrMap& attrs) override {
        starts.push_back(currentPath());
        startAttrs.push_back(attrs);
        EXPECT_EQ(&attrs, &lastAttrs());
        EXPECT_EQ(path, currentPath());
        if (name == "stop") brokenFile = true;
    }
    void endElement(const std::string&) override { ends.push_back(currentPath()); }
    void cdataHandler(const char* s, size_t len) override { text.append(s, len); }
};

// A well-formed document of exactly `size` bytes whose root holds filler text
// and ends with <last/>.
std::string documentOfSize(size_t size) {
    const std::string head = "<root>";
    const std::string tail = "<last/></root>";
    return head + std::string(size - head.size() - tail.size(), 'x') + tail;
}

}  // namespace

TEST(ExpatWrapperTest, ReportsPathsAttributesAndTextOfNestedElements) {
    TempDir dir;
    const std::string file = dir.file("doc.xml");
    ASSERT_TRUE(writeFile(file, "<?xml version=\"1.0\"?>\n<a x=\"1\"><b y=\"2\" z=\"3\">hi</b><c/></a>"));

    RecordingReader r;
    ASSERT_TRUE(r.parse(file, false));
    EXPECT_EQ(r.starts, (std::vector<std::string>{"/a", "/a/b", "/a/c"}));
    EXPECT_EQ(r.ends, (std::vector<std::string>{"/a/b", "/a/c", "/a"}));
    EXPECT_EQ(r.startAttrs[1], (ExpatWrapper::AttrMap{{"y", "2"}, {"z", "3"}}));
    EXPECT_EQ(r.text, "hi");
    EXPECT_EQ(r.parsingError(), "");

    // After a successful parse no element is open.
    EXPECT_EQ(r.currentPath(), "");
    EXPECT_TRUE(r.lastAttrs().empty());
    RecordingReader other;
    EXPECT_EQ(&r.lastAttrs(), &other.lastAttrs()) << "outside any element: one shared empty map";
}

TEST(ExpatWrapperTest, FailuresLeaveOrSetTheErrorText) {
    TempDir dir;
    const std::string empty = dir.file("empty.xml");
    const std::string broken = dir.file("broken.xml");
    ASSERT_TRUE(writeFile(empty, ""));
    ASSERT_TRUE(writeFile(broken, "<a><b></a>"));

    RecordingReader emptyReader;
    EXPECT_FALSE(emptyReader.parse(empty, false));
    EXPECT_EQ(emptyReader.parsingError(), "") << "the expat message is dropped";

    RecordingReader brokenReader;
    EXPECT_FALSE(brokenReader.parse(broken, false));
    EXPECT_EQ(brokenReader.parsingError(), "");

    const std::string missing = dir.file("missing.xml");
    RecordingReader missingReader;
    EXPECT_FALSE(missingReader.parse(missing, false));
    const std::string expected = "Failed to open XML file: " + missing + " Error: " + strerror(ENOENT);
    EXPECT_EQ(missingReader.parsingError(), expected);

    // A reused reader writes over the earlier text: a longer one keeps its tail.
    const std::string shortMissing = "/nonexistent-x";
    EXPECT_FALSE(missingReader.parse(shortMissing, false));
    const std::string head = "Failed to open XML file: " + shortMissing + " Error: " + strerror(ENOENT);
    ASSERT_LT(head.size(), expected.size());
    EXPECT_EQ(missingReader.parsingError(), head + expected.substr(head.size()));
}

TEST(ExpatWrapperTest, ParsesDocumentsAroundTheChunkSize) {
    TempDir dir;
    for (size_t size : {8191u, 8192u, 8193u, 16384u, 20000u}) {
        const std::string file = dir.file("doc" + std::to_string(size) + ".xml");
        const std::string doc = documentOfSize(size);
        ASSERT_EQ(doc.size(), size);
        ASSERT_TRUE(writeFile(file, doc));
        RecordingReader r;
        EXPECT_TRUE(r.parse(file, false)) << size;
        EXPECT_EQ(r.starts, (std::vector<std::string>{"/root", "/root/last"})) << size;
        EXPECT_EQ(r.text.size(), size - 20) << size;
    }
}

TEST(ExpatWrapperTest, BrokenFileAbandonsParsingAfterTheCurrentChunk) {
    TempDir dir;
    const std::string file = dir.file("doc.xml");
    // <stop/> in the first chunk, <late/> well beyond it.
    ASSERT_TRUE(writeFile(file, "<root><stop/>" + std::string(20000, ' ') + "<late/></root>"));
    RecordingReader r;
    EXPECT_FALSE(r.parse(file, false));
    EXPECT_EQ(r.parsingError(), "XML file structure is broken. Parsing abandoned !");
    EXPECT_EQ(r.starts, (std::vector<std::string>{"/root", "/root/stop"}));
}

TEST(ExpatWrapperTest, SkipFlagFindsTheDeclarationBehindAPreamble) {
    TempDir dir;
    const std::string doc = "<?xml version=\"1.0\"?>\n<root>t</root>\n";
    const std::string preamble = "HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\n\r\n";
    const std::string withPreamble = dir.file("pre.xml");
    ASSERT_TRUE(writeFile(withPreamble, preamble + doc));

    RecordingReader skipping;
    EXPECT_TRUE(skipping.parse(withPreamble, true));
    EXPECT_EQ(skipping.starts, (std::vector<std::string>{"/root"}));
    RecordingReader notSkipping;
    EXPECT_FALSE(notSkipping.parse(withPreamble, false));

    const std::string plain = dir.file("plain.xml");
    ASSERT_TRUE(writeFile(plain, doc));
    RecordingReader atStart;
    EXPECT_TRUE(atStart.parse(plain, true));

    // A line end after "<?xml", a "<" right before it, or no declaration at
    // all: not found, false with the error text unchanged.
    const std::vector<std::string> unfound = {
        preamble + "<?xml\nversion=\"1.0\"?><root/>",
        preamble + "<<?xml version=\"1.0\"?><root/>",
        preamble + "<root/>",
        "",
    };
    for (size_t i = 0; i < unfound.size(); ++i) {
        const std::string file = dir.file("unfound" + std::to_string(i) + ".xml");
        ASSERT_TRUE(writeFile(file, unfound[i]));
        RecordingReader r;
        EXPECT_FALSE(r.parse(file, true)) << i;
        EXPECT_EQ(r.parsingError(), "") << i;
        EXPECT_TRUE(r.starts.empty()) << i;
    }
}

TEST(ExpatWrapperTest, SkipTillXMLStopsJustAfterTheBlank) {
    TempDir dir;
    const std::string file = dir.file("f.txt");
    ASSERT_TRUE(writeFile(file, "ab<x<?xml rest"));
    FILE* f = fopen(file.c_str(), "r");
    ASSERT_NE(f, nullptr);
    EXPECT_TRUE(RecordingReader::skipTillXML(f));
    EXPECT_EQ(ftell(f), 10);
    fclose(f);
}

TEST(ExpatWrapperTest, CallbacksIgnoreNullsAndKeepStacksOnAMismatchedEnd) {
    RecordingReader r;
    const char* atts[] = {"k", "v", nullptr};
    ExpatWrapper::StartElement(nullptr, "a", atts);
    ExpatWrapper::StartElement(&r, nullptr, atts);
    ExpatWrapper::CDataHandler(&r, "x", -1);
    ExpatWrapper::CDataHandler(&r, nullptr, 1);
    EXPECT_TRUE(r.starts.empty());
    EXPECT_EQ(r.text, "");

    ExpatWrapper::StartElement(&r, "a", atts);
    EXPECT_EQ(r.currentPath(), "/a");
    EXPECT_EQ(r.lastAttrs(), (ExpatWrapper::AttrMap{{"k", "v"}}));

    EXPECT_EQ(testsupport::stderrOf([&] { ExpatWrapper::EndElement(&r, "b"); }), "Broken XML file. End element: b does not match the top of the stack: a\n");
    EXPECT_EQ(r.ends, (std::vector<std::string>{"/a"})) << "the handler still runs";
    EXPECT_EQ(r.elementStack.size(), 1u);
    EXPECT_EQ(r.attrStack.size(), 1u);

    ExpatWrapper::EndElement(&r, "a");
    EXPECT_EQ(r.currentPath(), "");
    EXPECT_TRUE(r.attrStack.empty());
}

TEST(ExpatWrapperTest, PackExpatParams) {
    ExpatWrapper::AttrMap out;
    EXPECT_EQ(ExpatWrapper::packExpatParams(nullptr, out), 0);

    const char* repeated[] = {"a", "1", "b", "2", "a", "3", nullptr};
    EXPECT_EQ(ExpatWrapper::packExpatParams(repeated, out), 3);
    EXPECT_EQ(out, (ExpatWrapper::AttrMap{{"a", "3"}, {"b", "2"}}));

    ExpatWrapper::AttrMap partial;
    const char* nullValue[] = {"a", "1", "b", nullptr};
    EXPECT_EQ(ExpatWrapper::packExpatParams(nullValue, partial), 1);
    EXPECT_EQ(partial, (ExpatWrapper::AttrMap{{"a", "1"}}));
}

TEST(ExpatWrapperTest, StringHelpers) {
    const std::map<std::string, std::string> m = {{"k", "v"}, {"e", ""}};
    EXPECT_EQ(valueForKey(m, "k", "d"), "v");
    EXPECT_EQ(valueForKey(m, "e", "d"), "") << "present but empty is not the default";
    EXPECT_EQ(valueForKey(m, "x", "d"), "d");

    EXPECT_EQ(toUpper("aBc-1\xe9"), "ABC-1\xe9");

    const std::string padded = " \t\n inner  text \r\n";
    EXPECT_EQ(strip(padded.c_str(), padded.size()), "inner  text");
    EXPECT_EQ(strip(" \t\n ", 4), "");
    EXPECT_EQ(strip(nullptr, 5), "");
    EXPECT_EQ(strip("abc", 0), "");
    EXPECT_EQ(strip("x", 1), "x");
    EXPECT_EQ(strip("ab  cd", 3), "ab") << "only len bytes are looked at";
}

TEST(ExpatWrapperTest, OneOfMatchesCaseInsensitivelyOrExactly) {
    EXPECT_TRUE(std::string("true") == OneOfCaseInsensitive("1", "Yes", "True"));
    EXPECT_TRUE(std::string("YES") == OneOfCaseInsensitive("1", "Yes", "True"));
    EXPECT_FALSE(std::string("true") == OneOfCaseSensitive("1", "Yes", "True"));
    EXPECT_TRUE(std::string("True") == OneOfCaseSensitive("1", "Yes", "True"));
    EXPECT_FALSE(std::string("") == OneOfCaseInsensitive("1", "Yes", "True"));
    EXPECT_FALSE(std::string("x") == OneOfCaseInsensitive());

    // The list ends at the first null entry, and holds at most six.
    EXPECT_FALSE(std::string("b") == OneOfCaseSensitive("a", nullptr, "b"));
    EXPECT_TRUE(std::string("f") == OneOfCaseSensitive("a", "b", "c", "d", "e", "f"));
}
