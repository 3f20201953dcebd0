#include "Velto/Parsing/SpecFileParser.h"

#include <cstdlib>
#include <utility>

namespace {

const char* const ROOT_INFO = "/Velto-spec/info";
const char* const INFO_SPECS = "/Velto-spec/info/specs";
const char* const INFO_DESC = "/Velto-spec/info/desc";
const char* const INFO_SIGNATURE = "/Velto-spec/info/signature";
const char* const INFO_ENCRYPTION = "/Velto-spec/info/encryption";
const char* const SIGNATURE_ALG = "/Velto-spec/info/signature/algorithm";
const char* const ENCRYPTION_ALG = "/Velto-spec/info/encryption/algorithm";
const char* const CONFIG_PARAM = "/Velto-spec/info/configurations/param";
const char* const DEV_PARAM = "/Velto-spec/info/dev_params/param";
const char* const INTERFACE = "/Velto-spec/interfaces/interface";
const char* const CLIENT = "/Velto-spec/clients/client";
const char* const CLIENT_REASON = "/Velto-spec/clients/client/reason";

bool isTrueText(const std::string& v) { return v == OneOfCaseInsensitive("1", "Yes", "True"); }
bool isFalseText(const std::string& v) { return v == OneOfCaseInsensitive("0", "No", "False"); }

// A true text sets the flag, a false text clears it, anything else leaves it.
void applyBoolText(const std::string& value, bool& flag) {
    if (isTrueText(value)) {
        flag = true;
    } else if (isFalseText(value)) {
        flag = false;
    }
}

}  // namespace

void populateAlgorithm(const std::map<std::string, std::string>& attrs, AlgorithmInfo& out) {
    out.name = valueForKey(attrs, "name", "");
    out.id = atoi(valueForKey(attrs, "id", "0").c_str());
    out.preference = atoi(valueForKey(attrs, "preference", "1").c_str());
    out.security = atoi(valueForKey(attrs, "security", "1").c_str());
}

SpecFileParser::SpecFileParser(std::string lang1, std::string lang2)
    : langTexts(std::move(lang1), std::move(lang2)) {}

void SpecFileParser::startElement(const std::string& /*name*/, const AttrMap& attrs) {
    const std::string p = currentPath();
    if (p == ROOT_INFO) {
        langTexts.clear();
    } else if (p == INFO_SIGNATURE) {
        handleSignatureElem(valueForKey(attrs, "capable", "Yes"), valueForKey(attrs, "required", "No"));
    } else if (p == INFO_ENCRYPTION) {
        handleEncryptionElem(valueForKey(attrs, "capable", "No"), valueForKey(attrs, "required", "No"));
    } else if (p == SIGNATURE_ALG) {
        handleSignatureAlg(attrs);
    } else if (p == ENCRYPTION_ALG) {
        handleEncryptionAlg(attrs);
    } else if (p == INTERFACE) {
        handleInterface(attrs);
    } else if (p == CLIENT) {
        handleClient(attrs);
    } else if (p == CONFIG_PARAM) {
        handleParams(attrs, specData.config);
    } else if (p == DEV_PARAM) {
        handleParams(attrs, specData.params);
    }
}

void SpecFileParser::endElement(const std::string& /*name*/) {
    const std::string p = currentPath();
    if (p == ROOT_INFO) {
        handleInfoEnd();
    } else if (p == CLIENT) {
        handleClientEnd();
    }
}

void SpecFileParser::cdataHandler(const char* text, size_t length) {
    const std::string s = strip(text, length);
    if (s.empty()) return;
    const std::string p = currentPath();
    // Each piece assigns: of a text split by expat, the last non-blank piece wins.
    if (p == INFO_SPECS) {
        handleSpecs(s);
    } else if (p == INFO_DESC) {
        handleDescription(s);
    } else if (p == CLIENT_REASON) {
        handleReasonForClient(s);
    }
}

void SpecFileParser::handleSpecs(const std::string& text) { specData.specs = text; }

void SpecFileParser::handleDescription(const std::string& text) {
    langTexts.add(lastAttrs(), text);
}

void SpecFileParser::handleSignatureElem(const std::string& capable, const std::string& required) {
    applyBoolText(capable, specData.ableSig);
    applyBoolText(required, specData.requireSig);
}

void SpecFileParser::handleEncryptionElem(const std::string& capable, const std::string& required) {
    applyBoolText(capable, specData.ableEnc);
    applyBoolText(required, specData.requireEnc);
}

void SpecFileParser::handleSignatureAlg(const AttrMap& attrs) {
    AlgorithmInfo alg;
    populateAlgorithm(attrs, alg);
    specData.sigAlgs.push_back(alg);
}

void SpecFileParser::handleEncryptionAlg(const AttrMap& attrs) {
    AlgorithmInfo alg;
    populateAlgorithm(attrs, alg);
    specData.encAlgs.push_back(alg);
}

void SpecFileParser::handleInterface(const AttrMap& attrs) {
    const std::string name = valueForKey(attrs, "name", "");
    const auto intf = attrs.find("intf");
    // Without "intf" the identifier derives from the specs text seen so far.
    specData.expInterfaces[name] = intf != attrs.end() ? intf->second : specData.specs + "/" + name;
}

void SpecFileParser::handleClient(const AttrMap& attrs) {
    ClientAccess client;
    client.specs = valueForKey(attrs, "spec", "");
    client.interface = valueForKey(attrs, "interface", "");
    client.level = static_cast<unsigned char>(atoi(valueForKey(attrs, "level", "1").c_str()));
    client.required = isTrueText(valueForKey(attrs, "required", ""));
    if (!client.interface.empty() && client.level <= 3) specData.clientFor.push_back(client);
    langTexts.clear();
}

void SpecFileParser::handleParams(const AttrMap& attrs, std::map<std::string, std::string>& target) {
    const std::string name = valueForKey(attrs, "name", "");
    if (!name.empty()) target[name] = valueForKey(attrs, "value", "");
}

void SpecFileParser::handleReasonForClient(const std::string& text) {
    langTexts.add(lastAttrs(), text);
}

void SpecFileParser::handleInfoEnd() {
    if (specData.description.empty()) specData.description = langTexts.best();
    langTexts.clear();
}

void SpecFileParser::handleClientEnd() {
    // Kept: the reason of a dropped client lands on the previous entry when
    // that one has no reason yet.
    if (!specData.clientFor.empty() && specData.clientFor.back().reason.empty()) {
        specData.clientFor.back().reason = langTexts.best();
    }
    langTexts.clear();
}
