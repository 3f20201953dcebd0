// XML reader: the abstract base of the document parsers. It opens one file,
// feeds it to the expat stream parser in 8192-byte chunks (the whole document
// is never held in memory), keeps the stack of open elements with their
// attributes, computes the slash-separated path of the current element and
// calls three virtual handlers that a subclass implements.
//
// Failures are reported by parse() returning false and by parsingError(); no
// exceptions. Bad input (malformed XML, unreadable file) never crashes.
//
// Also home of small string helpers used by both parsers for attribute
// handling: valueForKey, toUpper, strip, OneOfCaseInsensitive/OneOfCaseSensitive.
#pragma once

#include <cstddef>
#include <cstdio>
#include <deque>
#include <map>
#include <stack>
#include <string>
#include <vector>

class ExpatWrapper {
public:
    typedef std::map<std::string, std::string> AttrMap;

    // Built empty: no open element, brokenFile false, error and path empty.
    ExpatWrapper();
    virtual ~ExpatWrapper();
    ExpatWrapper(const ExpatWrapper&) = delete;
    ExpatWrapper& operator=(const ExpatWrapper&) = delete;

    // Parses one file. With skip true, everything in front of the first
    // "<?xml " is skipped first. Returns true when the whole file was parsed
    // without an XML error and no handler set brokenFile; false otherwise
    // (see parsingError()).
    bool parse(const std::string& fileName, bool skip);

    // The text of the last failure; empty when none was recorded (an XML
    // syntax error leaves it unchanged).
    std::string parsingError();

    // "/" + the open element names joined with "/" (e.g. "/a/b"); "" when no
    // element is open.
    std::string currentPath() const;

    // The attributes of the innermost open element; a shared empty map when
    // no element is open.
    const AttrMap& lastAttrs();

    // The expat callbacks; userData is the ExpatWrapper. Each does nothing
    // when userData or the text pointer is null (or len is negative).
    static void StartElement(void* userData, const char* name, const char** atts);
    static void EndElement(void* userData, const char* name);
    static void CDataHandler(void* userData, const char* s, int len);

    // Copies expat's alternating name/value list into out (a repeated name
    // keeps the last value), stopping at the first null name or value.
    // Returns the number of pairs copied; 0 for a null list.
    static int packExpatParams(const char** atts, AttrMap& out);

protected:
    // Called for every start tag, after the element and its attributes were
    // pushed (currentPath() ends with name).
    virtual void startElement(const std::string& name, const AttrMap& attrs) = 0;
    // Called for every end tag, before the element is popped (currentPath()
    // still ends with it).
    virtual void endElement(const std::string& name) = 0;
    // Called for every piece of character data; one element's text may come
    // in several pieces.
    virtual void cdataHandler(const char* text, size_t length) = 0;

    // Reads f byte by byte until just after "<?xml " (true) or end of file
    // (false). Kept: a byte that breaks a partial match is not reconsidered
    // as a new start, so "<<?xml " is not found.
    static bool skipTillXML(FILE* f);

    std::vector<std::string> elementStack;
    // A handler sets it to abandon parsing after the current chunk.
    bool brokenFile;
    std::string error;
    std::stack<AttrMap, std::deque<AttrMap>> attrStack;
    // The path of the current element, refreshed at every start and end tag.
    std::string path;
};

// The value mapped to key, or def when key is absent.
std::string valueForKey(const std::map<std::string, std::string>& map, const std::string& key,
                        const std::string& def);

// A copy with every byte passed through toupper.
std::string toUpper(const std::string& s);

// The text between the first and the last byte of s[0..len) that is not white
// space; "" when s is null, len is 0 or every byte is white space.
std::string strip(const char* s, size_t len);

// A list of up to six strings for `text == OneOfCaseInsensitive("Yes", "True")`.
// The list ends at the first null entry or after the sixth. The pointers are
// kept, not copied: pass literals or strings that outlive the object.
struct OneOfCaseInsensitive {
    explicit OneOfCaseInsensitive(const char* s1 = nullptr, const char* s2 = nullptr,
                                  const char* s3 = nullptr, const char* s4 = nullptr,
                                  const char* s5 = nullptr, const char* s6 = nullptr);
    const char* lst[6];
};

// As OneOfCaseInsensitive, compared byte for byte.
struct OneOfCaseSensitive {
    explicit OneOfCaseSensitive(const char* s1 = nullptr, const char* s2 = nullptr,
                                const char* s3 = nullptr, const char* s4 = nullptr,
                                const char* s5 = nullptr, const char* s6 = nullptr);
    const char* lst[6];
};

// True when toUpper(s) equals toUpper of one of the listed strings.
bool operator==(const std::string& s, const OneOfCaseInsensitive& list);
// True when s equals one of the listed strings exactly.
bool operator==(const std::string& s, const OneOfCaseSensitive& list);
