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
    const int64_t diff = -1500;
    std::ostringstream expected;
    expected << "id " << unsigned(raw) << " raw " << raw << " c " << 'x' << static_cast<signed char>('y') << " b "
             << true << false << " s " << short(-7) << " us " << uint16_t(65535) << " i " << INT_MIN << " u "
             << UINT_MAX << " l " << LONG_MIN << " ul " << ULONG_MAX << " ll " << LLONG_MAX << " ull " << 0ull
             << " d " << diff << " at " << peer << " txt " << std::string("str") << '\n';
    std::ostringstream got;
    LogLine(got) << "id " << unsigned(raw) << " raw " << raw << " c " << 'x' << static_cast<signed char>('y')
                 << " b " << true << false << " s " << short(-7) << " us " << uint16_t(65535) << " i " << INT_MIN
                 << " u " << UINT_MAX << " l " << LONG_MIN << " ul " << ULONG_MAX << " ll " << LLONG_MAX << " ull "
                 << 0ull << " d " << diff << " at " << peer << " txt " << std::string("str") << '\n';
    EXPECT_EQ(expected.str(), got.str());
}

TEST(LogLineTest, OneWritePerLineAndLongLinesWholeInOrder) {
    CountingBuf buf;
    std::ostream os(&buf);
    {
        LogLine line(os);
        line << "a=" << 1 << " b=" << 2u << '\n';
        EXPECT_EQ(0, buf.writes) << "nothing goes out before the line ends";
    }
    EXPECT_EQ(1, buf.writes);
    EXPECT_EQ("a=1 b=2\n", buf.str());

    std::string longText;
    for (int i = 0; i < 300; ++i) longText += static_cast<char>('a' + i % 26);
    {
        LogLine line(os);
        line << "<" << longText << ">" << 12345 << longText << '\n';
        line.end();
        line.end();  // nothing left: no empty write
        line << "second\n";
    }
    EXPECT_EQ("a=1 b=2\n<" + longText + ">12345" + longText + "\nsecond\n", buf.str());
    EXPECT_LE(buf.writes, 1 + 4 + 1);

    std::ostringstream nothing;
    LogLine(nothing) << static_cast<const char*>(nullptr) << "" << '\n';
    EXPECT_EQ("\n", nothing.str());
}
