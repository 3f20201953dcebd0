#include "Velto/Parsing/ExpatWrapper.h"

#include <expat.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>
#include <sstream>

namespace {

const size_t CHUNK_SIZE = 8192;

struct FileCloser {
    void operator()(FILE* f) const {
        if (f) fclose(f);
    }
};
typedef std::unique_ptr<FILE, FileCloser> FilePtr;

struct ParserFreer {
    void operator()(XML_ParserStruct* p) const {
        if (p) XML_ParserFree(p);
    }
};
typedef std::unique_ptr<XML_ParserStruct, ParserFreer> ParserPtr;

// One step of the "<?xml " matcher: the next state, or 1 when the blank
// after "<?xml" completes the match. Any byte that does not advance resets
// the state to 0 without being reconsidered as a new "<".
int nextSkipState(int state, int byte) {
    switch (state) {
        case '<': return byte == '?' ? '?' : 0;
        case '?': return byte == 'x' ? 'x' : 0;
        case 'x': return byte == 'm' ? 'm' : 0;
        case 'm': return byte == 'l' ? 'l' : 0;
        case 'l': return byte == ' ' ? 1 : 0;
        default: return byte == '<' ? '<' : 0;
    }
}

bool listContains(const char* const* lst, const std::string& s, bool ignoreCase) {
    const std::string wanted = ignoreCase ? toUpper(s) : s;
    for (int i = 0; i < 6 && lst[i] != nullptr; ++i) {
        const std::string entry = ignoreCase ? toUpper(lst[i]) : std::string(lst[i]);
        if (entry == wanted) return true;
    }
    return false;
}

void fillList(const char** lst, const char* s1, const char* s2, const char* s3, const char* s4,
              const char* s5, const char* s6) {
    lst[0] = s1;
    lst[1] = s2;
    lst[2] = s3;
    lst[3] = s4;
    lst[4] = s5;
    lst[5] = s6;
}

}  // namespace

ExpatWrapper::ExpatWrapper() : brokenFile(false) {}

ExpatWrapper::~ExpatWrapper() {}

bool ExpatWrapper::parse(const std::string& fileName, bool skip) {
    FilePtr file(fopen(fileName.c_str(), "r"));
    if (!file) {
        const int err = errno;
        // The stream writes over the current text from its start: on a fresh
        // reader (error empty) the result is exactly this message.
        std::ostringstream ss(error, std::ios_base::out);
        ss << "Failed to open XML file: " << fileName << " Error: " << strerror(err);
        error = ss.str();
        return false;
    }

    brokenFile = false;
    ParserPtr parser(XML_ParserCreate(nullptr));
    if (!parser) {
        error = "Failed to create XML parser";
        return false;
    }
    XML_SetUserData(parser.get(), this);
    XML_SetElementHandler(parser.get(), &ExpatWrapper::StartElement, &ExpatWrapper::EndElement);
    XML_SetCharacterDataHandler(parser.get(), &ExpatWrapper::CDataHandler);

    if (skip) {
        // Kept: no declaration means false with error unchanged. The parser and
        // the file used to be left allocated and open on this exit; they are
        // released here by their owners, which changes nothing observable.
        if (!skipTillXML(file.get())) return false;
        // Stand on the "<" of "<?xml ".
        fseek(file.get(), -6, SEEK_CUR);
    }

    bool result = false;
    char buffer[CHUNK_SIZE];
    for (;;) {
        const size_t count = fread(buffer, 1, sizeof(buffer), file.get());
        const bool isFinal = static_cast<long>(count) < static_cast<long>(CHUNK_SIZE);
        if (XML_Parse(parser.get(), buffer, static_cast<int>(count), isFinal ? 1 : 0) == 0) {
            // Kept: the expat message is composed on a copy and then dropped,
            // so error keeps its previous text.
            std::ostringstream discarded(error);
            discarded << XML_ErrorString(XML_GetErrorCode(parser.get())) << " at line "
                      << XML_GetCurrentLineNumber(parser.get());
            result = false;
            break;
        }
        if (brokenFile) {
            error = "XML file structure is broken. Parsing abandoned !";
            result = false;
            break;
        }
        if (isFinal) {
            result = true;
            break;
        }
    }
    return result;
}

std::string ExpatWrapper::parsingError() { return error; }

std::string ExpatWrapper::currentPath() const {
    std::string result;
    for (const std::string& name : elementStack) {
        result += "/";
        result += name;
    }
    return result;
}

const ExpatWrapper::AttrMap& ExpatWrapper::lastAttrs() {
    static const AttrMap empty;
    if (attrStack.empty()) return empty;
    return attrStack.top();
}

void ExpatWrapper::StartElement(void* userData, const char* name, const char** atts) {
    if (userData == nullptr || name == nullptr) return;
    ExpatWrapper* self = static_cast<ExpatWrapper*>(userData);
    self->attrStack.push(AttrMap());
    packExpatParams(atts, self->attrStack.top());
    self->elementStack.push_back(name);
    self->path = self->currentPath();
    self->startElement(name, self->attrStack.top());
}

void ExpatWrapper::EndElement(void* userData, const char* name) {
    if (userData == nullptr || name == nullptr) return;
    ExpatWrapper* self = static_cast<ExpatWrapper*>(userData);
    const std::string top = self->elementStack.empty() ? std::string() : self->elementStack.back();
    const bool matched = !self->elementStack.empty() && top == name;
    if (!matched) {
        std::cerr << "Broken XML file. End element: " << name
                  << " does not match the top of the stack: " << top << '\n';
    }
    self->path = self->currentPath();
    self->endElement(name);
    // Kept: on a mismatch both stacks stay as they are and the rest of the
    // document runs one level deeper.
    if (matched) {
        self->elementStack.pop_back();
        self->attrStack.pop();
    }
}

void ExpatWrapper::CDataHandler(void* userData, const char* s, int len) {
    if (userData == nullptr || s == nullptr || len < 0) return;
    static_cast<ExpatWrapper*>(userData)->cdataHandler(s, static_cast<size_t>(len));
}

int ExpatWrapper::packExpatParams(const char** atts, AttrMap& out) {
    if (atts == nullptr) return 0;
    int pairs = 0;
    for (size_t i = 0; atts[i] != nullptr && atts[i + 1] != nullptr; i += 2) {
        out[atts[i]] = atts[i + 1];
        ++pairs;
    }
    return pairs;
}

bool ExpatWrapper::skipTillXML(FILE* f) {
    int state = 0;
    unsigned char byte = 0;
    // feof is tested before each read: after the last byte one extra pass runs
    // on that same byte, which cannot complete a match.
    while (!feof(f)) {
        if (fread(&byte, 1, 1, f) != 1 && ferror(f)) return false;
        state = nextSkipState(state, byte);
        if (state == 1) return true;
    }
    return false;
}

std::string valueForKey(const std::map<std::string, std::string>& map, const std::string& key,
                        const std::string& def) {
    const auto it = map.find(key);
    return it == map.end() ? def : it->second;
}

std::string toUpper(const std::string& s) {
    std::string out(s);
    for (char& c : out) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return out;
}

std::string strip(const char* s, size_t len) {
    if (s == nullptr || len == 0) return std::string();
    size_t first = 0;
    while (first < len && isspace(static_cast<unsigned char>(s[first]))) ++first;
    if (first == len) return std::string();
    size_t last = len - 1;
    while (last > first && isspace(static_cast<unsigned char>(s[last]))) --last;
    return std::string(s + first, last - first + 1);
}

OneOfCaseInsensitive::OneOfCaseInsensitive(const char* s1, const char* s2, const char* s3,
                                           const char* s4, const char* s5, const char* s6) {
    fillList(lst, s1, s2, s3, s4, s5, s6);
}

OneOfCaseSensitive::OneOfCaseSensitive(const char* s1, const char* s2, const char* s3,
                                       const char* s4, const char* s5, const char* s6) {
    fillList(lst, s1, s2, s3, s4, s5, s6);
}

bool operator==(const std::string& s, const OneOfCaseInsensitive& list) {
    return listContains(list.lst, s, true);
}

bool operator==(const std::string& s, const OneOfCaseSensitive& list) {
    return listContains(list.lst, s, false);
}
