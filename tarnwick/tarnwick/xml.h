// Thin wrappers over libxml2 for event payloads: a parsed document that
// answers queries, and a writer that builds a document in memory. All text of
// this layer is narrow UTF-8.
//
// Payloads come from peers, so parsing here never loads anything from the
// network or the file system, never expands entities, and keeps libxml2's
// own error reports off standard error: they go to the log at debug level,
// one line per failed parse. Whatever the writers accept, the parser reads
// back: text that is not valid UTF-8 made of characters that XML 1.0 allows
// is refused.
#pragma once

#include <libxml/tree.h>
#include <libxml/xmlwriter.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace Tarnwick {

struct ParameterIndex;

// Owns one parsed document. Empty until a parse succeeds; a second parse
// while a document is held is ignored (returns 0). Not thread-safe.
class XMLDocument {
public:
    XMLDocument();
    ~XMLDocument();
    XMLDocument(const XMLDocument&) = delete;
    XMLDocument& operator=(const XMLDocument&) = delete;

    // 0, or -1 with the libxml2 message logged. A parse that yields no
    // document and no libxml2 error returns 0 and holds nothing.
    [[nodiscard]] int parseFile(const char* path);
    [[nodiscard]] int parseMemory(const char* text, uint32_t length);

    // Text of the single element that `xpath` selects, copied into `out` of
    // capacity `size`. 0 also when nothing is selected (then `out` is left
    // as it was) and for an element without text (empty string). -1 for more
    // than one node, a non-element, text that does not fit, or no document.
    [[nodiscard]] int queryValue(const char* xpath, char* out, uint64_t size);
    // The same text in a new buffer the caller frees with delete[]; null for
    // every failure and for an element without text.
    [[nodiscard]] char* queryValueMalloced(const char* xpath);
    // The element children of the single selected node that have a "name"
    // attribute, as name to text. Existing entries of `out` are not replaced,
    // and of two children with one name the first wins. 0, or -1 when not
    // exactly one node is selected (silently) or there is no document.
    [[nodiscard]] int queryMap(const char* xpath, std::map<std::string, std::string>& out);

    // The same three answers for the parameter `name`: the "param" children
    // of "message" elements whose "name" attribute is `name` (what the query
    // //message/param[@name='NAME'] would select). The name is compared as
    // text and never read as an expression, so any name works, and each call
    // costs a lookup in an index of the parameters that the first call builds
    // in one pass over the document. Results, logs and failures are those of
    // queryValue, queryValueMalloced and queryMap.
    [[nodiscard]] int queryParameter(const char* name, char* out, uint64_t size);
    [[nodiscard]] char* queryParameterMalloced(const char* name);
    [[nodiscard]] int queryParameterMap(const char* name, std::map<std::string, std::string>& out);

    xmlDocPtr document() const { return doc; }

private:
    // The index of the parameters, built on first use; null without a
    // document.
    const ParameterIndex* parameters();

    xmlDocPtr doc;
    std::unique_ptr<ParameterIndex> index;
};

// Base of the document writers; cannot be opened itself.
class XMLWriter {
public:
    XMLWriter();
    virtual ~XMLWriter();
    XMLWriter(const XMLWriter&) = delete;
    XMLWriter& operator=(const XMLWriter&) = delete;

    // Flag bits of open: 1 compresses, 2 indents.
    enum { Compression = 1, Indentation = 2 };
    // Always -1 here; see XMLMemoryWriter.
    virtual int open(uint32_t flags);

    // Each returns 0, or -1 when the writer isn't open or libxml2 fails.
    // Names that are no XML names, and a namespace or attribute value that is
    // not XML text (see isXMLText), write nothing and return -1.
    int startElement(const char* prefix, const char* namespaceUri, const char* name);
    int writeAttribute(const char* name, const char* value);
    // Writes escaped text. Text that doesn't convert from the writer's
    // encoding or isn't XML text once converted (see convertInput) writes
    // nothing and returns -1.
    int writeString(const char* text);
    int endElement();

protected:
    xmlTextWriterPtr writer;
    char* encoding;  // owned, null means "UTF-8"
    bool ended;
    int depth;            // elements started and not yet ended
    std::string escaped;  // writeString's work buffer, kept for its capacity

    const char* encodingName() const;
};

// Writes a document into an in-memory buffer.
class XMLMemoryWriter : public XMLWriter {
public:
    XMLMemoryWriter();
    ~XMLMemoryWriter() override;

    // Creates the buffer and the writer and starts the document with its
    // encoding declaration. 0 (also when already open) or -1.
    int open(uint32_t flags) override;
    // The text written so far, flushed; null without a buffer. The pointer
    // belongs to the writer and lives as long as it does.
    const char* content();
    // Bytes written so far, flushed; -1 without a buffer.
    int64_t length();

private:
    xmlBufferPtr buffer;
};

// Writes a UTF-8 document with indentation straight into a string: the
// bytes are those that XMLMemoryWriter, opened with Indentation and the
// default encoding, gives for the same calls up to the end of the root
// element (declaration, one blank per level, one line per element, text
// and attribute values escaped as libxml2 escapes them). It keeps no
// libxml2 state, so a payload costs no writer, buffer or encoder of its own.
// Element names are the caller's constants and are not checked; at most
// Max_Depth elements may be open at once.
class PayloadWriter {
public:
    enum { Max_Depth = 16 };

    // Appends to `out`, which the caller owns and may reuse.
    explicit PayloadWriter(std::string& out);
    PayloadWriter(const PayloadWriter&) = delete;
    PayloadWriter& operator=(const PayloadWriter&) = delete;

    // The declaration: <?xml version="1.0" encoding="UTF-8"?> and a line end.
    void startDocument();
    // False when Max_Depth elements are open; nothing is written then.
    bool startElement(const char* name);
    // An attribute of the element just started. False, with nothing
    // written, when no start tag is open or the value is not XML text.
    bool writeAttribute(const char* name, const char* value, size_t length);
    // Escaped element text. False, with nothing written, when no element is
    // open or the text is not XML text.
    bool writeString(const char* text, size_t length);
    // False when no element is open.
    bool endElement();

private:
    void closeStartTag();

    std::string& m_out;
    const char* m_names[Max_Depth];
    int m_depth;
    bool m_tagOpen;    // the innermost element's start tag still lacks its '>'
    bool m_indentEnd;  // an end tag here goes on a line of its own
};

// Converts narrow text from `encoding` for the writer. Returns a new string
// freed with xmlFree, or null for null input, an unknown encoding, text that
// doesn't convert completely, or a result that isn't XML text.
[[nodiscard]] xmlChar* convertInput(const char* text, const char* encoding);

// True when the whole text is such characters (the empty text is).
[[nodiscard]] bool isXMLText(const char* text, size_t length);
[[nodiscard]] bool isXMLText(const char* text);

// Parses a payload held in memory or in a file. Returns a new document that
// the caller frees with xmlFreeDoc, or null. Nothing is fetched, no entity is
// expanded, and libxml2's report of a failure goes to the log as one line
// "%D DEBUG (%t): libxml2: MESSAGE"; xmlGetLastError tells the last error.
// A payload with a start tag of more than 256 attributes, or with more than
// 256 namespace declarations, is refused before parsing, with the line
// "%D DEBUG (%t): XML payload refused: REASON": such markup would cost the
// parser time that grows with its square, and no event payload has it.
[[nodiscard]] xmlDocPtr parsePayload(const char* text, size_t length);
[[nodiscard]] xmlDocPtr parsePayloadFile(const char* path);

// Parses a payload held in memory as parsePayload does (same checks, same
// log lines, same document), calls `use` with the document (null when there
// is none) and frees it before returning. Since the document never outlives
// the call, the parse reuses a parser context that belongs to the calling
// thread, with its dictionary: its documents never reach another thread.
// A call made from inside `use` parses with a context of its own.
void withParsedPayload(const char* text, size_t length, const std::function<void(xmlDocPtr)>& use);

// Reads the parameters of a payload held in memory: for each "param"
// element that forEachParameter finds in the document that parsePayload
// makes of the text, in document order, `visit` gets its name and the text
// of its first child, or null when it has no child or the child holds no
// text. The results and log lines are those of that parse; a payload in the
// form that PayloadWriter gives is read without building a document, and
// any other goes through withParsedPayload. Returns false, having visited
// nothing, when the text is no document.
bool readPayloadParameters(
    const char* text, size_t length,
    const std::function<void(const std::string& name, const char* value)>& visit);

// True when readPayloadParameters reads `text` without libxml2.
[[nodiscard]] bool readsWithoutParser(const char* text, size_t length);

// Calls `visit` for each "param" element that is a child of a "message"
// element (both in no namespace) and has a "name" attribute in no namespace
// whose value is plain text, in document order, with that value and the
// element. One pass over the document.
void forEachParameter(xmlDocPtr doc,
                      const std::function<void(const std::string& name, xmlNodePtr param)>& visit);

}  // namespace Tarnwick
