#ifndef KRXMLTEXT_P_H
#define KRXMLTEXT_P_H

#include <QString>

#include <array>
#include <string_view>

// Internal to the workbook layer: what XML says about characters, names and references, on UTF-8
// bytes. KrXmlPullReader tokenizes with these; the character table is inline because the scan of
// every tag runs through it.
namespace KrXmlText {

enum CharClass : quint8 {
    Space = 1,
    ElementNameEnd = 2, // white space, '/', '>'
    AttributeNameEnd = 4, // white space, '=', '/', '>'
    NotInName = 8, // control characters, white space and what XML reserves
    SpecialInText = 16, // what decode() rewrites in text: '&', '\r'
    SpecialInValue = 32, // ... and in attribute values: also '<', '\t', '\n'
};

constexpr std::array<quint8, 256> makeCharClasses()
{
    std::array<quint8, 256> classes = {};
    for (int c = 0; c <= ' '; ++c)
        classes[c] |= NotInName;
    for (char c : {' ', '\t', '\n', '\r'})
        classes[uchar(c)] |= Space | ElementNameEnd | AttributeNameEnd;
    for (char c : {'/', '>'})
        classes[uchar(c)] |= ElementNameEnd | AttributeNameEnd;
    classes[uchar('=')] |= AttributeNameEnd;
    for (char c : {'<', '>', '&', '"', '\'', '=', '/', '!', '?'})
        classes[uchar(c)] |= NotInName;
    for (char c : {'&', '\r'})
        classes[uchar(c)] |= SpecialInText | SpecialInValue;
    for (char c : {'<', '\t', '\n'})
        classes[uchar(c)] |= SpecialInValue;
    return classes;
}

inline constexpr std::array<quint8, 256> charClasses = makeCharClasses();

inline bool hasClass(char c, CharClass charClass)
{
    return charClasses[uchar(c)] & charClass;
}

inline QString toQString(std::string_view utf8)
{
    return QString::fromUtf8(utf8.data(), int(utf8.size()));
}

// XML white space.
inline bool isSpace(char c)
{
    return hasClass(c, Space);
}

bool isAllSpace(std::string_view text);

inline std::string_view trimmed(std::string_view text)
{
    while (!text.empty() && isSpace(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && isSpace(text.back()))
        text.remove_suffix(1);
    return text;
}

// A name may hold any byte but the ones XML reserves; one colon separates a prefix.
bool isValidName(std::string_view name);
void splitName(std::string_view qualified, std::string_view *prefix, std::string_view *local);

// Replaces character and predefined entity references and normalizes line ends (and, in attribute
// values, white space) in place; the result is never longer. False with *problem set when the
// text holds a malformed reference, an undeclared entity or, in an attribute value, a '<'.
bool decode(char *data, size_t *size, bool attribute, QString *problem);

} // namespace KrXmlText

#endif // KRXMLTEXT_P_H
