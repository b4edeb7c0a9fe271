#include "KrXmlPullReader_p.h"

#include "KrByteSource_p.h"
#include "KrXmlText_p.h"

#include <QTextCodec>
#include <QTextDecoder>

#include <algorithm>
#include <cstring>

namespace {

using namespace KrXmlText;
using Namespace = KrXmlPullReader::Namespace;

Namespace namespaceOf(std::string_view uri)
{
    if (uri.empty())
        return Namespace::None;
    if (uri == "http://schemas.openxmlformats.org/spreadsheetml/2006/main"
        || uri == "http://purl.oclc.org/ooxml/spreadsheetml/main")
        return Namespace::Sheet;
    if (uri == "http://schemas.openxmlformats.org/officeDocument/2006/relationships"
        || uri == "http://purl.oclc.org/ooxml/officeDocument/relationships")
        return Namespace::OfficeRels;
    if (uri == "http://schemas.openxmlformats.org/package/2006/relationships")
        return Namespace::PackageRels;
    return Namespace::Other;
}

} // namespace

KrXmlPullReader::KrXmlPullReader(KrByteSource &source, const Limits &limits)
    : m_source(source), m_limits(limits)
{
}

KrXmlPullReader::~KrXmlPullReader() = default;

KrXmlPullReader::Token KrXmlPullReader::fail(const char *what)
{
    return fail(QString::fromLatin1(what));
}

KrXmlPullReader::Token KrXmlPullReader::fail(const QString &what)
{
    raiseError(QStringLiteral("malformed XML at byte %1: %2")
                       .arg(m_bufferOffset + qint64(m_pos))
                       .arg(what));
    return Invalid;
}

qint64 KrXmlPullReader::readSource(char *data, qint64 maxSize)
{
    if (!m_decoder)
        return m_source.read(data, maxSize);
    // UTF-16 becomes at most 3 bytes of UTF-8 per 2 bytes; the decoder may also complete a
    // character begun in the previous chunk.
    Q_ASSERT(maxSize >= 64);
    m_raw.resize(size_t((maxSize - 8) / 3 * 2));
    for (;;) {
        const qint64 read = m_source.read(m_raw.data(), qint64(m_raw.size()));
        if (read <= 0)
            return read;
        const QByteArray utf8 = utf16ToUtf8(m_raw.data(), int(read));
        if (!utf8.isEmpty()) {
            std::memcpy(data, utf8.constData(), size_t(utf8.size()));
            return utf8.size();
        }
    }
}

// A chunk of UTF-16 input as UTF-8. A surrogate pair split between chunks is joined: its first
// half waits for the next chunk.
QByteArray KrXmlPullReader::utf16ToUtf8(const char *data, int size)
{
    QString text = m_decoder->toUnicode(data, size);
    if (!m_highSurrogate.isNull()) {
        text.prepend(m_highSurrogate);
        m_highSurrogate = QChar();
    }
    if (!text.isEmpty() && text.at(text.size() - 1).isHighSurrogate()) {
        m_highSurrogate = text.at(text.size() - 1);
        text.chop(1);
    }
    return text.toUtf8();
}

// Reads more of the part, keeping the current token [m_pos, m_end) and moving it to the front.
bool KrXmlPullReader::more()
{
    if (m_sourceDone || m_token == Invalid)
        return false;
    const size_t pending = m_end - m_pos;
    if (pending > size_t(m_limits.maxTokenSize)) {
        fail(QStringLiteral("a token is longer than %1 bytes").arg(m_limits.maxTokenSize));
        return false;
    }
    if (m_pos > 0) {
        std::memmove(m_buffer.get(), m_buffer.get() + m_pos, pending);
        m_bufferOffset += qint64(m_pos);
        m_pos = 0;
        m_end = pending;
    }
    constexpr size_t Chunk = 64 * 1024;
    if (m_capacity - m_end < Chunk) {
        const size_t capacity = std::max(m_capacity * 2, m_end + Chunk);
        std::unique_ptr<char[]> buffer(new char[capacity]);
        if (m_end > 0)
            std::memcpy(buffer.get(), m_buffer.get(), m_end);
        m_buffer = std::move(buffer);
        m_capacity = capacity;
    }
    const qint64 read
            = readSource(m_buffer.get() + m_end, qint64(std::min(m_capacity - m_end, Chunk * 4)));
    if (read < 0) {
        raiseError(m_source.errorString());
        return false;
    }
    if (read == 0) {
        m_sourceDone = true;
        return false;
    }
    m_end += size_t(read);
    return true;
}

bool KrXmlPullReader::ensure(size_t size)
{
    while (m_end - m_pos < size) {
        if (!more())
            return false;
    }
    return true;
}

// Finds `sequence` at or after m_pos + from; *at is relative to m_pos.
bool KrXmlPullReader::find(std::string_view sequence, size_t from, size_t *at)
{
    for (;;) {
        const std::string_view data(m_buffer.get() + m_pos, m_end - m_pos);
        const size_t found = data.find(sequence, from);
        if (found != std::string_view::npos) {
            *at = found;
            return true;
        }
        if (data.size() >= sequence.size())
            from = std::max(from, data.size() - sequence.size() + 1);
        if (!more())
            return false;
    }
}

// Detects the encoding from the first bytes: UTF-8 with or without its mark, or UTF-16 by its
// mark (or by "<?" in UTF-16, which a mark-less UTF-16 document starts with).
bool KrXmlPullReader::start()
{
    m_started = true;
    ensure(4);
    if (m_token == Invalid)
        return false;
    const auto *bytes = reinterpret_cast<const unsigned char *>(m_buffer.get());
    const size_t size = m_end;
    const char *codec = nullptr;
    size_t mark = 0;
    if (size >= 3 && bytes[0] == 0xEF && bytes[1] == 0xBB && bytes[2] == 0xBF) {
        m_pos = 3;
        m_documentStart = 3;
        return true;
    }
    if (size >= 2 && bytes[0] == 0xFF && bytes[1] == 0xFE) {
        codec = "UTF-16LE";
        mark = 2;
    } else if (size >= 2 && bytes[0] == 0xFE && bytes[1] == 0xFF) {
        codec = "UTF-16BE";
        mark = 2;
    } else if (size >= 4 && bytes[0] == '<' && bytes[1] == 0 && bytes[2] == '?' && bytes[3] == 0) {
        codec = "UTF-16LE";
    } else if (size >= 4 && bytes[0] == 0 && bytes[1] == '<' && bytes[2] == 0 && bytes[3] == '?') {
        codec = "UTF-16BE";
    }
    if (!codec)
        return true;
    QTextCodec *textCodec = QTextCodec::codecForName(codec);
    if (!textCodec) {
        fail("UTF-16 is not available");
        return false;
    }
    m_decoder.reset(textCodec->makeDecoder(QTextCodec::IgnoreHeader));
    const QByteArray utf8 = utf16ToUtf8(m_buffer.get() + mark, int(size - mark));
    m_pos = 0;
    m_end = 0;
    if (m_capacity < size_t(utf8.size())) {
        m_buffer.reset(new char[size_t(utf8.size())]);
        m_capacity = size_t(utf8.size());
    }
    std::memcpy(m_buffer.get(), utf8.constData(), size_t(utf8.size()));
    m_end = size_t(utf8.size());
    return true;
}

KrXmlPullReader::Token KrXmlPullReader::readNext()
{
    if (m_token == Invalid || (m_token == EndDocument && m_started))
        return m_token;
    if (!m_started && !start())
        return Invalid;
    if (m_popPending)
        pop();
    if (m_pendingEnd) {
        m_pendingEnd = false;
        return emitEnd();
    }
    for (;;) {
        if (m_pos == m_end && !more()) {
            if (m_token == Invalid)
                return Invalid;
            if (m_phase == InDocument)
                return fail("the document ends inside an element");
            if (m_phase == Prolog)
                return fail("there is no document element");
            return m_token = EndDocument;
        }
        Token token = Invalid;
        if (m_buffer[m_pos] != '<') {
            token = readText();
        } else {
            if (!ensure(2))
                return m_token == Invalid ? Invalid : fail("the document ends inside a tag");
            const char next = m_buffer[m_pos + 1];
            if (next == '/')
                token = readEndTag();
            else if (next == '?' || next == '!')
                token = readMarkup();
            else
                token = readStartTag();
        }
        // Markup that yields no token (comments, processing instructions, white space outside
        // the document element) comes back as EndDocument.
        if (token != EndDocument)
            return m_token = token;
    }
}

KrXmlPullReader::Token KrXmlPullReader::readText()
{
    size_t length = 0;
    for (;;) {
        const char *data = m_buffer.get() + m_pos;
        const void *lt = std::memchr(data + length, '<', m_end - m_pos - length);
        if (lt) {
            length = size_t(static_cast<const char *>(lt) - data);
            break;
        }
        length = m_end - m_pos;
        if (!more()) {
            if (m_token == Invalid)
                return Invalid;
            break;
        }
    }
    char *data = m_buffer.get() + m_pos;
    if (m_phase != InDocument) {
        if (!isAllSpace(std::string_view(data, length)))
            return fail("text outside the document element");
        m_pos += length;
        return EndDocument;
    }
    size_t decoded = length;
    if (!decode(data, &decoded, false))
        return Invalid;
    m_text = std::string_view(data, decoded);
    m_pos += length;
    return Characters;
}

bool KrXmlPullReader::decode(char *data, size_t *size, bool attribute)
{
    if (Q_LIKELY(KrXmlText::decode(data, size, attribute, &m_decodeProblem)))
        return true;
    fail(m_decodeProblem);
    return false;
}

bool KrXmlPullReader::lookup(std::string_view prefix, Namespace *ns) const
{
    if (prefix.empty()) {
        *ns = m_defaultNs;
        return true;
    }
    for (auto binding = m_bindings.rbegin(); binding != m_bindings.rend(); ++binding) {
        if (binding->prefix == prefix) {
            *ns = binding->ns;
            return true;
        }
    }
    if (prefix == "xml") {
        *ns = Namespace::Xml;
        return true;
    }
    return false;
}

// One pass over a start tag that finds its end and its attributes without touching the buffer;
// NeedMore when the tag continues beyond the data read so far (the scan then starts over).
KrXmlPullReader::Scan KrXmlPullReader::scanStartTag(size_t *nameEnd, size_t *length,
                                                    bool *selfClosing, const char **problem)
{
    const char *data = m_buffer.get() + m_pos;
    const size_t available = m_end - m_pos;
    size_t p = 1;
    while (p < available && !hasClass(data[p], ElementNameEnd))
        ++p;
    if (p >= available)
        return NeedMore;
    *nameEnd = p;
    m_spans.clear();
    bool separated = true;
    for (;;) {
        while (p < available && isSpace(data[p])) {
            ++p;
            separated = true;
        }
        if (p >= available)
            return NeedMore;
        if (data[p] == '>') {
            *length = p;
            *selfClosing = false;
            return Complete;
        }
        if (data[p] == '/') {
            if (p + 1 >= available)
                return NeedMore;
            *problem = "a stray '/' in a tag";
            *length = p + 1;
            *selfClosing = true;
            return data[p + 1] == '>' ? Complete : Malformed;
        }
        *problem = "attributes without white space between them";
        if (!separated)
            return Malformed;
        AttributeSpan span;
        span.nameBegin = p;
        while (p < available && !hasClass(data[p], AttributeNameEnd))
            ++p;
        span.nameEnd = p;
        while (p < available && isSpace(data[p]))
            ++p;
        if (p >= available)
            return NeedMore;
        *problem = "a malformed attribute";
        if (data[p] != '=')
            return Malformed;
        ++p;
        while (p < available && isSpace(data[p]))
            ++p;
        if (p >= available)
            return NeedMore;
        *problem = "an unquoted attribute value";
        if (data[p] != '"' && data[p] != '\'')
            return Malformed;
        const char quote = data[p++];
        const void *close = std::memchr(data + p, quote, available - p);
        if (!close)
            return NeedMore;
        span.valueBegin = p;
        span.valueEnd = size_t(static_cast<const char *>(close) - data);
        p = span.valueEnd + 1;
        m_spans.push_back(span);
        separated = false;
    }
}

KrXmlPullReader::Token KrXmlPullReader::readStartTag()
{
    size_t nameEnd = 0;
    size_t length = 0;
    bool selfClosing = false;
    const char *problem = nullptr;
    for (;;) {
        const Scan scan = scanStartTag(&nameEnd, &length, &selfClosing, &problem);
        if (scan == Complete)
            break;
        if (scan == Malformed)
            return fail(problem);
        if (!more())
            return m_token == Invalid ? Invalid : fail("the document ends inside a tag");
    }
    if (m_phase == Epilog)
        return fail("a second document element");

    char *tag = m_buffer.get() + m_pos;
    const std::string_view qualifiedName(tag + 1, nameEnd - 1);
    if (!isValidName(qualifiedName))
        return fail("an invalid element name");
    bool declares = false;
    if (!readAttributes(tag, &declares))
        return Invalid;

    // Namespace declarations first: they apply to the element's own name and attributes.
    const size_t bindingsBefore = m_bindings.size();
    const Namespace defaultBefore = m_defaultNs;
    if (declares && !declareNamespaces())
        return Invalid;
    for (Attribute &attribute : m_attributes) {
        if (attribute.ns != Namespace::Declaration && !attribute.prefix.empty()
            && !lookup(attribute.prefix, &attribute.ns))
            return fail("an undeclared namespace prefix");
    }
    std::string_view prefix;
    splitName(qualifiedName, &prefix, &m_name);
    if (!lookup(prefix, &m_ns))
        return fail("an undeclared namespace prefix");

    if (m_stack.size() >= size_t(m_limits.maxDepth))
        return fail("elements nest too deeply");
    m_stack.push_back({m_names.size(), qualifiedName.size(), prefix.empty() ? 0 : prefix.size() + 1,
                       bindingsBefore, m_ns, defaultBefore});
    m_names.append(qualifiedName);
    m_phase = InDocument;
    m_pendingEnd = selfClosing;
    m_pos += length + 1;
    return StartElement;
}

// Fills m_attributes from the spans scanStartTag() found, their values decoded in place.
bool KrXmlPullReader::readAttributes(char *tag, bool *declares)
{
    m_attributes.clear();
    for (const AttributeSpan &span : m_spans) {
        const std::string_view qualifiedAttribute(tag + span.nameBegin,
                                                  span.nameEnd - span.nameBegin);
        if (!isValidName(qualifiedAttribute)) {
            fail("an invalid attribute name");
            return false;
        }
        size_t valueSize = span.valueEnd - span.valueBegin;
        if (!decode(tag + span.valueBegin, &valueSize, true))
            return false;
        Attribute attribute;
        splitName(qualifiedAttribute, &attribute.prefix, &attribute.name);
        attribute.value = std::string_view(tag + span.valueBegin, valueSize);
        if ((attribute.prefix.empty() && attribute.name == "xmlns")
            || attribute.prefix == "xmlns") {
            attribute.ns = Namespace::Declaration;
            *declares = true;
        }
        m_attributes.push_back(attribute);
    }
    return true;
}

// Binds the prefixes the start tag just read declares; pop() unbinds them at its end.
bool KrXmlPullReader::declareNamespaces()
{
    for (const Attribute &attribute : m_attributes) {
        if (attribute.ns != Namespace::Declaration)
            continue;
        const bool isDefault = attribute.prefix.empty();
        if (!isDefault && attribute.value.empty()) {
            fail("a namespace prefix bound to nothing");
            return false;
        }
        const Namespace ns = namespaceOf(attribute.value);
        m_bindings.push_back({std::string(isDefault ? std::string_view() : attribute.name), ns});
        if (isDefault)
            m_defaultNs = ns;
    }
    if (m_bindings.size() > size_t(m_limits.maxNamespaceDeclarations)) {
        fail("too many namespace declarations");
        return false;
    }
    return true;
}

void KrXmlPullReader::readElementText(std::string *text)
{
    // Most elements hold one run of text and close at once: <v>12</v>. Take that in one step.
    if (m_token == StartElement && !m_pendingEnd) {
        char *data = m_buffer.get() + m_pos;
        const size_t available = m_end - m_pos;
        const void *lt = std::memchr(data, '<', available);
        const OpenElement &open = m_stack.back();
        const size_t length = lt ? size_t(static_cast<const char *>(lt) - data) : available;
        if (length + 3 + open.nameSize <= available && data[length + 1] == '/'
            && data[length + 2 + open.nameSize] == '>'
            && std::memcmp(data + length + 2, m_names.data() + open.nameOffset, open.nameSize)
                    == 0) {
            size_t decoded = length;
            if (!decode(data, &decoded, false))
                return;
            if (!textFits(text->size() + decoded))
                return;
            text->append(data, decoded);
            m_pos += length + 3 + open.nameSize;
            m_token = emitEnd();
            return;
        }
    }
    const int elementDepth = depth();
    for (;;) {
        switch (readNext()) {
        case Characters:
            if (depth() == elementDepth) {
                if (!textFits(text->size() + m_text.size()))
                    return;
                text->append(m_text);
            }
            break;
        case EndElement:
            if (depth() < elementDepth)
                return;
            break;
        case StartElement:
            break;
        case EndDocument:
        case Invalid:
            return;
        }
    }
}

// Whether readElementText() may collect `size` bytes; raises the error when not.
bool KrXmlPullReader::textFits(size_t size)
{
    if (size <= size_t(m_limits.maxTokenSize))
        return true;
    raiseError(QStringLiteral("a text is longer than %1 bytes").arg(m_limits.maxTokenSize));
    return false;
}

bool KrXmlPullReader::nextChild(int parentDepth)
{
    for (;;) {
        switch (readNext()) {
        case StartElement:
            if (depth() == parentDepth + 1)
                return true;
            break;
        case EndElement:
            if (depth() < parentDepth)
                return false;
            break;
        case Characters:
            break;
        case EndDocument:
        case Invalid:
            return false;
        }
    }
}

bool KrXmlPullReader::readToEnd()
{
    while (readNext() != EndDocument) {
        if (hasError())
            return false;
    }
    return true;
}

KrXmlPullReader::Token KrXmlPullReader::readEndTag()
{
    if (m_stack.empty())
        return fail("an end tag without a start tag");
    const OpenElement &open = m_stack.back();
    // The usual end tag, "</name>", is checked in place.
    if (m_end - m_pos >= open.nameSize + 3 && m_buffer[m_pos + 2 + open.nameSize] == '>'
        && std::memcmp(m_buffer.get() + m_pos + 2, m_names.data() + open.nameOffset, open.nameSize)
                == 0) {
        m_pos += open.nameSize + 3;
        return emitEnd();
    }
    size_t close = 0;
    if (!find(">", 2, &close))
        return m_token == Invalid ? Invalid : fail("the document ends inside a tag");
    std::string_view name(m_buffer.get() + m_pos + 2, close - 2);
    while (!name.empty() && isSpace(name.back()))
        name.remove_suffix(1);
    if (name != std::string_view(m_names).substr(open.nameOffset, open.nameSize))
        return fail("an end tag that does not match its start tag");
    m_pos += close + 1;
    return emitEnd();
}

KrXmlPullReader::Token KrXmlPullReader::emitEnd()
{
    const OpenElement &open = m_stack.back();
    m_name = std::string_view(m_names).substr(open.nameOffset + open.localOffset,
                                              open.nameSize - open.localOffset);
    m_ns = open.ns;
    m_attributes.clear();
    m_popPending = true;
    return EndElement;
}

void KrXmlPullReader::pop()
{
    m_popPending = false;
    const OpenElement open = m_stack.back();
    m_stack.pop_back();
    m_names.resize(open.nameOffset);
    m_bindings.resize(open.bindings);
    m_defaultNs = open.defaultBefore;
    if (m_stack.empty())
        m_phase = Epilog;
}

// Comments, CDATA sections, processing instructions (the XML declaration among them) and
// document type declarations, which are refused.
KrXmlPullReader::Token KrXmlPullReader::readMarkup()
{
    const qint64 offset = m_bufferOffset + qint64(m_pos);
    if (m_buffer[m_pos + 1] == '?') {
        size_t close = 0;
        if (!find("?>", 2, &close))
            return m_token == Invalid ? Invalid : fail("an unterminated processing instruction");
        const std::string_view instruction(m_buffer.get() + m_pos + 2, close - 2);
        const std::string_view target
                = instruction.substr(0, std::min(instruction.size(), size_t(3)));
        if ((target == "xml" || target == "XML")
            && (instruction.size() == 3 || isSpace(instruction[3]))) {
            // Only the first bytes of the document (after a byte-order mark) may declare it.
            if (offset != m_documentStart)
                return fail("a misplaced XML declaration");
            if (!readDeclaration(instruction.substr(3)))
                return Invalid;
        }
        m_pos += close + 2;
        return EndDocument;
    }
    if (!ensure(4))
        return m_token == Invalid ? Invalid : fail("the document ends inside markup");
    const std::string_view start(m_buffer.get() + m_pos, m_end - m_pos);
    if (start.substr(0, 4) == "<!--") {
        size_t close = 0;
        if (!find("-->", 4, &close))
            return m_token == Invalid ? Invalid : fail("an unterminated comment");
        m_pos += close + 3;
        return EndDocument;
    }
    if (!ensure(9))
        return m_token == Invalid ? Invalid : fail("the document ends inside markup");
    const std::string_view keyword(m_buffer.get() + m_pos, 9);
    if (keyword == "<![CDATA[") {
        if (m_phase != InDocument)
            return fail("CDATA outside the document element");
        size_t close = 0;
        if (!find("]]>", 9, &close))
            return m_token == Invalid ? Invalid : fail("an unterminated CDATA section");
        m_text = std::string_view(m_buffer.get() + m_pos + 9, close - 9);
        m_pos += close + 3;
        return Characters;
    }
    if (keyword == "<!DOCTYPE")
        return fail("a document type declaration (DTDs are not allowed)");
    return fail("unknown markup");
}

bool KrXmlPullReader::readDeclaration(std::string_view declaration)
{
    const size_t at = declaration.find("encoding");
    if (at == std::string_view::npos)
        return true;
    std::string_view rest = declaration.substr(at + 8);
    while (!rest.empty() && (isSpace(rest.front()) || rest.front() == '='))
        rest.remove_prefix(1);
    if (rest.empty() || (rest.front() != '"' && rest.front() != '\'')) {
        fail("a malformed XML declaration");
        return false;
    }
    const size_t close = rest.find(rest.front(), 1);
    if (close == std::string_view::npos) {
        fail("a malformed XML declaration");
        return false;
    }
    const QByteArray encoding = QByteArray(rest.data() + 1, int(close - 1)).toLower();
    // Parts are UTF-8 or UTF-16; the detection in start() has already chosen between them.
    static const char *const accepted[]
            = {"utf-8", "utf8", "utf-16", "utf-16le", "utf-16be", "us-ascii", "ascii"};
    for (const char *name : accepted) {
        if (encoding == name)
            return true;
    }
    fail(QStringLiteral("the unsupported encoding '%1'").arg(QString::fromLatin1(encoding)));
    return false;
}
