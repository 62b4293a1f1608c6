#include "XmlText.h"

#include <cstdint>

namespace {
bool continuation(unsigned char c) {
    return (c & 0xC0) == 0x80;
}
} // namespace

size_t XmlText::validLength(const std::string& text, size_t at) {
    const size_t left = text.size() - at;
    const unsigned char c = static_cast<unsigned char>(text[at]);
    if (c < 0x80)
        return c >= 0x20 || c == '\t' || c == '\n' || c == '\r' ? 1 : 0;
    size_t length;
    uint32_t code;
    if (c >= 0xC2 && c <= 0xDF) {
        length = 2;
        code = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
        length = 3;
        code = c & 0x0F;
    } else if (c >= 0xF0 && c <= 0xF4) {
        length = 4;
        code = c & 0x07;
    } else {
        return 0;
    }
    if (left < length)
        return 0;
    for (size_t i = 1; i < length; ++i) {
        const unsigned char next = static_cast<unsigned char>(text[at + i]);
        if (!continuation(next))
            return 0;
        code = (code << 6) | (next & 0x3F);
    }
    // Overlong forms, surrogates, beyond U+10FFFF, and the two non-characters XML excludes.
    if ((length == 3 && code < 0x800) || (length == 4 && code < 0x10000) || code > 0x10FFFF ||
        (code >= 0xD800 && code <= 0xDFFF) || code == 0xFFFE || code == 0xFFFF)
        return 0;
    return length;
}

std::string XmlText::clean(const std::string& text) {
    size_t at = 0;
    size_t length;
    // Valid text, the usual case, is copied once.
    while (at < text.size() && (length = validLength(text, at)) != 0)
        at += length;
    if (at == text.size())
        return text;

    std::string cleaned(text, 0, at);
    while (at < text.size()) {
        length = validLength(text, at);
        if (length == 0) {
            cleaned += replacement;
            ++at;
        } else {
            cleaned.append(text, at, length);
            at += length;
        }
    }
    return cleaned;
}

std::string XmlText::firstCharacters(const std::string& text, size_t count) {
    size_t end = 0;
    for (size_t taken = 0; end < text.size(); ++end) {
        if (!continuation(static_cast<unsigned char>(text[end])) && taken++ == count)
            break;
    }
    return text.substr(0, end);
}
