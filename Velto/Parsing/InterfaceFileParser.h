// Interface definition document parser: turns one "Velto-interface" XML
// document into an InterfaceInformations record (name, inherited interfaces,
// data structures, messages with their fields, kinds, directions and security
// levels, methods, and alert rules).
//
// Elements are recognised by their full path only; anything else is ignored.
// Values are taken as written: no check of identifiers, duplicates or field
// types; unknown message kinds and directions become 0. Only an unreadable
// file or malformed XML makes parse() fail.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Velto/Parsing/ExpatWrapper.h"
#include "Velto/Parsing/LanguageChoice.h"

struct MessageFieldInfo {
    std::string name;
    std::string type;  // the type name as written
    std::string defaultValue;
};

struct VeltoMessageInfo {
    std::string name;
    int16_t id;          // "id" kept in 16 bits
    uint8_t type;        // 1 notification, 2 direct message, 0 anything else
    uint8_t security;    // "security" kept in 8 bits, default 1
    uint8_t direction;   // 1 "IN", 2 "OUT", 0 anything else
    std::vector<MessageFieldInfo> fields;
};

struct VeltoMethodInfo {
    std::string name;
    std::string input;
    std::string output;
};

struct MetaAlert {
    std::string notification;
    std::string criticality;
    std::vector<std::string> domains;
    std::string condition;
    std::string text;  // in the best language
};

struct InterfaceInformations {
    std::string name;
    std::string def;
    std::string description;  // never filled: description text is not kept
    std::vector<std::string> inherits;
    // Kept: every structure is stored under its element name "struct", so
    // the last structure of a document wins.
    std::map<std::string, std::vector<MessageFieldInfo>> structs;
    std::vector<VeltoMessageInfo> messages;
    std::vector<VeltoMethodInfo> methods;
    std::vector<MetaAlert> alerts;
};

class InterfaceFileParser : public ExpatWrapper {
public:
    // lang1 is the preferred language of alert texts, lang2 the second choice.
    InterfaceFileParser(std::string lang1, std::string lang2);

    // The record built so far (complete after a successful parse).
    InterfaceInformations& data() { return specData; }

protected:
    void startElement(const std::string& name, const AttrMap& attrs) override;
    void endElement(const std::string& name) override;
    void cdataHandler(const char* text, size_t length) override;

private:
    void handleInterfaceTag(const AttrMap& attrs);
    void handleInheritance(const std::string& text);
    void handleDescription(const std::string& text);
    void handleMessage(const AttrMap& attrs);
    void handleMessageField(const AttrMap& attrs);
    void handleMessageEnd();
    void handleStruct();
    void handleStructField(const AttrMap& attrs);
    void handleStructEnd(const std::string& name);
    void handleMethod(const AttrMap& attrs);
    void handleMetaAlert(const AttrMap& attrs);
    void handleMetaAlertCondition(const std::string& text);
    void handleMetaAlertText(const std::string& text);
    void handleMetaAlertEnd();

    LanguageChoice langTexts;  // the texts of the element in progress, by language
    InterfaceInformations specData;
    std::vector<MessageFieldInfo> curentFields;  // fields of the message or struct in progress
};
