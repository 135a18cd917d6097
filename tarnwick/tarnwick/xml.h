// Thin wrappers over libxml2 for event payloads: a parsed document that
// answers XPath queries, and a writer that builds a document in memory.
// All text of this layer is narrow UTF-8.
#pragma once

#include <libxml/tree.h>
#include <libxml/xmlwriter.h>

#include <cstdint>
#include <map>
#include <string>

namespace Tarnwick {

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
    int parseFile(const char* path);
    int parseMemory(const char* text, uint32_t length);

    // Text of the single element that `xpath` selects, copied into `out` of
    // capacity `size`. 0 also when nothing is selected (then `out` is left
    // as it was) and for an element without text (empty string). -1 for more
    // than one node, a non-element, text that does not fit, or no document.
    int queryValue(const char* xpath, char* out, uint64_t size);
    // The same text in a new buffer the caller frees with delete[]; null for
    // every failure and for an element without text.
    char* queryValueMalloced(const char* xpath);
    // The element children of the single selected node that have a "name"
    // attribute, as name to text. Existing entries of `out` are not replaced,
    // and of two children with one name the first wins. 0, or -1 when not
    // exactly one node is selected (silently) or there is no document.
    int queryMap(const char* xpath, std::map<std::string, std::string>& out);

    xmlDocPtr document() const { return doc; }

private:
    xmlDocPtr doc;
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
    int startElement(const char* prefix, const char* namespaceUri, const char* name);
    int writeAttribute(const char* name, const char* value);
    // Writes escaped text. Text that doesn't convert from the writer's
    // encoding (see convertInput) writes nothing and returns -1.
    int writeString(const char* text);
    int endElement();

protected:
    xmlTextWriterPtr writer;
    char* encoding;  // owned, null means "UTF-8"
    bool ended;

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

// Converts narrow text from `encoding` for the writer. Returns a new string
// freed with xmlFree, or null for null input, an unknown encoding or text
// that doesn't convert completely.
xmlChar* convertInput(const char* text, const char* encoding);

}  // namespace Tarnwick
