#include <tarnwick/log.h>
#include <tarnwick/strings.h>
#include <tarnwick/utf8.h>
#include <tarnwick/xml.h>

#include <libxml/encoding.h>
#include <libxml/parser.h>
#include <libxml/xmlerror.h>
#include <libxml/xmlmemory.h>
#include <libxml/xpath.h>

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace Tarnwick {

// Name to the parameters of that name: the first in document order and how
// many there are.
struct ParameterIndex {
    struct Entry {
        xmlNodePtr first = nullptr;
        int count = 0;
    };
    std::map<std::string, Entry> entries;
};

namespace {

// The length of the XML character at the start of `text`, 0 when there is
// none: printable ASCII, most of any text, is taken without the full check.
size_t textCharLength(const char* text, size_t length) {
    unsigned char const c = static_cast<unsigned char>(*text);
    if (c >= 0x20 && c < 0x80)
        return 1;
    return xmlTextCharLength(text, length);
}

// Options of every parse of a payload: no network access, and libxml2's
// reports go through the error handlers below rather than the parser's
// printing callbacks. Entity substitution and DTD loading stay off.
const int PARSE_OPTIONS = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;

// The position of the first byte from `i` on that element text can't take
// as it is: a control character, a byte of a multi-byte character, or one
// of < > & ". `length` if there is none. Sixteen bytes at a time where the
// processor has SSE2 (every x86-64 does).
size_t skipPlainText(const char* text, size_t i, size_t length) {
#if defined(__SSE2__)
    __m128i const below = _mm_set1_epi8(0x20);
    __m128i const lt = _mm_set1_epi8('<');
    __m128i const gt = _mm_set1_epi8('>');
    __m128i const amp = _mm_set1_epi8('&');
    __m128i const quote = _mm_set1_epi8('"');
    while (length - i >= 16) {
        __m128i const bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + i));
        // A signed comparison: bytes from 0x80 on are negative, so one test
        // finds both the controls and the non-ASCII bytes.
        __m128i const special = _mm_or_si128(
            _mm_or_si128(_mm_cmplt_epi8(bytes, below), _mm_cmpeq_epi8(bytes, lt)),
            _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(bytes, gt), _mm_cmpeq_epi8(bytes, amp)),
                         _mm_cmpeq_epi8(bytes, quote)));
        int const mask = _mm_movemask_epi8(special);
        if (mask != 0)
            return i + static_cast<size_t>(__builtin_ctz(static_cast<unsigned>(mask)));
        i += 16;
    }
#endif
    for (; i < length; ++i) {
        unsigned char const c = static_cast<unsigned char>(text[i]);
        if (c < 0x20 || c >= 0x80 || c == '<' || c == '>' || c == '&' || c == '"')
            return i;
    }
    return length;
}

// Appends `text` as element content, escaped as libxml2's text writer
// escapes it: the five characters below become references, every other
// byte stays. Checks on the way that the text is XML text (see isXMLText);
// false, with `out` in no defined state, when it isn't.
bool appendEscapedText(const char* text, size_t length, std::string& out) {
    // What a byte asks for: 0 nothing, 1 a reference, 2 the full check of
    // the character it begins (controls and all of non-ASCII).
    static const struct ByteClasses {
        unsigned char of[256];
        ByteClasses() {
            for (int c = 0; c < 256; ++c)
                of[c] = (c >= 0x20 && c < 0x80) ? 0 : 2;
            for (unsigned char c : {'<', '>', '&', '"', '\r'})
                of[c] = 1;
        }
    } classes;
    out.reserve(out.size() + length + length / 8);
    size_t run = 0;
    size_t i = 0;
    while (i < length) {
        i = skipPlainText(text, i, length);
        if (i == length)
            break;
        unsigned char const c = static_cast<unsigned char>(text[i]);
        unsigned char const what = classes.of[c];
        if (what == 0) {
            ++i;
            continue;
        }
        if (what == 2) {
            size_t const step = xmlTextCharLength(text + i, length - i);
            if (step == 0)
                return false;
            i += step;
            continue;
        }
        out.append(text + run, i - run);
        switch (c) {
            case '<':
                out.append("&lt;", 4);
                break;
            case '>':
                out.append("&gt;", 4);
                break;
            case '&':
                out.append("&amp;", 5);
                break;
            case '"':
                out.append("&quot;", 6);
                break;
            default:
                out.append("&#13;", 5);
                break;
        }
        run = ++i;
    }
    out.append(text + run, length - run);
    return true;
}

// Appends `text` as an attribute value, escaped as libxml2's writer escapes
// a value of a document with a declared encoding: the three blanks other
// than the space and the four characters below become references, every
// other byte stays. False, with `out` in no defined state, when the text is
// not XML text.
bool appendEscapedAttribute(const char* text, size_t length, std::string& out) {
    out.reserve(out.size() + length + 8);
    size_t run = 0;
    size_t i = 0;
    while (i < length) {
        unsigned char const c = static_cast<unsigned char>(text[i]);
        const char* reference = nullptr;
        switch (c) {
            case '\n':
                reference = "&#10;";
                break;
            case '\r':
                reference = "&#13;";
                break;
            case '\t':
                reference = "&#9;";
                break;
            case '"':
                reference = "&quot;";
                break;
            case '<':
                reference = "&lt;";
                break;
            case '>':
                reference = "&gt;";
                break;
            case '&':
                reference = "&amp;";
                break;
            default:
                break;
        }
        if (reference == nullptr) {
            size_t const step = textCharLength(text + i, length - i);
            if (step == 0)
                return false;
            i += step;
            continue;
        }
        out.append(text + run, i - run);
        out.append(reference);
        run = ++i;
    }
    out.append(text + run, length - run);
    return true;
}

// What libxml2 reported during one routed call.
struct ErrorCollector {
    std::string first;
    int count = 0;

    void add(const char* message) {
        if (count++ == 0 && message != nullptr)
            first = message;
    }
};

#if LIBXML_VERSION >= 21200
void collectStructured(void* context, const xmlError* error) {
#else
void collectStructured(void* context, xmlErrorPtr error) {
#endif
    static_cast<ErrorCollector*>(context)->add(error != nullptr ? error->message : nullptr);
}

void collectGeneric(void* context, const char* format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    static_cast<ErrorCollector*>(context)->add(text);
}

// Routes libxml2's error reports of the calling thread into a collector for
// the lifetime of the object, and then logs the first of them as one debug
// line. The handlers are per thread in libxml2 2.9 (each thread starts with
// the defaults, which print to standard error), so they are set around each
// call on the thread that makes it, and whatever was set before comes back.
class ErrorRoute {
public:
    ErrorRoute()
        : m_generic(xmlGenericError),
          m_genericContext(xmlGenericErrorContext),
          m_structured(xmlStructuredError),
          m_structuredContext(xmlStructuredErrorContext) {
        xmlSetGenericErrorFunc(&m_errors, collectGeneric);
        xmlSetStructuredErrorFunc(&m_errors, collectStructured);
    }
    ~ErrorRoute() {
        xmlSetStructuredErrorFunc(m_structuredContext, m_structured);
        xmlSetGenericErrorFunc(m_genericContext, m_generic);
        if (m_errors.count == 0)
            return;
        std::string message = m_errors.first;
        while (!message.empty() && (message.back() == '\n' || message.back() == '\r'))
            message.pop_back();
        int const saved = errno;
        TW_LOG("%D DEBUG (%t): libxml2: %C\n", message.c_str());
        errno = saved;
    }
    ErrorRoute(const ErrorRoute&) = delete;
    ErrorRoute& operator=(const ErrorRoute&) = delete;

private:
    ErrorCollector m_errors;
    xmlGenericErrorFunc m_generic;
    void* m_genericContext;
    xmlStructuredErrorFunc m_structured;
    void* m_structuredContext;
};

// A linear check of the markup of a payload before libxml2 sees it. The
// parser of libxml2 2.9 compares each attribute of a start tag with all
// attributes before it, and looks namespace prefixes up through every
// declaration in scope: both grow with the square of what a peer sends. An
// event payload has one attribute per element and no namespaces, so a start
// tag with more than MAX_ATTRIBUTES attributes, or a document with more than
// MAX_NAMESPACES namespace declarations, is refused; that bounds the
// parser's work per byte. The scan follows the bytes as a stream, so a file
// can be fed in pieces.
//
// An attribute can't span a '<' (a value may not hold one, and the parser
// ends a tag there), and every attribute has its '=': so counting the '='
// outside quoted values from a '<' to the next '>' or '<' never misses an
// attribute. Markup that is no start tag ('<!', '<?', '</') counts nothing.
class MarkupBudget {
public:
    static const int MAX_ATTRIBUTES = 256;
    static const int MAX_NAMESPACES = 256;

    void feed(const char* data, size_t length) {
        const char* position = data;
        const char* const end = data + length;
        while (position < end && m_refusal == nullptr) {
            // Character data, most of a payload, counts for nothing: skip to
            // the next markup.
            if (m_state == TEXT) {
                const void* const open = std::memchr(position, '<', end - position);
                if (open == nullptr)
                    return;
                position = static_cast<const char*>(open) + 1;
                m_state = OPEN;
                continue;
            }
            step(*position++);
        }
    }
    // Null while the payload is within bounds, else what it exceeded.
    const char* refusal() const { return m_refusal; }

private:
    enum State { TEXT, OPEN, TAG, EQUALS, VALUE };

    static bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

    void step(char c) {
        switch (m_state) {
            case TEXT:
                if (c == '<')
                    m_state = OPEN;
                return;
            case OPEN:
                if (c == '!' || c == '?' || c == '/') {
                    m_state = TEXT;
                    return;
                }
                if (c == '<')
                    return;
                m_state = TAG;
                m_attributes = 0;
                m_token.clear();
                m_lastToken.clear();
                tagChar(c);
                return;
            case TAG:
                tagChar(c);
                return;
            case EQUALS:
                if (c == '"' || c == '\'') {
                    m_quote = c;
                    m_state = VALUE;
                } else if (c == '<') {
                    m_state = OPEN;
                } else if (c == '>') {
                    m_state = TEXT;
                } else if (!isBlank(c)) {
                    m_state = TAG;
                    tagChar(c);
                }
                return;
            case VALUE:
                if (c == m_quote) {
                    m_state = TAG;
                    m_token.clear();
                    m_lastToken.clear();
                } else if (c == '<') {
                    m_state = OPEN;
                }
                return;
        }
    }

    void tagChar(char c) {
        if (c == '<') {
            m_state = OPEN;
        } else if (c == '>') {
            m_state = TEXT;
        } else if (c == '=') {
            const std::string& name = m_token.empty() ? m_lastToken : m_token;
            if (name.compare(0, 5, "xmlns") == 0 && ++m_namespaces > MAX_NAMESPACES)
                m_refusal = "more than 256 namespace declarations";
            if (++m_attributes > MAX_ATTRIBUTES)
                m_refusal = "more than 256 attributes in one element";
            m_token.clear();
            m_lastToken.clear();
            m_state = EQUALS;
        } else if (isBlank(c)) {
            if (!m_token.empty())
                m_lastToken.swap(m_token);
            m_token.clear();
        } else if (m_token.size() < 5) {
            // The first characters of a name tell a namespace declaration.
            m_token += c;
        }
    }

    State m_state = TEXT;
    char m_quote = 0;
    int m_attributes = 0;
    int m_namespaces = 0;
    std::string m_token;
    std::string m_lastToken;
    const char* m_refusal = nullptr;
};

// Why the last parse of this thread refused its payload before libxml2 saw
// it; empty otherwise.
thread_local std::string lastRefusal;

// Logs and remembers a refused payload.
// libxml2 must be set up once before threads use it; every entry of this
// layer that reaches libxml2 calls this first, so programs need not.
void initParserOnce() {
    static std::once_flag once;
    std::call_once(once, [] { xmlInitParser(); });
}

void refuse(const char* reason) {
    lastRefusal = reason;
    TW_LOG("%D DEBUG (%t): XML payload refused: %C\n", reason);
}

// The query text that selects the parameter `name`, for messages only: it
// is never evaluated.
std::string parameterQueryText(const char* name) {
    std::string query("//message/param[@name='");
    query += name;
    query += "']";
    return query;
}

// True for an element of that name in no namespace, as an XPath name test
// without a prefix selects it.
bool isElement(xmlNodePtr node, const char* name) {
    return node != nullptr && node->type == XML_ELEMENT_NODE && node->ns == nullptr &&
           xmlStrEqual(node->name, reinterpret_cast<const xmlChar*>(name));
}

// The value of an attribute made of text nodes only. An attribute that
// holds an entity reference has no plain value: false.
bool attributeText(xmlAttrPtr attribute, std::string& out) {
    out.clear();
    for (xmlNodePtr child = attribute->children; child != nullptr; child = child->next) {
        if (child->type != XML_TEXT_NODE)
            return false;
        if (child->content != nullptr)
            out += reinterpret_cast<const char*>(child->content);
    }
    return true;
}

// Content of a node as narrow text; nodes that carry no text of their own
// (an element as first child, for one) read as the empty string.
const char* contentOf(xmlNodePtr node) {
    return node->content != nullptr ? reinterpret_cast<const char*>(node->content) : "";
}

// Handles the result of a parse: keeps the document, or tells apart a parse
// that libxml2 reports as failed from one that produced nothing silently.
int takeParseResult(xmlDocPtr parsed, xmlDocPtr& doc) {
    if (parsed != nullptr) {
        doc = parsed;
        return 0;
    }
    xmlErrorPtr error = xmlGetLastError();
    if (error == nullptr && !lastRefusal.empty()) {
        TW_LOG("%D ERROR (%t): internal error: XML parse error: %C\n", lastRefusal.c_str());
        return -1;
    }
    if (error == nullptr) {
        // Nothing parsed and nothing reported: accepted, and a later query
        // says that no document is held.
        return 0;
    }
    TW_LOG("%D ERROR (%t): internal error: XML parse error: %C\n",
           error->message != nullptr ? error->message : "");
    return -1;
}

// The XPath evaluation that all queries share. On success `context` and
// `result` are set and the caller frees both (result first); on failure
// nothing is left to free. `quiet` suppresses the messages.
int evaluate(xmlDocPtr doc, const char* xpath, bool quiet, xmlXPathContextPtr& context,
             xmlXPathObjectPtr& result) {
    context = nullptr;
    result = nullptr;
    if (doc == nullptr) {
        if (!quiet) {
            TW_LOG_ERRNO("%D ERROR (%t): Internal error: xpath query without parsed document.");
        }
        return -1;
    }
    context = xmlXPathNewContext(doc);
    if (context == nullptr) {
        if (!quiet) {
            TW_LOG_ERRNO("%D ERROR (%t): Internal error: can not create an xpath context.");
        }
        return -1;
    }
    {
        ErrorRoute route;
        result = xmlXPathEvalExpression(reinterpret_cast<const xmlChar*>(xpath), context);
    }
    if (result == nullptr) {
        xmlXPathFreeContext(context);
        context = nullptr;
        if (!quiet) {
            TW_LOG_ERRNO(
                "%D ERROR (%t): An error occurred while evaluating an xpath expression.\n");
        }
        return -1;
    }
    return 0;
}

// The text of a selected element into `out`: empty for an element without
// children, the content of its first child otherwise. 0, or -1 when it
// doesn't fit.
int copyElementText(xmlNodePtr node, char* out, uint64_t size) {
    if (node->children == nullptr) {
        out[0] = 0;
        return 0;
    }
    return Tarnwick::strcpy(out, contentOf(node->children), static_cast<size_t>(size)) == nullptr
               ? -1
               : 0;
}

// The content of the element's first child in a new buffer (delete[]); null
// without a child or memory.
char* copyElementTextMalloced(xmlNodePtr node) {
    if (node->children == nullptr)
        return nullptr;
    const char* text = contentOf(node->children);
    size_t const length = static_cast<size_t>(xmlStrlen(BAD_CAST text));
    char* value = new (std::nothrow) char[length + 1];
    if (value == nullptr) {
        errno = ENOMEM;
    } else if (Tarnwick::strcpy(value, text, length + 1) == nullptr) {
        delete[] value;
        value = nullptr;
    } else {
        value[length] = 0;
    }
    return value;
}

// The children of `node` with a "name" attribute, into `out` without
// replacing entries.
void collectNamedChildren(xmlNodePtr node, std::map<std::string, std::string>& out) {
    for (xmlNodePtr child = node->children; child != nullptr; child = child->next) {
        if (child->type != XML_ELEMENT_NODE) {
            continue;  // whitespace between the elements, comments
        }
        xmlChar* name = xmlGetProp(child, BAD_CAST "name");
        if (name == nullptr) {
            continue;
        }
        // insert keeps an entry already present: the first of a name wins.
        out.insert(std::make_pair(
            std::string(reinterpret_cast<const char*>(name)),
            std::string(child->children != nullptr ? contentOf(child->children) : "")));
        xmlFree(name);
    }
}

void release(xmlXPathContextPtr context, xmlXPathObjectPtr result) {
    xmlXPathFreeObject(result);
    xmlXPathFreeContext(context);
}

// Number of nodes in a query result; 0 when the result is no node set.
int nodeCount(xmlXPathObjectPtr result) {
    return result->nodesetval != nullptr ? result->nodesetval->nodeNr : 0;
}

// Ends the document unless that was done and frees the writer. The writer
// flushes into its output as it ends, so this comes before freeing a buffer.
void finishWriter(xmlTextWriterPtr& writer, bool& ended) {
    if (writer == nullptr) {
        return;
    }
    if (!ended) {
        xmlTextWriterEndDocument(writer);
    }
    ended = true;
    xmlFreeTextWriter(writer);
    writer = nullptr;
}

}  // namespace

// ---------------------------------------------------------------------------
// XMLDocument

XMLDocument::XMLDocument() : doc(nullptr), index() {}

XMLDocument::~XMLDocument() {
    if (doc != nullptr) {
        xmlFreeDoc(doc);
    }
}

int XMLDocument::parseFile(const char* path) {
    if (doc != nullptr) {
        return 0;
    }
    return takeParseResult(parsePayloadFile(path), doc);
}

int XMLDocument::parseMemory(const char* text, uint32_t length) {
    if (doc != nullptr) {
        return 0;
    }
    return takeParseResult(parsePayload(text, length), doc);
}

int XMLDocument::queryValue(const char* xpath, char* out, uint64_t size) {
    xmlXPathContextPtr context;
    xmlXPathObjectPtr result;
    if (evaluate(doc, xpath, false, context, result) != 0) {
        return -1;
    }
    int const count = nodeCount(result);
    int rc = 0;
    if (count == 0) {
        // An absent value is no error; the caller's preset stays.
        rc = 0;
    } else if (count > 1) {
        TW_LOG("%D ERROR (%t): Invalid node and/or size: expected 1, got %d (query = %C)", count,
               xpath);
        rc = -1;
    } else {
        xmlNodePtr node = result->nodesetval->nodeTab[0];
        rc = node->type != XML_ELEMENT_NODE ? -1 : copyElementText(node, out, size);
    }
    release(context, result);
    return rc;
}

char* XMLDocument::queryValueMalloced(const char* xpath) {
    xmlXPathContextPtr context;
    xmlXPathObjectPtr result;
    if (evaluate(doc, xpath, true, context, result) != 0) {
        return nullptr;
    }
    char* value = nullptr;
    if (nodeCount(result) == 1) {
        xmlNodePtr node = result->nodesetval->nodeTab[0];
        if (node->type == XML_ELEMENT_NODE)
            value = copyElementTextMalloced(node);
    }
    release(context, result);
    return value;
}

int XMLDocument::queryMap(const char* xpath, std::map<std::string, std::string>& out) {
    xmlXPathContextPtr context;
    xmlXPathObjectPtr result;
    if (evaluate(doc, xpath, false, context, result) != 0) {
        return -1;
    }
    int rc = 0;
    if (nodeCount(result) != 1) {
        rc = -1;
    } else {
        collectNamedChildren(result->nodesetval->nodeTab[0], out);
    }
    release(context, result);
    return rc;
}

const ParameterIndex* XMLDocument::parameters() {
    if (doc == nullptr)
        return nullptr;
    if (!index) {
        index.reset(new ParameterIndex());
        std::map<std::string, ParameterIndex::Entry>& entries = index->entries;
        forEachParameter(doc, [&entries](const std::string& name, xmlNodePtr param) {
            ParameterIndex::Entry& entry = entries[name];
            if (entry.count++ == 0)
                entry.first = param;
        });
    }
    return index.get();
}

int XMLDocument::queryParameter(const char* name, char* out, uint64_t size) {
    const ParameterIndex* params = parameters();
    if (params == nullptr) {
        TW_LOG_ERRNO("%D ERROR (%t): Internal error: xpath query without parsed document.");
        return -1;
    }
    auto found = params->entries.find(name);
    if (found == params->entries.end()) {
        // An absent value is no error; the caller's preset stays.
        return 0;
    }
    if (found->second.count > 1) {
        TW_LOG("%D ERROR (%t): Invalid node and/or size: expected 1, got %d (query = %C)",
               found->second.count, parameterQueryText(name).c_str());
        return -1;
    }
    return copyElementText(found->second.first, out, size);
}

char* XMLDocument::queryParameterMalloced(const char* name) {
    const ParameterIndex* params = parameters();
    if (params == nullptr)
        return nullptr;
    auto found = params->entries.find(name);
    if (found == params->entries.end() || found->second.count != 1)
        return nullptr;
    return copyElementTextMalloced(found->second.first);
}

int XMLDocument::queryParameterMap(const char* name, std::map<std::string, std::string>& out) {
    const ParameterIndex* params = parameters();
    if (params == nullptr) {
        TW_LOG_ERRNO("%D ERROR (%t): Internal error: xpath query without parsed document.");
        return -1;
    }
    auto found = params->entries.find(name);
    if (found == params->entries.end() || found->second.count != 1)
        return -1;
    collectNamedChildren(found->second.first, out);
    return 0;
}

// ---------------------------------------------------------------------------
// XMLWriter

XMLWriter::XMLWriter() : writer(nullptr), encoding(nullptr), ended(false), depth(0) {}

XMLWriter::~XMLWriter() {
    finishWriter(writer, ended);
    delete[] encoding;
    encoding = nullptr;
}

const char* XMLWriter::encodingName() const {
    return encoding != nullptr ? encoding : "UTF-8";
}

int XMLWriter::open(uint32_t /*flags*/) {
    return -1;
}

int XMLWriter::startElement(const char* prefix, const char* namespaceUri, const char* name) {
    if (writer == nullptr) {
        return -1;
    }
    if (name == nullptr || xmlValidateName(BAD_CAST name, 0) != 0 ||
        (prefix != nullptr && xmlValidateNCName(BAD_CAST prefix, 0) != 0) ||
        (namespaceUri != nullptr && !isXMLText(namespaceUri))) {
        return -1;
    }
    int rc;
    if (prefix == nullptr && namespaceUri == nullptr) {
        rc = xmlTextWriterStartElement(writer, BAD_CAST name);
    } else {
        rc = xmlTextWriterStartElementNS(writer, BAD_CAST prefix, BAD_CAST name,
                                         BAD_CAST namespaceUri);
    }
    if (rc < 0)
        return -1;
    ++depth;
    return 0;
}

int XMLWriter::writeAttribute(const char* name, const char* value) {
    if (writer == nullptr) {
        return -1;
    }
    if (name == nullptr || value == nullptr || xmlValidateName(BAD_CAST name, 0) != 0 ||
        !isXMLText(value)) {
        return -1;
    }
    return xmlTextWriterWriteFormatAttribute(writer, BAD_CAST name, "%s", value) < 0 ? -1 : 0;
}

int XMLWriter::writeString(const char* text) {
    if (writer == nullptr) {
        return -1;
    }
    // UTF-8 text inside an element, the common case, needs no conversion:
    // it is checked in place and escaped here, as libxml2 would escape it,
    // without the copies and allocations of the general path.
    if (encoding == nullptr && depth > 0) {
        if (text == nullptr)
            return -1;
        escaped.clear();
        if (!appendEscapedText(text, std::strlen(text), escaped))
            return -1;
        if (escaped.size() > static_cast<size_t>(INT_MAX))
            return -1;
        return xmlTextWriterWriteRawLen(writer, reinterpret_cast<const xmlChar*>(escaped.data()),
                                        static_cast<int>(escaped.size())) < 0
                   ? -1
                   : 0;
    }
    // Text that doesn't convert comes back null, and libxml2 refuses null
    // content: nothing is written and the call fails.
    xmlChar* converted = convertInput(text, encodingName());
    int const rc = xmlTextWriterWriteString(writer, converted);
    if (converted != nullptr) {
        xmlFree(converted);
    }
    return rc < 0 ? -1 : 0;
}

int XMLWriter::endElement() {
    if (writer == nullptr) {
        return -1;
    }
    if (xmlTextWriterEndElement(writer) < 0)
        return -1;
    if (depth > 0)
        --depth;
    return 0;
}

// ---------------------------------------------------------------------------
// XMLMemoryWriter

XMLMemoryWriter::XMLMemoryWriter() : buffer(nullptr) {}

XMLMemoryWriter::~XMLMemoryWriter() {
    // The writer flushes into the buffer when it ends, so it goes first.
    finishWriter(writer, ended);
    if (buffer != nullptr) {
        xmlBufferFree(buffer);
        buffer = nullptr;
    }
}

int XMLMemoryWriter::open(uint32_t flags) {
    initParserOnce();
    if (writer != nullptr) {
        return 0;
    }
    xmlBufferPtr newBuffer = xmlBufferCreate();
    if (newBuffer == nullptr) {
        return -1;
    }
    xmlTextWriterPtr newWriter = xmlNewTextWriterMemory(newBuffer, static_cast<int>(flags & 1));
    if (newWriter == nullptr) {
        xmlBufferFree(newBuffer);
        return -1;
    }
    if ((flags & 2) != 0) {
        xmlTextWriterSetIndent(newWriter, 1);
    }
    if (xmlTextWriterStartDocument(newWriter, nullptr, encodingName(), nullptr) < 0) {
        xmlFreeTextWriter(newWriter);
        xmlBufferFree(newBuffer);
        return -1;
    }
    writer = newWriter;
    buffer = newBuffer;
    return 0;
}

const char* XMLMemoryWriter::content() {
    if (buffer == nullptr) {
        return nullptr;
    }
    if (writer != nullptr) {
        xmlTextWriterFlush(writer);
    }
    return reinterpret_cast<const char*>(xmlBufferContent(buffer));
}

int64_t XMLMemoryWriter::length() {
    if (buffer == nullptr) {
        return -1;
    }
    if (writer != nullptr) {
        xmlTextWriterFlush(writer);
    }
    return static_cast<int64_t>(xmlBufferLength(buffer));
}

// ---------------------------------------------------------------------------
// PayloadWriter

PayloadWriter::PayloadWriter(std::string& out)
    : m_out(out), m_names(), m_depth(0), m_tagOpen(false), m_indentEnd(false) {}

void PayloadWriter::startDocument() {
    m_out.append("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n");
}

void PayloadWriter::closeStartTag() {
    if (m_tagOpen) {
        m_out.append(">\n", 2);
        m_tagOpen = false;
    }
}

bool PayloadWriter::startElement(const char* name) {
    if (m_depth == Max_Depth)
        return false;
    closeStartTag();
    m_out.append(static_cast<size_t>(m_depth), ' ');
    m_out.push_back('<');
    m_out.append(name);
    m_names[m_depth++] = name;
    m_tagOpen = true;
    return true;
}

bool PayloadWriter::writeAttribute(const char* name, const char* value, size_t length) {
    if (!m_tagOpen)
        return false;
    size_t const mark = m_out.size();
    m_out.push_back(' ');
    m_out.append(name);
    m_out.append("=\"", 2);
    if (!appendEscapedAttribute(value, length, m_out)) {
        m_out.resize(mark);
        return false;
    }
    m_out.push_back('"');
    return true;
}

bool PayloadWriter::writeString(const char* text, size_t length) {
    if (m_depth == 0)
        return false;
    size_t const mark = m_out.size();
    if (m_tagOpen)
        m_out.push_back('>');
    if (!appendEscapedText(text, length, m_out)) {
        m_out.resize(mark);
        return false;
    }
    m_tagOpen = false;
    m_indentEnd = false;
    return true;
}

bool PayloadWriter::endElement() {
    if (m_depth == 0)
        return false;
    --m_depth;
    if (m_tagOpen) {
        m_out.append("/>", 2);
        m_tagOpen = false;
    } else {
        if (m_indentEnd)
            m_out.append(static_cast<size_t>(m_depth), ' ');
        m_out.append("</", 2);
        m_out.append(m_names[m_depth]);
        m_out.push_back('>');
    }
    m_out.push_back('\n');
    m_indentEnd = true;
    return true;
}

// ---------------------------------------------------------------------------

xmlChar* convertInput(const char* text, const char* encoding) {
    if (text == nullptr) {
        return nullptr;
    }
    xmlCharEncodingHandlerPtr handler = xmlFindCharEncodingHandler(encoding);
    if (handler == nullptr) {
        return nullptr;
    }
    xmlChar* out = nullptr;
    size_t const length = std::strlen(text);
    // Handlers that libxml2 builds on iconv have no direct input function;
    // such an encoding converts nothing here.
    if (handler->input != nullptr && length <= static_cast<size_t>(INT_MAX - 1) / 2) {
        int const capacity = static_cast<int>(2 * length + 1);
        out = static_cast<xmlChar*>(xmlMalloc(static_cast<size_t>(capacity)));
        if (out != nullptr) {
            int outLength = capacity;
            int inLength = static_cast<int>(length);
            int const rc =
                handler->input(out, &outLength, reinterpret_cast<const xmlChar*>(text), &inLength);
            // The handlers convert to UTF-8, and the UTF-8 one copies without
            // a check: the result must be text that a parser reads back.
            if (rc < 0 || inLength != static_cast<int>(length) || outLength < 0 ||
                !isXMLText(reinterpret_cast<const char*>(out), static_cast<size_t>(outLength))) {
                xmlFree(out);
                out = nullptr;
            } else {
                xmlChar* shrunk =
                    static_cast<xmlChar*>(xmlRealloc(out, static_cast<size_t>(outLength) + 1));
                if (shrunk == nullptr) {
                    xmlFree(out);
                    out = nullptr;
                } else {
                    out = shrunk;
                    out[outLength] = 0;
                }
            }
        }
    }
    // Releases handlers made for this call (iconv); built-in ones stay.
    xmlCharEncCloseFunc(handler);
    return out;
}

bool isXMLText(const char* text, size_t length) {
    size_t position = 0;
    while (position < length) {
        size_t const step = textCharLength(text + position, length - position);
        if (step == 0)
            return false;
        position += step;
    }
    return true;
}

bool isXMLText(const char* text) {
    return text != nullptr && isXMLText(text, std::strlen(text));
}

xmlDocPtr parsePayload(const char* text, size_t length) {
    initParserOnce();
    // Only an error of this parse may count, not one left from earlier work.
    xmlResetLastError();
    lastRefusal.clear();
    if (text == nullptr || length > static_cast<size_t>(INT_MAX))
        return nullptr;
    MarkupBudget budget;
    budget.feed(text, length);
    if (budget.refusal() != nullptr) {
        refuse(budget.refusal());
        return nullptr;
    }
    ErrorRoute route;
    return xmlReadMemory(text, static_cast<int>(length), nullptr, nullptr, PARSE_OPTIONS);
}

namespace {

// A parser context of one thread, reused by withParsedPayload: making and
// freeing a context and its dictionary for every payload costs about a
// fifth of the parse. Each document it makes shares its dictionary and is
// freed on this thread before the next parse, so the dictionary is never
// used by two threads. The dictionary keeps every name it has seen; past
// MAX_NAMES the context is dropped and the next parse makes a new one, so
// names from peers can't make it grow without bound.
class ThreadParser {
public:
    static const size_t MAX_NAMES = 1024;

    ~ThreadParser() {
        if (m_context != nullptr)
            xmlFreeParserCtxt(m_context);
    }

    // True when the context is ready for this thread's parse: made on first
    // use; false while one is in use on this thread or when none can be
    // made.
    bool acquire() {
        if (m_busy)
            return false;
        if (m_context == nullptr)
            m_context = xmlNewParserCtxt();
        if (m_context != nullptr)
            m_busy = true;
        return m_busy;
    }

    void release() {
        m_busy = false;
        if (m_context != nullptr && m_context->dict != nullptr &&
            static_cast<size_t>(xmlDictSize(m_context->dict)) > MAX_NAMES) {
            xmlFreeParserCtxt(m_context);
            m_context = nullptr;
        }
    }

    // xmlReadMemory with the thread's context: the same document and the
    // same reports. Like xmlReadMemory, an empty text is no document and no
    // error.
    xmlDocPtr read(const char* text, size_t length) {
        if (length == 0)
            return nullptr;
        return xmlCtxtReadMemory(m_context, text, static_cast<int>(length), nullptr, nullptr,
                                 PARSE_OPTIONS);
    }

private:
    xmlParserCtxtPtr m_context = nullptr;
    bool m_busy = false;
};

thread_local ThreadParser threadParser;

}  // namespace

void withParsedPayload(const char* text, size_t length, const std::function<void(xmlDocPtr)>& use) {
    initParserOnce();
    if (!threadParser.acquire()) {
        xmlDocPtr const doc = parsePayload(text, length);
        use(doc);
        if (doc != nullptr)
            xmlFreeDoc(doc);
        return;
    }
    // The steps of parsePayload, with the thread's context for the parse.
    xmlResetLastError();
    lastRefusal.clear();
    xmlDocPtr doc = nullptr;
    if (text != nullptr && length <= static_cast<size_t>(INT_MAX)) {
        MarkupBudget budget;
        budget.feed(text, length);
        if (budget.refusal() != nullptr) {
            refuse(budget.refusal());
        } else {
            ErrorRoute route;
            doc = threadParser.read(text, length);
        }
    }
    // Freed before the context is let go, whatever `use` does.
    struct Release {
        xmlDocPtr doc;
        ~Release() {
            if (doc != nullptr)
                xmlFreeDoc(doc);
            threadParser.release();
        }
    } const release{doc};
    use(doc);
}

namespace {

// Reads a payload in the form that PayloadWriter gives to the parameters of
// an event, without libxml2: the declaration, a "message" element, its
// "param" children with one "name" attribute each, holding text or "param"
// children that hold text, and blanks between elements. Anything else, even
// what is well-formed XML (a comment, a character reference other than the
// five the writers make, a raw carriage return, text out of place, markup
// nested deeper), makes it give up, and the payload goes to libxml2. Within
// that form it answers what forEachParameter answers over libxml2's document
// of the same text, having checked every character as libxml2 checks it.
class PlainPayloadReader {
public:
    static const size_t MAX_LENGTH = 1 << 20;

    struct Parameter {
        size_t nameStart, nameLength;    // in m_names
        size_t valueStart, valueLength;  // in m_values
        bool hasValue;
    };

    // True when the whole payload is in the form; then parameters() and
    // name() / value() tell what it holds.
    bool read(const char* text, size_t length) {
        m_parameters.clear();
        m_names.clear();
        m_values.clear();
        m_position = text;
        // One zero byte may end the text, as it ends every payload.
        m_end = text + length;
        if (length > 0 && m_end[-1] == '\0')
            --m_end;
        if (!literal("<?xml version=\"1.0\" encoding=\"UTF-8\"?>") || !blanks() ||
            !literal("<message"))
            return false;
        if (literal("/>"))
            return blanks() && m_position == m_end;
        if (!literal(">"))
            return false;
        for (;;) {
            if (!blanks())
                return false;
            if (literal("</message>"))
                return blanks() && m_position == m_end;
            if (!topParameter())
                return false;
        }
    }

    const std::vector<Parameter>& parameters() const { return m_parameters; }
    const char* name(const Parameter& p) const { return m_names.data() + p.nameStart; }
    const char* value(const Parameter& p) const { return m_values.data() + p.valueStart; }

private:
    bool literal(const char* word) {
        size_t const n = std::strlen(word);
        if (static_cast<size_t>(m_end - m_position) < n || std::memcmp(m_position, word, n) != 0)
            return false;
        m_position += n;
        return true;
    }

    // Blanks between elements. False when the text there is anything else.
    bool blanks() {
        while (m_position < m_end &&
               (*m_position == ' ' || *m_position == '\n' || *m_position == '\t'))
            ++m_position;
        return m_position == m_end || *m_position == '<';
    }

    // `<param name="NAME"`, the name appended to m_names with a zero byte.
    bool paramStart(size_t& start, size_t& length) {
        if (!literal("<param name=\""))
            return false;
        start = m_names.size();
        const char* const from = m_position;
        while (m_position < m_end && *m_position != '"') {
            unsigned char const c = static_cast<unsigned char>(*m_position);
            // Markup, references and blanks other than the space (which an
            // attribute value turns into spaces) are left to libxml2.
            if (c == '<' || c == '&' || c < 0x20)
                return false;
            if (c < 0x80) {
                ++m_position;
                continue;
            }
            size_t const step = xmlTextCharLength(m_position, m_end - m_position);
            if (step == 0)
                return false;
            m_position += step;
        }
        if (m_position == m_end)
            return false;
        length = m_position - from;
        m_names.append(from, length);
        m_names.push_back('\0');
        ++m_position;
        return true;
    }

    // Character data up to the next '<', decoded and appended to m_values.
    bool characters() {
        while (m_position < m_end) {
            const char* const run = m_position;
            size_t const stop = skipPlainText(m_position, 0, m_end - m_position);
            m_position += stop;
            m_values.append(run, stop);
            if (m_position == m_end)
                return false;
            unsigned char const c = static_cast<unsigned char>(*m_position);
            if (c == '<')
                return true;
            if (c == '&') {
                if (!reference())
                    return false;
                continue;
            }
            // '>' could end "]]>", '"' is plain text, a carriage return is
            // normalised by the parser: only the last two are simple.
            if (c == '"' || c == '\t' || c == '\n') {
                m_values.push_back(static_cast<char>(c));
                ++m_position;
                continue;
            }
            if (c < 0x80)
                return false;
            size_t const step = xmlTextCharLength(m_position, m_end - m_position);
            if (step == 0)
                return false;
            m_values.append(m_position, step);
            m_position += step;
        }
        return false;
    }

    bool reference() {
        static const struct {
            const char* text;
            char value;
        } known[] = {
            {"&lt;", '<'}, {"&gt;", '>'}, {"&amp;", '&'}, {"&quot;", '"'}, {"&#13;", '\r'}};
        for (const auto& k : known) {
            if (literal(k.text)) {
                m_values.push_back(k.value);
                return true;
            }
        }
        return false;
    }

    // The rest of a parameter after its name: "/>", or ">" text "</param>".
    // `nested` allows "param" children (a group) before the end tag.
    bool parameterBody(bool nested, Parameter& p) {
        p.valueStart = m_values.size();
        p.valueLength = 0;
        p.hasValue = false;
        if (literal("/>"))
            return finishValue(p);
        if (!literal(">") || !characters())
            return false;
        // The text before the first child element, or the whole text.
        p.valueLength = m_values.size() - p.valueStart;
        p.hasValue = p.valueLength > 0;
        if (literal("</param>"))
            return finishValue(p);
        if (!nested)
            return false;
        size_t const kept = m_values.size();
        while (!literal("</param>")) {
            Parameter inner;
            if (!paramStart(inner.nameStart, inner.nameLength) || !parameterBody(false, inner))
                return false;
            // The children are checked, not kept: only top-level parameters
            // count.
            m_names.resize(inner.nameStart);
            m_values.resize(kept);
            if (!characters())
                return false;
            m_values.resize(kept);
        }
        return finishValue(p);
    }

    bool finishValue(Parameter& p) {
        m_values.resize(p.valueStart + p.valueLength);
        m_values.push_back('\0');
        return true;
    }

    bool topParameter() {
        Parameter p;
        if (!paramStart(p.nameStart, p.nameLength) || !parameterBody(true, p))
            return false;
        m_parameters.push_back(p);
        return true;
    }

    const char* m_position = nullptr;
    const char* m_end = nullptr;
    std::vector<Parameter> m_parameters;
    std::string m_names;
    std::string m_values;
};

// The reader of each thread, kept for the capacity of its buffers; one
// visit that reads another payload reads it with a reader of its own.
thread_local PlainPayloadReader plainReader;
thread_local bool plainReaderBusy = false;

}  // namespace

bool readsWithoutParser(const char* text, size_t length) {
    try {
        PlainPayloadReader reader;
        return text != nullptr && length <= PlainPayloadReader::MAX_LENGTH &&
               reader.read(text, length);
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool readPayloadParameters(
    const char* text, size_t length,
    const std::function<void(const std::string& name, const char* value)>& visit) {
    PlainPayloadReader nested;
    PlainPayloadReader& reader = plainReaderBusy ? nested : plainReader;
    bool plain = false;
    // Large texts are left to libxml2, whose limits on the length of a text
    // node or an attribute value then apply as before.
    if (text != nullptr && length <= PlainPayloadReader::MAX_LENGTH) {
        try {
            plain = reader.read(text, length);
        } catch (const std::bad_alloc&) {
            plain = false;
        }
    }
    if (plain) {
        struct Busy {
            bool was = plainReaderBusy;
            Busy() { plainReaderBusy = true; }
            ~Busy() { plainReaderBusy = was; }
        } const busy;
        initParserOnce();
        // As a parse would: the last error and refusal are this payload's.
        xmlResetLastError();
        lastRefusal.clear();
        std::string name;
        for (const PlainPayloadReader::Parameter& p : reader.parameters()) {
            name.assign(reader.name(p), p.nameLength);
            visit(name, p.hasValue ? reader.value(p) : nullptr);
        }
        return true;
    }
    bool parsed = false;
    withParsedPayload(text, length, [&visit, &parsed](xmlDocPtr doc) {
        parsed = doc != nullptr;
        forEachParameter(doc, [&visit](const std::string& name, xmlNodePtr param) {
            xmlNodePtr const first = param->children;
            visit(name, first != nullptr && first->content != nullptr
                            ? reinterpret_cast<const char*>(first->content)
                            : nullptr);
        });
    });
    return parsed;
}

xmlDocPtr parsePayloadFile(const char* path) {
    initParserOnce();
    xmlResetLastError();
    lastRefusal.clear();
    if (path == nullptr)
        return nullptr;
    // The file is scanned first, in pieces; a file that can't be read here is
    // left to libxml2, which reports it.
    int const fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        MarkupBudget budget;
        std::vector<char> piece(65536);
        ssize_t count;
        while ((count = ::read(fd, piece.data(), piece.size())) > 0 && budget.refusal() == nullptr)
            budget.feed(piece.data(), static_cast<size_t>(count));
        ::close(fd);
        if (budget.refusal() != nullptr) {
            refuse(budget.refusal());
            return nullptr;
        }
    }
    ErrorRoute route;
    return xmlReadFile(path, nullptr, PARSE_OPTIONS);
}

void forEachParameter(xmlDocPtr doc,
                      const std::function<void(const std::string& name, xmlNodePtr param)>& visit) {
    if (doc == nullptr)
        return;
    // A walk of the element tree in document order, without recursion: down
    // to the first child, else on to the next sibling of the node or of its
    // nearest ancestor that has one.
    xmlNodePtr const top = reinterpret_cast<xmlNodePtr>(doc);
    std::string name;
    xmlNodePtr node = doc->children;
    while (node != nullptr) {
        if (isElement(node, "param") && isElement(node->parent, "message")) {
            for (xmlAttrPtr attribute = node->properties; attribute != nullptr;
                 attribute = attribute->next) {
                if (attribute->ns == nullptr &&
                    xmlStrEqual(attribute->name, reinterpret_cast<const xmlChar*>("name"))) {
                    if (attributeText(attribute, name))
                        visit(name, node);
                    break;
                }
            }
        }
        if (node->type == XML_ELEMENT_NODE && node->children != nullptr) {
            node = node->children;
            continue;
        }
        while (node != nullptr && node->next == nullptr) {
            node = node->parent;
            if (node == top)
                node = nullptr;
        }
        if (node != nullptr)
            node = node->next;
    }
}

}  // namespace Tarnwick
