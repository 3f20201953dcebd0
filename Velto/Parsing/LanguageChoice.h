// Choice of one text among its versions in several languages, for the document
// parsers: the pieces of an element given once per "lang" attribute are
// collected while it is open, and the best one is taken when it ends.
#pragma once

#include <map>
#include <string>

class LanguageChoice {
public:
    // lang1 is the preferred language, lang2 the second choice.
    LanguageChoice(std::string lang1, std::string lang2);

    // Keeps text under the value of the "lang" attribute in attrs ("" when
    // absent); a later text for the same language replaces the earlier one.
    void add(const std::map<std::string, std::string>& attrs, const std::string& text);

    // The text under lang1, else lang2, else the smallest language code; ""
    // when none was kept.
    std::string best() const;

    // Forgets every text kept.
    void clear() { texts.clear(); }

private:
    std::string lang1;
    std::string lang2;
    std::map<std::string, std::string> texts;  // language code -> text
};
