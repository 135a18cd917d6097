// The progress of a job, read from its small XML document:
//
//   <progressinfo><current>3</current><total>4</total></progressinfo>
//
// The root and the two children are matched by exact name; their order is
// free and other children are ignored. Each number is the decimal text of
// the element's first child node, blanks around it allowed.
#pragma once

#include <tarnwick/export.h>

#include <cstdint>
#include <string>

struct _xmlDoc;
struct _xmlNode;

namespace Tarnwick {

// Current and total of a job, and the percentage they make. Readers throw
// Exception on bad input: number 8 from "ProgressInformation" for a document
// that doesn't parse or isn't a progress document, number 1 from
// "Namespace:Engine" for a number that doesn't convert. A value read before
// the failure stays stored. Documents are parsed without loading anything
// from the network or the file system: no external DTD, no external or
// substituted entities. One object belongs to one thread.
class TARNWICK_EXPORT ProgressInformation {
public:
    ProgressInformation();

    uint64_t getCurrent() const { return m_current; }
    uint64_t getTotal() const { return m_total; }
    void setCurrent(uint64_t current) { m_current = current; }
    void setTotal(uint64_t total) { m_total = total; }

    // current / total * 100 in single precision, the fraction cut, at most
    // 100; 0 when total is 0. Near the end of a huge total this can show 100
    // before the job is done.
    int getProgress() const;

    // Throws 8 "String does not contain a valid XML Progress format" when
    // `xml` is no well-formed document, and the failures of the document.
    void readFromXMLString(const std::string& xml);
    // True when a document was read. False, with current and total set to
    // 0, when the file can't be opened (it isn't there yet). Throws 8
    // "Requested file is not valid xml: PATH" for a file that opens but
    // doesn't parse, and the failures of the document.
    bool readFromXMLFile(const char* path);

private:
    void __parseXML(_xmlDoc* document);
    void __processXMLCurrent(_xmlNode* node);
    void __processXMLTotal(_xmlNode* node);

    uint64_t m_current;
    uint64_t m_total;
};

}  // namespace Tarnwick
