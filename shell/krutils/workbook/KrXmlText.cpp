#include "KrXmlText_p.h"

#include <algorithm>
#include <charconv>

namespace KrXmlText {

namespace {

bool isXmlChar(char32_t c)
{
    return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF)
            || (c >= 0xE000 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0x10FFFF);
}

char *appendUtf8(char *out, char32_t c)
{
    if (c < 0x80) {
        *out++ = char(c);
    } else if (c < 0x800) {
        *out++ = char(0xC0 | (c >> 6));
        *out++ = char(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        *out++ = char(0xE0 | (c >> 12));
        *out++ = char(0x80 | ((c >> 6) & 0x3F));
        *out++ = char(0x80 | (c & 0x3F));
    } else {
        *out++ = char(0xF0 | (c >> 18));
        *out++ = char(0x80 | ((c >> 12) & 0x3F));
        *out++ = char(0x80 | ((c >> 6) & 0x3F));
        *out++ = char(0x80 | (c & 0x3F));
    }
    return out;
}

// The character a reference between '&' and ';' stands for; 0 when there is none.
char32_t referencedCharacter(std::string_view name, QString *problem)
{
    if (name == "lt")
        return '<';
    if (name == "gt")
        return '>';
    if (name == "amp")
        return '&';
    if (name == "quot")
        return '"';
    if (name == "apos")
        return '\'';
    if (name.size() >= 2 && name[0] == '#') {
        const bool hex = name[1] == 'x';
        const std::string_view digits = name.substr(hex ? 2 : 1);
        uint32_t value = 0;
        const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), value,
                                            hex ? 16 : 10);
        if (digits.empty() || result.ec != std::errc()
            || result.ptr != digits.data() + digits.size() || !isXmlChar(value)) {
            *problem = QStringLiteral("an invalid character reference");
            return 0;
        }
        return value;
    }
    *problem = QStringLiteral("an undeclared entity '%1'").arg(toQString(name));
    return 0;
}

} // namespace

bool isAllSpace(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), isSpace);
}

bool isValidName(std::string_view name)
{
    if (name.empty() || name.front() == ':' || name.back() == ':' || name.front() == '-'
        || name.front() == '.' || (name.front() >= '0' && name.front() <= '9'))
        return false;
    int colons = 0;
    for (char c : name) {
        if (hasClass(c, NotInName))
            return false;
        colons += c == ':';
    }
    return colons <= 1;
}

void splitName(std::string_view qualified, std::string_view *prefix, std::string_view *local)
{
    const size_t colon = qualified.find(':');
    if (colon == std::string_view::npos) {
        *prefix = std::string_view();
        *local = qualified;
    } else {
        *prefix = qualified.substr(0, colon);
        *local = qualified.substr(colon + 1);
    }
}

bool decode(char *data, size_t *size, bool attribute, QString *problem)
{
    const CharClass special = attribute ? SpecialInValue : SpecialInText;
    const char *end = data + *size;
    const char *in = data;
    while (in < end && !hasClass(*in, special))
        ++in;
    char *out = data + (in - data);
    while (in < end) {
        const char c = *in;
        if (c == '&') {
            const char *semicolon = in + 1;
            while (semicolon < end && *semicolon != ';' && semicolon - in < 32)
                ++semicolon;
            if (semicolon >= end || *semicolon != ';') {
                *problem = QStringLiteral("an unterminated reference");
                return false;
            }
            const char32_t code = referencedCharacter(
                    std::string_view(in + 1, size_t(semicolon - in - 1)), problem);
            if (code == 0)
                return false;
            out = appendUtf8(out, code);
            in = semicolon + 1;
        } else if (c == '\r') {
            *out++ = attribute ? ' ' : '\n';
            ++in;
            if (in < end && *in == '\n')
                ++in;
        } else if (attribute && (c == '\n' || c == '\t')) {
            *out++ = ' ';
            ++in;
        } else if (attribute && c == '<') {
            *problem = QStringLiteral("'<' in an attribute value");
            return false;
        } else {
            *out++ = c;
            ++in;
        }
    }
    *size = size_t(out - data);
    return true;
}

} // namespace KrXmlText
