#include <tarnwick/exception.h>
#include <tarnwick/progressinformation.h>

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlerror.h>

#include <fcntl.h>
#include <unistd.h>
#include <climits>
#include <sstream>

namespace Tarnwick {

namespace {

const char* const SOURCE = "ProgressInformation";

// Progress documents may come from anywhere, so the parser loads nothing:
// no network, no external DTD (no XML_PARSE_DTDLOAD), no entity substitution
// (no XML_PARSE_NOENT), whatever the process's libxml2 defaults say. An
// entity reference stays a reference node, which has no text. libxml2's own
// reports are kept off standard error; the exceptions say what failed.
const int PARSE_OPTIONS = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;

#if LIBXML_VERSION >= 21200
void ignoreStructured(void*, const xmlError*) {}
#else
void ignoreStructured(void*, xmlErrorPtr) {}
#endif
void ignoreGeneric(void*, const char*, ...) {}

// Silences libxml2's error reports of the calling thread for the lifetime of
// the object; the handlers set before come back afterwards.
class QuietParse {
public:
    QuietParse()
        : m_generic(xmlGenericError),
          m_genericContext(xmlGenericErrorContext),
          m_structured(xmlStructuredError),
          m_structuredContext(xmlStructuredErrorContext) {
        xmlInitParser();
        xmlSetGenericErrorFunc(nullptr, ignoreGeneric);
        xmlSetStructuredErrorFunc(nullptr, ignoreStructured);
    }
    ~QuietParse() {
        xmlSetStructuredErrorFunc(m_structuredContext, m_structured);
        xmlSetGenericErrorFunc(m_genericContext, m_generic);
    }
    QuietParse(const QuietParse&) = delete;
    QuietParse& operator=(const QuietParse&) = delete;

private:
    xmlGenericErrorFunc m_generic;
    void* m_genericContext;
    xmlStructuredErrorFunc m_structured;
    void* m_structuredContext;
};

// Frees a document at the end of a scope, also when its reading throws.
class DocumentGuard {
public:
    explicit DocumentGuard(xmlDocPtr document) : m_document(document) {}
    ~DocumentGuard() { xmlFreeDoc(m_document); }
    DocumentGuard(const DocumentGuard&) = delete;
    DocumentGuard& operator=(const DocumentGuard&) = delete;

private:
    xmlDocPtr m_document;
};

bool isElement(xmlNodePtr node, const char* name) {
    return node != nullptr && node->type == XML_ELEMENT_NODE &&
           xmlStrEqual(node->name, reinterpret_cast<const xmlChar*>(name));
}

// The decimal number of `text`: blanks before and after it are allowed,
// anything else throws. The stream reads a leading sign as the unsigned
// conversions of C do ("-1" is the largest value); a number beyond 64 bits
// fails.
uint64_t toNumber(const char* text) {
    std::istringstream in{std::string(text)};
    uint64_t value = 0;
    char after;
    if (!(in >> std::dec >> value) || (in >> after))
        throw Exception(ERR_CONVERSION, SEVERITY_CRITICAL, "Namespace:Engine",
                        std::string("Conversion from string failed for string ") + text);
    return value;
}

// The number of a "current" or "total" element: the content of its first
// child node.
uint64_t elementNumber(xmlNodePtr node, const char* name) {
    xmlNodePtr const first = node->children;
    if (first == nullptr || first->content == nullptr)
        throw Exception(ERR_PROGRESS_INFORMATION, SEVERITY_SEVERE, SOURCE,
                        std::string("Node ") + name + " is empty");
    return toNumber(reinterpret_cast<const char*>(first->content));
}

}  // namespace

ProgressInformation::ProgressInformation() : m_current(0), m_total(0) {}

int ProgressInformation::getProgress() const {
    if (m_total == 0)
        return 0;
    float const current = static_cast<float>(m_current);
    float const total = static_cast<float>(m_total);
    float const percent = current / total * 100.0f;
    // Compared before the cut, so that a current far above the total can't
    // overflow the conversion to int.
    if (!(percent < 100.0f))
        return 100;
    return static_cast<int>(percent);
}

void ProgressInformation::readFromXMLString(const std::string& xml) {
    xmlDocPtr document = nullptr;
    if (xml.size() <= static_cast<size_t>(INT_MAX)) {
        QuietParse quiet;
        document = xmlReadMemory(xml.data(), static_cast<int>(xml.size()), nullptr, nullptr,
                                 PARSE_OPTIONS);
    }
    if (document == nullptr)
        throw Exception(ERR_PROGRESS_INFORMATION, SEVERITY_CRITICAL, SOURCE,
                        "String does not contain a valid XML Progress format");
    DocumentGuard guard(document);
    __parseXML(document);
}

bool ProgressInformation::readFromXMLFile(const char* path) {
    // The file is opened here and libxml2 reads the descriptor, so that a
    // path is only ever a path: not "-" for standard input, not a URI, and a
    // compressed file isn't unpacked. Not blocking, so that a FIFO without a
    // writer reads as empty rather than waiting for one.
    int const fd = path != nullptr ? ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK) : -1;
    if (fd < 0) {
        m_current = 0;
        m_total = 0;
        return false;
    }
    xmlDocPtr document;
    {
        QuietParse quiet;
        document = xmlReadFd(fd, path, nullptr, PARSE_OPTIONS);
    }
    ::close(fd);
    if (document == nullptr)
        throw Exception(ERR_PROGRESS_INFORMATION, SEVERITY_WARNING, SOURCE,
                        std::string("Requested file is not valid xml: ") + path);
    DocumentGuard guard(document);
    __parseXML(document);
    return true;
}

void ProgressInformation::__parseXML(_xmlDoc* document) {
    xmlNodePtr const root = xmlDocGetRootElement(document);
    if (!isElement(root, "progressinfo"))
        throw Exception(ERR_PROGRESS_INFORMATION, SEVERITY_WARNING, SOURCE,
                        "Requested document is not valid xml or does not contain progress "
                        "information");
    bool current = false;
    bool total = false;
    for (xmlNodePtr child = root->children; child != nullptr; child = child->next) {
        if (isElement(child, "current")) {
            __processXMLCurrent(child);
            current = true;
        } else if (isElement(child, "total")) {
            __processXMLTotal(child);
            total = true;
        }
    }
    if (!current || !total)
        throw Exception(ERR_PROGRESS_INFORMATION, SEVERITY_SEVERE, SOURCE,
                        "Did not find all required attributes in XML document");
}

void ProgressInformation::__processXMLCurrent(_xmlNode* node) {
    m_current = elementNumber(node, "current");
}

void ProgressInformation::__processXMLTotal(_xmlNode* node) {
    m_total = elementNumber(node, "total");
}

}  // namespace Tarnwick
