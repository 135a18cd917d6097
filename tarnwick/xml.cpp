#include <tarnwick/log.h>
#include <tarnwick/tarnwick.h>
#include <tarnwick/xml.h>

#include <libxml/encoding.h>
#include <libxml/parser.h>
#include <libxml/xmlerror.h>
#include <libxml/xmlmemory.h>
#include <libxml/xpath.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <new>

namespace Tarnwick {

namespace {

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
    result = xmlXPathEvalExpression(reinterpret_cast<const xmlChar*>(xpath), context);
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

XMLDocument::XMLDocument() : doc(nullptr) {}

XMLDocument::~XMLDocument() {
    if (doc != nullptr) {
        xmlFreeDoc(doc);
    }
}

int XMLDocument::parseFile(const char* path) {
    if (doc != nullptr) {
        return 0;
    }
    // Only an error of this parse may count, not one left from earlier work.
    xmlResetLastError();
    return takeParseResult(xmlParseFile(path), doc);
}

int XMLDocument::parseMemory(const char* text, uint32_t length) {
    if (doc != nullptr) {
        return 0;
    }
    xmlResetLastError();
    return takeParseResult(xmlParseMemory(text, static_cast<int>(length)), doc);
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
        if (node->type != XML_ELEMENT_NODE) {
            rc = -1;
        } else if (node->children == nullptr) {
            out[0] = 0;
            rc = 0;
        } else if (Tarnwick::strcpy(out, contentOf(node->children), static_cast<size_t>(size)) ==
                   nullptr) {
            rc = -1;
        }
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
        if (node->type == XML_ELEMENT_NODE && node->children != nullptr) {
            const char* text = contentOf(node->children);
            size_t const length = static_cast<size_t>(xmlStrlen(BAD_CAST text));
            value = new (std::nothrow) char[length + 1];
            if (value == nullptr) {
                errno = ENOMEM;
            } else if (Tarnwick::strcpy(value, text, length + 1) == nullptr) {
                delete[] value;
                value = nullptr;
            } else {
                value[length] = 0;
            }
        }
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
        xmlNodePtr node = result->nodesetval->nodeTab[0];
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
    release(context, result);
    return rc;
}

// ---------------------------------------------------------------------------
// XMLWriter

XMLWriter::XMLWriter() : writer(nullptr), encoding(nullptr), ended(false) {}

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
    int rc;
    if (prefix == nullptr && namespaceUri == nullptr) {
        rc = xmlTextWriterStartElement(writer, BAD_CAST name);
    } else {
        rc = xmlTextWriterStartElementNS(writer, BAD_CAST prefix, BAD_CAST name,
                                         BAD_CAST namespaceUri);
    }
    return rc < 0 ? -1 : 0;
}

int XMLWriter::writeAttribute(const char* name, const char* value) {
    if (writer == nullptr) {
        return -1;
    }
    return xmlTextWriterWriteFormatAttribute(writer, BAD_CAST name, "%s", value) < 0 ? -1 : 0;
}

int XMLWriter::writeString(const char* text) {
    if (writer == nullptr) {
        return -1;
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
    return xmlTextWriterEndElement(writer) < 0 ? -1 : 0;
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
            if (rc < 0 || inLength != static_cast<int>(length)) {
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

}  // namespace Tarnwick
