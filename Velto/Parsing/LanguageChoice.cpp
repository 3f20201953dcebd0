#include "Velto/Parsing/LanguageChoice.h"

#include <utility>

#include "Velto/Parsing/ExpatWrapper.h"

LanguageChoice::LanguageChoice(std::string lang1, std::string lang2)
    : lang1(std::move(lang1)), lang2(std::move(lang2)) {}

void LanguageChoice::add(const std::map<std::string, std::string>& attrs, const std::string& text) {
    texts[valueForKey(attrs, "lang", "")] = text;
}

std::string LanguageChoice::best() const {
    if (texts.empty()) return std::string();
    auto it = texts.find(lang1);
    if (it != texts.end()) return it->second;
    it = texts.find(lang2);
    if (it != texts.end()) return it->second;
    return texts.begin()->second;
}
