// LogLine against the stream it replaces: the same text for every kind of
// field, lines longer than its buffer whole and in order, one write per line.
#include "Hub/log_line.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <sstream>
#include <string>

namespace {

// Counts the writes that reach it.
class CountingBuf : public std::stringbuf {
public:
    int writes = 0;

protected:
    std::streamsize xsputn(const char* s, std::streamsize n) override {
        ++writes;
        return std::stringbuf::xsputn(s, n);
    }
};

}  // namespace

TEST(LogLineTest, WritesWhatTheStreamWouldWrite) {
    const SockAddress peer("10.1.2.3", 1881);
    const uint8_t raw = 'A';
    std::ostringstream expected, got;
    expected << raw << static_cast<signed char>('y') << true << short(-7) << INT_MIN << ULONG_MAX << LLONG_MAX
             << int64_t(-1500) << ' ' << peer << std::string("str") << '\n';
    LogLine(got) << raw << static_cast<signed char>('y') << true << short(-7) << INT_MIN << ULONG_MAX << LLONG_MAX
                 << int64_t(-1500) << ' ' << peer << std::string("str") << '\n';
    EXPECT_EQ(expected.str(), got.str());
}

TEST(LogLineTest, OneWritePerLineAndLongLinesWholeInOrder) {
    CountingBuf buf;
    std::ostream os(&buf);
    std::string longText;
    for (int i = 0; i < 300; ++i) longText += static_cast<char>('a' + i % 26);
    {
        LogLine line(os);
        line << "a=" << 1 << '\n';
        EXPECT_EQ(0, buf.writes) << "nothing goes out before the line ends";
        line.end();
        EXPECT_EQ(1, buf.writes);
        line.end();  // nothing left: no empty write
        EXPECT_EQ(1, buf.writes);
        line << "<" << longText << ">" << 12345 << longText << '\n';
    }
    EXPECT_EQ("a=1\n<" + longText + ">12345" + longText + "\n", buf.str());
}
