#ifndef KRXMLPULLREADER_P_H
#define KRXMLPULLREADER_P_H

#include <QChar>
#include <QString>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

QT_BEGIN_NAMESPACE
class QTextDecoder;
QT_END_NAMESPACE

class KrByteSource;

// Internal to the workbook layer: a small streaming XML reader, purpose-made for the parts of a
// workbook. It reads a KrByteSource (a zip entry, or a plain string in tests).
//
// It exists because QXmlStreamReader is too slow for worksheets: it needs 2.1 to 2.5 s just to
// tokenize the 80 MB of sheet XML of a 100,000 x 20 workbook, over four times the budget of the
// whole import. This reader works on the UTF-8 bytes in place, so numbers and cell references
// never become QStrings; UTF-16 input is converted to UTF-8 as it streams in.
//
// It understands what well-formed workbook parts use: elements, attributes, namespaces, character
// and predefined entity references, CDATA, comments and processing instructions. It checks that
// tags nest. Since the input is untrusted, it refuses DTDs (so no entity can expand) and bounds
// the size of a token and of an element's text, the nesting depth and the namespace declarations
// in scope by the Limits it is given. The first fault ends the document: readNext() returns
// Invalid from then on and errorString() says what and at which byte.
//
// Tokens refer to the reader's buffer and stay valid until the next readNext(). Decoding happens
// in place: every reference is longer than the UTF-8 it stands for.
//
//     KrXmlPullReader xml(source, {4 << 20, 256, 256});
//     if (xml.nextChild(0) && xml.isElement(KrXmlPullReader::Namespace::Sheet, "sst")) {
//         while (xml.nextChild(1)) // the children of <sst>
//             ...
//     }
//     if (xml.hasError())
//         return fail(xml.errorString());
class KrXmlPullReader
{
public:
    enum Token { StartElement, EndElement, Characters, EndDocument, Invalid };

    // The namespaces the workbook reader tells apart; transitional and strict variants map to one
    // value.
    enum class Namespace : quint8 { None, Other, Xml, Declaration, Sheet, OfficeRels, PackageRels };

    struct Limits
    {
        // Bytes a tag or a text run may take once it spans reads of the source, and bytes of text
        // readElementText() may collect.
        int maxTokenSize;
        int maxDepth; // elements open at once
        int maxNamespaceDeclarations; // in scope at once
    };

    struct Attribute
    {
        std::string_view prefix;
        std::string_view name; // local name
        std::string_view value;
        Namespace ns = Namespace::None;
    };

    // The source must outlive the reader.
    KrXmlPullReader(KrByteSource &source, const Limits &limits);
    ~KrXmlPullReader();
    KrXmlPullReader(const KrXmlPullReader &) = delete;
    KrXmlPullReader &operator=(const KrXmlPullReader &) = delete;

    Token readNext();
    bool hasError() const { return m_token == Invalid; }
    QString errorString() const { return m_error; }
    void raiseError(const QString &error)
    {
        if (m_token != Invalid)
            m_error = error;
        m_token = Invalid;
    }

    // Open elements; an end tag's element no longer counts.
    int depth() const { return int(m_stack.size()) - (m_popPending ? 1 : 0); }
    // The element of a start or end tag: its namespace and local name.
    Namespace elementNamespace() const { return m_ns; }
    std::string_view name() const { return m_name; }
    bool isElement(Namespace ns, std::string_view name) const
    {
        return m_ns == ns && m_name == name;
    }
    // The text of a Characters token, references decoded.
    std::string_view text() const { return m_text; }
    const std::vector<Attribute> &attributes() const { return m_attributes; }
    std::string_view attribute(std::string_view name, Namespace ns = Namespace::None) const
    {
        for (const Attribute &attribute : m_attributes) {
            if (attribute.ns == ns && attribute.name == name)
                return attribute.value;
        }
        return std::string_view();
    }
    // Appends the text of the element whose start tag was just read (not that of its children)
    // to `text`, and reads up to its end tag.
    void readElementText(std::string *text);
    // Moves to the next child element of the element at `parentDepth` (with 0, to the document
    // element) and returns true; returns false at that element's end tag, at the end of the
    // document, or on an error. Whatever the caller leaves unread of a child is skipped.
    bool nextChild(int parentDepth);
    // Reads the rest of the document, so that its end is checked; false on an error.
    bool readToEnd();

private:
    struct OpenElement
    {
        size_t nameOffset; // of the qualified name in m_names
        size_t nameSize;
        size_t localOffset; // within the qualified name
        size_t bindings; // m_bindings.size() before the element's declarations
        Namespace ns;
        Namespace defaultBefore; // the default namespace outside the element
    };
    struct AttributeSpan // offsets from the tag's '<'
    {
        size_t nameBegin;
        size_t nameEnd;
        size_t valueBegin;
        size_t valueEnd;
    };
    enum Scan { Complete, NeedMore, Malformed };
    struct Binding
    {
        std::string prefix;
        Namespace ns;
    };
    enum Phase { Prolog, InDocument, Epilog };

    Token fail(const char *what);
    Token fail(const QString &what);
    bool more();
    bool find(std::string_view sequence, size_t from, size_t *at);
    bool start();
    qint64 readSource(char *data, qint64 maxSize);
    QByteArray utf16ToUtf8(const char *data, int size);
    Token readMarkup();
    bool readDeclaration(std::string_view declaration);
    Token emitEnd();
    bool textFits(size_t size);
    bool lookup(std::string_view prefix, Namespace *ns) const;
    // What readNext() does for nearly every token; defined in the .cpp. Forced inline because
    // GCC does not fold members of a class with external linkage into readNext() by itself, and
    // calling them separately costs about 5 % more instructions per worksheet.
    Q_ALWAYS_INLINE bool ensure(size_t size);
    Q_ALWAYS_INLINE bool decode(char *data, size_t *size, bool attribute);
    Q_ALWAYS_INLINE Token readText();
    Q_ALWAYS_INLINE Scan scanStartTag(size_t *nameEnd, size_t *length, bool *selfClosing,
                                      const char **problem);
    Q_ALWAYS_INLINE Token readStartTag();
    Q_ALWAYS_INLINE bool readAttributes(char *tag, bool *declares);
    bool declareNamespaces();
    Q_ALWAYS_INLINE Token readEndTag();
    Q_ALWAYS_INLINE void pop();

    KrByteSource &m_source;
    const Limits m_limits;
    std::unique_ptr<char[]> m_buffer;
    size_t m_capacity = 0;
    size_t m_pos = 0;
    size_t m_end = 0;
    qint64 m_bufferOffset = 0; // stream offset of m_buffer[0]
    bool m_started = false;
    qint64 m_documentStart = 0; // after a byte-order mark: where an XML declaration may be
    bool m_sourceDone = false;
    std::unique_ptr<QTextDecoder> m_decoder; // UTF-16 input only
    QChar m_highSurrogate;
    std::vector<char> m_raw;

    Token m_token = EndDocument;
    Phase m_phase = Prolog;
    Namespace m_ns = Namespace::None;
    std::string_view m_name;
    std::string_view m_text;
    std::vector<Attribute> m_attributes;
    std::vector<OpenElement> m_stack;
    std::string m_names;
    std::vector<Binding> m_bindings;
    Namespace m_defaultNs = Namespace::None;
    std::vector<AttributeSpan> m_spans;
    bool m_pendingEnd = false;
    bool m_popPending = false;
    QString m_error;
    QString m_decodeProblem; // kept, so that decoding constructs no string unless it fails
};

#endif // KRXMLPULLREADER_P_H
