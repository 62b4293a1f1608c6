#ifndef TAVRO_XMLTEXT_H
#define TAVRO_XMLTEXT_H

#include <string>

// Text from the bus, gpsd, mapping or configuration files made fit for an XML 1.0 document in
// UTF-8. Valid text comes back byte for byte; every byte that is not part of a valid UTF-8
// sequence, and every character XML cannot carry (control characters other than tab, line feed
// and carriage return, U+FFFE, U+FFFF), becomes one U+FFFD REPLACEMENT CHARACTER.
class XmlText {
public:
    static std::string clean(const std::string& text);
    // The first count characters of clean text; a character is never cut.
    static std::string firstCharacters(const std::string& text, size_t count);

    // U+FFFD in UTF-8.
    static constexpr const char* replacement = "\xEF\xBF\xBD";

private:
    // Length of the valid character at text[at], or 0 when it is not one.
    static size_t validLength(const std::string& text, size_t at);
};

#endif
