// Device specification document parser: turns one "Velto-spec" XML document
// into a SpecFileData record (identifier, description in the preferred
// language, signature and encryption abilities with their algorithms, the
// exported interfaces, the interfaces of other devices it wants to use, and
// configuration and device parameters).
//
// Elements are recognised by their full path only; anything else is ignored.
// The parser never rejects a document on its content: missing attributes take
// their defaults. Only an unreadable file or malformed XML makes parse() fail,
// and what was collected before the error stays in data().
#pragma once

#include <map>
#include <string>
#include <vector>

#include "Velto/Parsing/ExpatWrapper.h"
#include "Velto/Parsing/LanguageChoice.h"

struct AlgorithmInfo {
    // Sets only name (empty); the numbers are filled by populateAlgorithm.
    AlgorithmInfo() : name() {}

    std::string name;
    int id;
    int preference;
    int security;
};

struct ClientAccess {
    std::string specs;      // specification of the serving device; may be empty
    std::string interface;  // interface identifier
    unsigned char level;    // access level, 0..3 for kept entries
    bool required;
    std::string reason;     // in the best language
};

struct SpecFileData {
    // Strings, vectors and maps empty; the four flags false.
    SpecFileData() : ableSig(false), requireSig(false), ableEnc(false), requireEnc(false) {}

    std::string specs;
    std::string description;
    bool ableSig;
    bool requireSig;
    bool ableEnc;
    bool requireEnc;
    std::vector<AlgorithmInfo> sigAlgs;
    std::vector<AlgorithmInfo> encAlgs;
    std::map<std::string, std::string> expInterfaces;  // exported name -> interface identifier
    std::vector<ClientAccess> clientFor;
    std::map<std::string, std::string> config;
    std::map<std::string, std::string> params;
};

// Fills out from the "name", "id", "preference" and "security" attributes
// (defaults "", 0, 1, 1; non-numeric text gives 0). Always succeeds.
void populateAlgorithm(const std::map<std::string, std::string>& attrs, AlgorithmInfo& out);

class SpecFileParser : public ExpatWrapper {
public:
    // lang1 is the preferred language of texts, lang2 the second choice.
    SpecFileParser(std::string lang1, std::string lang2);

    // The record built so far (complete after a successful parse).
    SpecFileData& data() { return specData; }

protected:
    void startElement(const std::string& name, const AttrMap& attrs) override;
    void endElement(const std::string& name) override;
    void cdataHandler(const char* text, size_t length) override;

private:
    void handleSpecs(const std::string& text);
    void handleDescription(const std::string& text);
    void handleSignatureElem(const std::string& capable, const std::string& required);
    void handleEncryptionElem(const std::string& capable, const std::string& required);
    void handleSignatureAlg(const AttrMap& attrs);
    void handleEncryptionAlg(const AttrMap& attrs);
    void handleInterface(const AttrMap& attrs);
    void handleClient(const AttrMap& attrs);
    void handleParams(const AttrMap& attrs, std::map<std::string, std::string>& target);
    void handleReasonForClient(const std::string& text);
    void handleInfoEnd();
    void handleClientEnd();

    LanguageChoice langTexts;  // the texts of the element in progress, by language
    SpecFileData specData;
};
