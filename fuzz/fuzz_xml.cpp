// Fuzzes the XML document parsers: the input is one document, written to a
// file in a scratch directory and read by SpecFileParser and by
// InterfaceFileParser as the specification store does (no declaration skip).
// When the input holds an XML declaration it is also read once with the skip
// of leading bytes. Besides surviving any input, the records must keep the
// promises the parsers make about what they store.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "Velto/Parsing/InterfaceFileParser.h"
#include "Velto/Parsing/SpecFileParser.h"
#include "fuzz/fuzz_support.h"

namespace {

void checkSpec(const SpecFileData& d) {
    for (const ClientAccess& c : d.clientFor) {
        FUZZ_CHECK(!c.interface.empty());
        FUZZ_CHECK(c.level <= 3);
    }
    for (const auto& p : d.config) FUZZ_CHECK(!p.first.empty());
    for (const auto& p : d.params) FUZZ_CHECK(!p.first.empty());
}

void checkInterface(const InterfaceInformations& d) {
    FUZZ_CHECK(d.description.empty());
    FUZZ_CHECK(d.structs.size() <= 1);
    for (const auto& s : d.structs) FUZZ_CHECK(s.first == "struct");
    for (const VeltoMessageInfo& m : d.messages) {
        FUZZ_CHECK(m.type <= 2);
        FUZZ_CHECK(m.direction <= 2);
    }
    for (const MetaAlert& a : d.alerts) FUZZ_CHECK(!a.domains.empty());
    for (const std::string& i : d.inherits) FUZZ_CHECK(!i.empty());
}

bool hasDeclaration(const uint8_t* data, size_t size) {
    static const char decl[] = "<?xml ";
    const size_t n = sizeof(decl) - 1;
    for (size_t i = 0; i + n <= size; ++i)
        if (memcmp(data + i, decl, n) == 0) return true;
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static fuzzsupport::ScratchDir dir;
    static const std::string path = dir.file("doc.xml");
    FUZZ_CHECK(fuzzsupport::writeWhole(path, data, size));

    {
        SpecFileParser spec("en", "fr");
        spec.parse(path, false);
        checkSpec(spec.data());
    }
    {
        InterfaceFileParser intf("en", "fr");
        intf.parse(path, false);
        checkInterface(intf.data());
    }
    if (hasDeclaration(data, size)) {
        SpecFileParser skipping("fr", "en");
        skipping.parse(path, true);
        checkSpec(skipping.data());
    }
    return 0;
}
