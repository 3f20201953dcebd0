#include "Velto/Parsing/InterfaceFileParser.h"

#include <cstdlib>
#include <utility>

namespace {

const char* const ROOT = "/Velto-interface";
const char* const INHERITS = "/Velto-interface/inherits";
const char* const DESCRIPTION = "/Velto-interface/description";
const char* const MESSAGE = "/Velto-interface/messages/message";
const char* const MESSAGE_FIELD = "/Velto-interface/messages/message/field";
const char* const STRUCT = "/Velto-interface/messages/struct";
const char* const STRUCT_FIELD = "/Velto-interface/messages/struct/field";
const char* const METHOD = "/Velto-interface/methods/method";
const char* const META_ALERT = "/Velto-interface/intelligence/meta_alert";
const char* const ALERT_CONDITION = "/Velto-interface/intelligence/meta_alert/condition";
const char* const ALERT_TEXT = "/Velto-interface/intelligence/meta_alert/text";

MessageFieldInfo makeField(const ExpatWrapper::AttrMap& attrs) {
    MessageFieldInfo field;
    field.name = valueForKey(attrs, "name", "");
    field.type = valueForKey(attrs, "type", "");
    field.defaultValue = valueForKey(attrs, "default", "");
    return field;
}

// Case-sensitive: "notification" 1, "direct" 2, anything else 0.
uint8_t messageKind(const std::string& type) {
    if (type == "notification") return 1;
    if (type == "direct") return 2;
    return 0;
}

// Case-sensitive: "IN" 1, "OUT" 2, anything else 0.
uint8_t messageDirection(const std::string& direction) {
    if (direction == "IN") return 1;
    if (direction == "OUT") return 2;
    return 0;
}

// Splits at commas, each piece stripped, empty pieces kept; an empty value
// gives one empty domain. Each search resumes after the comma just found.
std::vector<std::string> splitDomains(const std::string& value) {
    std::vector<std::string> domains;
    size_t start = 0;
    for (;;) {
        const size_t comma = value.find(',', start);
        const size_t end = comma == std::string::npos ? value.size() : comma;
        domains.push_back(strip(value.data() + start, end - start));
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return domains;
}

}  // namespace

InterfaceFileParser::InterfaceFileParser(std::string lang1, std::string lang2)
    : langTexts(std::move(lang1), std::move(lang2)) {}

void InterfaceFileParser::startElement(const std::string& /*name*/, const AttrMap& attrs) {
    const std::string p = currentPath();
    if (p == ROOT) {
        handleInterfaceTag(attrs);
    } else if (p == MESSAGE) {
        handleMessage(attrs);
    } else if (p == MESSAGE_FIELD) {
        handleMessageField(attrs);
    } else if (p == STRUCT) {
        handleStruct();
    } else if (p == STRUCT_FIELD) {
        handleStructField(attrs);
    } else if (p == METHOD) {
        handleMethod(attrs);
    } else if (p == META_ALERT) {
        handleMetaAlert(attrs);
    }
}

void InterfaceFileParser::endElement(const std::string& name) {
    const std::string p = currentPath();
    if (p == MESSAGE) {
        handleMessageEnd();
    } else if (p == STRUCT) {
        handleStructEnd(name);
    } else if (p == META_ALERT) {
        handleMetaAlertEnd();
    }
}

void InterfaceFileParser::cdataHandler(const char* text, size_t length) {
    const std::string s = strip(text, length);
    if (s.empty()) return;
    const std::string p = currentPath();
    if (p == INHERITS) {
        handleInheritance(s);
    } else if (p == DESCRIPTION) {
        handleDescription(s);
    } else if (p == ALERT_CONDITION) {
        handleMetaAlertCondition(s);
    } else if (p == ALERT_TEXT) {
        handleMetaAlertText(s);
    }
}

void InterfaceFileParser::handleInterfaceTag(const AttrMap& attrs) {
    specData.name = valueForKey(attrs, "name", "");
    specData.def = valueForKey(attrs, "def", "");
}

void InterfaceFileParser::handleInheritance(const std::string& text) {
    specData.inherits.push_back(text);
}

void InterfaceFileParser::handleDescription(const std::string& /*text*/) {
    // The description is accepted and dropped.
}

void InterfaceFileParser::handleMessage(const AttrMap& attrs) {
    VeltoMessageInfo msg;
    msg.name = valueForKey(attrs, "name", "");
    msg.id = static_cast<int16_t>(atoi(valueForKey(attrs, "id", "0").c_str()));
    msg.type = messageKind(valueForKey(attrs, "type", ""));
    msg.direction = messageDirection(valueForKey(attrs, "direction", ""));
    msg.security = static_cast<uint8_t>(atoi(valueForKey(attrs, "security", "1").c_str()));
    specData.messages.push_back(std::move(msg));
    curentFields.clear();
}

void InterfaceFileParser::handleMessageField(const AttrMap& attrs) {
    curentFields.push_back(makeField(attrs));
}

void InterfaceFileParser::handleMessageEnd() {
    if (!specData.messages.empty()) specData.messages.back().fields.swap(curentFields);
}

void InterfaceFileParser::handleStruct() { curentFields.clear(); }

void InterfaceFileParser::handleStructField(const AttrMap& attrs) {
    curentFields.push_back(makeField(attrs));
}

void InterfaceFileParser::handleStructEnd(const std::string& name) {
    // Kept: name is the element's own name, "struct"; no "name" attribute is read.
    specData.structs[name] = std::move(curentFields);
    curentFields.clear();
}

void InterfaceFileParser::handleMethod(const AttrMap& attrs) {
    VeltoMethodInfo method;
    method.name = valueForKey(attrs, "name", "");
    method.input = valueForKey(attrs, "input", "");
    method.output = valueForKey(attrs, "output", "");
    specData.methods.push_back(std::move(method));
    langTexts.clear();
}

void InterfaceFileParser::handleMetaAlert(const AttrMap& attrs) {
    MetaAlert alert;
    alert.notification = valueForKey(attrs, "notification", "");
    alert.criticality = valueForKey(attrs, "criticality", "");
    alert.domains = splitDomains(valueForKey(attrs, "domains", ""));
    specData.alerts.push_back(std::move(alert));
}

void InterfaceFileParser::handleMetaAlertCondition(const std::string& text) {
    if (!specData.alerts.empty()) specData.alerts.back().condition = text;
}

void InterfaceFileParser::handleMetaAlertText(const std::string& text) {
    langTexts.add(lastAttrs(), text);
}

void InterfaceFileParser::handleMetaAlertEnd() {
    if (!specData.alerts.empty()) specData.alerts.back().text = langTexts.best();
    langTexts.clear();
}
