// Fuzz target: the direct payload reader against libxml2. Every input is
// read twice, by readPayloadParameters (which reads the form our writer
// gives without libxml2, and hands every other text to libxml2) and by
// parsePayload with a walk of its document by forEachParameter; the two
// must agree on whether the text is a document, on the (name, value)
// sequence visited and on the log lines. Any difference aborts with both
// readings on standard error.
//
// An input that begins with 0xFE or 0xFD puts its bytes into a template of
// that form (see readTemplate) and is read both ways. One that begins with
// the byte 0xFF instead describes a payload to
// write (see writePayloads): it is written by PayloadWriter, by
// XMLMemoryWriter and by libxml2's own text writer, which must give the same
// bytes, and the result is read back through both readers, which must give
// the parameters that were written.
#include <tarnwick/xml.h>

#include <ace/Log_Msg.h>
#include <libxml/parser.h>
#include <libxml/xmlwriter.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

// What a reading of a payload gives. A value that is null is kept as
// "(none)" with `none` set, so that it differs from any text.
struct Visit {
    std::string name;
    std::string value;
    bool none;
    bool operator==(const Visit& o) const {
        return name == o.name && value == o.value && none == o.none;
    }
};

struct Reading {
    bool document = false;
    std::vector<Visit> visits;
    std::string log;
};

// Collects what the library logs on this thread, every priority, with the
// date of each line masked so that two readings compare.
class LogCollector {
public:
    LogCollector() {
        ACE_Log_Msg* log = ACE_Log_Msg::instance();
        log->msg_ostream(&m_stream, false);
        log->clr_flags(ACE_Log_Msg::STDERR | ACE_Log_Msg::SYSLOG | ACE_Log_Msg::LOGGER);
        log->set_flags(ACE_Log_Msg::OSTREAM);
        log->priority_mask(LM_SHUTDOWN | LM_TRACE | LM_DEBUG | LM_INFO | LM_NOTICE | LM_WARNING |
                               LM_STARTUP | LM_ERROR | LM_CRITICAL | LM_ALERT | LM_EMERGENCY,
                           ACE_Log_Msg::PROCESS);
    }
    ~LogCollector() {
        ACE_Log_Msg* log = ACE_Log_Msg::instance();
        log->clr_flags(ACE_Log_Msg::OSTREAM);
        log->msg_ostream(nullptr, false);
        log->priority_mask(0, ACE_Log_Msg::PROCESS);
    }
    LogCollector(const LogCollector&) = delete;
    LogCollector& operator=(const LogCollector&) = delete;

    std::string text() const {
        std::string out = m_stream.str();
        // "YYYY-MM-DD HH:MM:SS.UUUUUU" becomes "%D".
        static const char pattern[] = "9999-99-99 99:99:99.999999";
        size_t const n = sizeof pattern - 1;
        for (size_t i = 0; i + n <= out.size(); ++i) {
            bool match = true;
            for (size_t j = 0; j < n && match; ++j) {
                char const c = out[i + j];
                match = pattern[j] == '9' ? (c >= '0' && c <= '9') : c == pattern[j];
            }
            if (match)
                out.replace(i, n, "%D");
        }
        return out;
    }

private:
    std::ostringstream m_stream;
};

Reading referenceReading(const char* text, size_t length) {
    Reading reading;
    LogCollector log;
    xmlDocPtr doc = Tarnwick::parsePayload(text, length);
    reading.document = doc != nullptr;
    Tarnwick::forEachParameter(doc, [&reading](const std::string& name, xmlNodePtr param) {
        xmlNodePtr const first = param->children;
        if (first != nullptr && first->content != nullptr)
            reading.visits.push_back({name, reinterpret_cast<const char*>(first->content), false});
        else
            reading.visits.push_back({name, "(none)", true});
    });
    if (doc != nullptr)
        xmlFreeDoc(doc);
    reading.log = log.text();
    return reading;
}

Reading payloadReading(const char* text, size_t length) {
    Reading reading;
    LogCollector log;
    reading.document = Tarnwick::readPayloadParameters(
        text, length, [&reading](const std::string& name, const char* value) {
            if (value != nullptr)
                reading.visits.push_back({name, value, false});
            else
                reading.visits.push_back({name, "(none)", true});
        });
    reading.log = log.text();
    return reading;
}

void printQuoted(const char* label, const std::string& text) {
    std::fprintf(stderr, "%s \"", label);
    for (unsigned char c : text) {
        if (c >= 0x20 && c < 0x7F && c != '"' && c != '\\')
            std::fputc(c, stderr);
        else
            std::fprintf(stderr, "\\x%02x", c);
    }
    std::fprintf(stderr, "\"\n");
}

void printReading(const char* label, const Reading& r) {
    std::fprintf(stderr, "%s: document %d, %zu visits\n", label, r.document ? 1 : 0,
                 r.visits.size());
    for (const Visit& v : r.visits) {
        printQuoted("  name", v.name);
        printQuoted(v.none ? "  value (none)" : "  value", v.value);
    }
    printQuoted("  log", r.log);
}

[[noreturn]] void fail(const char* what, const std::string& text) {
    std::fprintf(stderr, "payload_reader_fuzz: %s\n", what);
    printQuoted("payload", text);
    std::fflush(stderr);
    __builtin_trap();
}

// Reads `text` both ways and aborts when the readings differ. Returns the
// reading.
Reading compareReadings(const char* text, size_t length) {
    bool const direct = Tarnwick::readsWithoutParser(text, length);
    Reading const expected = referenceReading(text, length);
    Reading const actual = payloadReading(text, length);
    if (actual.document != expected.document || !(actual.visits == expected.visits) ||
        actual.log != expected.log) {
        std::fprintf(stderr, "read %s\n", direct ? "without libxml2" : "by libxml2");
        printReading("libxml2", expected);
        printReading("readPayloadParameters", actual);
        fail("readPayloadParameters differs from libxml2", std::string(text, length));
    }
    // PAYLOAD_READER_FUZZ_SHOW=1 prints every reading, to look at a case.
    static bool const show = std::getenv("PAYLOAD_READER_FUZZ_SHOW") != nullptr;
    if (show) {
        printQuoted("payload", std::string(text, length));
        std::fprintf(stderr, "read %s\n", direct ? "without libxml2" : "by libxml2");
        printReading("readPayloadParameters", actual);
    }
    // The direct reader reads documents only, and logs nothing.
    if (direct && (!actual.document || !actual.log.empty()))
        fail("read without libxml2, yet no document or a log line", std::string(text, length));
    return actual;
}

// ---------------------------------------------------------------------------
// Writing

// Takes bytes off the front of the input.
class Input {
public:
    Input(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    bool empty() const { return m_size == 0; }
    uint8_t byte() {
        if (m_size == 0)
            return 0;
        --m_size;
        return *m_data++;
    }
    // A string of up to 63 bytes, cut at a zero byte, as the writers that
    // take C strings would see it.
    std::string text() {
        size_t n = byte() & 63;
        if (n > m_size)
            n = m_size;
        std::string out(reinterpret_cast<const char*>(m_data), n);
        m_data += n;
        m_size -= n;
        size_t const zero = out.find('\0');
        if (zero != std::string::npos)
            out.resize(zero);
        return out;
    }

    // The same, zero bytes kept.
    std::string rawText() {
        size_t n = byte() & 63;
        if (n > m_size)
            n = m_size;
        std::string out(reinterpret_cast<const char*>(m_data), n);
        m_data += n;
        m_size -= n;
        return out;
    }

private:
    const uint8_t* m_data;
    size_t m_size;
};

// One parameter to write: a name and a text, or (a group) a name, an
// optional text and children with a name and a text each.
struct Parameter {
    std::string name;
    bool hasText;
    std::string text;
    bool group;
    bool named;
    std::vector<std::pair<std::string, std::string>> children;
    bool hasTail;
    std::string tail;  // text after the children of a group
};

// The three writers, driven by the same calls. Each call returns whether it
// succeeded in all three, and aborts when they disagree.
class Writers {
public:
    Writers() : m_payload(m_payloadText) {
        if (m_memory.open(Tarnwick::XMLWriter::Indentation) != 0)
            fail("XMLMemoryWriter::open failed", "");
        m_buffer = xmlBufferCreate();
        m_raw = xmlNewTextWriterMemory(m_buffer, 0);
        if (m_buffer == nullptr || m_raw == nullptr)
            fail("libxml2 text writer not made", "");
        xmlTextWriterSetIndent(m_raw, 1);
        m_payload.startDocument();
        if (xmlTextWriterStartDocument(m_raw, nullptr, "UTF-8", nullptr) < 0)
            fail("libxml2 text writer did not start", "");
    }
    ~Writers() {
        xmlFreeTextWriter(m_raw);
        xmlBufferFree(m_buffer);
    }
    Writers(const Writers&) = delete;
    Writers& operator=(const Writers&) = delete;

    void start(const char* name) {
        bool const a = m_payload.startElement(name);
        bool const b = m_memory.startElement(nullptr, nullptr, name) == 0;
        bool const c = xmlTextWriterStartElement(m_raw, BAD_CAST name) >= 0;
        agree(a, b, c, "startElement");
    }
    bool attribute(const std::string& value) {
        bool const a = m_payload.writeAttribute("name", value.data(), value.size());
        bool const b = m_memory.writeAttribute("name", value.c_str()) == 0;
        // libxml2's writer takes any bytes: only what the others accept
        // goes to it.
        bool const c =
            a && xmlTextWriterWriteAttribute(m_raw, BAD_CAST "name", BAD_CAST value.c_str()) >= 0;
        agree(a, b, a ? c : false, "writeAttribute");
        return a;
    }
    bool string(const std::string& text) {
        bool const a = m_payload.writeString(text.data(), text.size());
        bool const b = m_memory.writeString(text.c_str()) == 0;
        bool const c = a && xmlTextWriterWriteString(m_raw, BAD_CAST text.c_str()) >= 0;
        agree(a, b, a ? c : false, "writeString");
        return a;
    }
    void end() {
        bool const a = m_payload.endElement();
        bool const b = m_memory.endElement() == 0;
        bool const c = xmlTextWriterEndElement(m_raw) >= 0;
        agree(a, b, c, "endElement");
    }

    // Compares the three texts; returns PayloadWriter's.
    const std::string& finish() {
        xmlTextWriterFlush(m_raw);
        std::string const memory(m_memory.content(), static_cast<size_t>(m_memory.length()));
        std::string const raw(reinterpret_cast<const char*>(xmlBufferContent(m_buffer)),
                              static_cast<size_t>(xmlBufferLength(m_buffer)));
        if (memory != m_payloadText || raw != m_payloadText) {
            printQuoted("PayloadWriter  ", m_payloadText);
            printQuoted("XMLMemoryWriter", memory);
            printQuoted("libxml2 writer ", raw);
            fail("the writers wrote different bytes", m_payloadText);
        }
        return m_payloadText;
    }

private:
    void agree(bool a, bool b, bool c, const char* call) {
        if (a != b || a != c) {
            std::fprintf(stderr, "%s: PayloadWriter %d, XMLMemoryWriter %d, libxml2 %d\n", call,
                         a ? 1 : 0, b ? 1 : 0, c ? 1 : 0);
            fail("the writers disagree on a call", m_payloadText);
        }
    }

    std::string m_payloadText;
    Tarnwick::PayloadWriter m_payload;
    Tarnwick::XMLMemoryWriter m_memory;
    xmlBufferPtr m_buffer = nullptr;
    xmlTextWriterPtr m_raw = nullptr;
};

// Input layout after the 0xFF: records of a kind byte and texts; the kind's
// low bit makes a group, bit 1 gives a parameter (or group) a text, bit 5
// leaves out its name. A group takes (kind >> 2) % 4 children of a name and
// a text each, and with bit 4 a text after them.
void writePayloads(Input input) {
    std::vector<Parameter> parameters;
    while (!input.empty() && parameters.size() < 32) {
        uint8_t const kind = input.byte();
        Parameter p;
        p.group = (kind & 1) != 0;
        p.hasText = (kind & 2) != 0;
        p.named = (kind & 0x20) == 0;
        p.hasTail = p.group && (kind & 0x10) != 0;
        if (p.named)
            p.name = input.text();
        if (p.hasText)
            p.text = input.text();
        if (p.group) {
            int const n = (kind >> 2) % 4;
            for (int i = 0; i < n; ++i) {
                std::string name = input.text();
                std::string text = input.text();
                p.children.emplace_back(std::move(name), std::move(text));
            }
        }
        if (p.hasTail)
            p.tail = input.text();
        parameters.push_back(std::move(p));
    }

    // What the reading must give back: each top-level parameter written
    // whole, with its text, or (none) for no or empty text. The value of a
    // group with children also holds the indentation before its first
    // child, and one with a text after them that text: only its name is
    // checked.
    std::vector<Visit> written;
    std::vector<bool> anyValue;
    Writers writers;
    writers.start("message");
    for (const Parameter& p : parameters) {
        writers.start("param");
        bool const named = p.named && writers.attribute(p.name);
        bool const texted = p.hasText && writers.string(p.text);
        for (const auto& child : p.children) {
            writers.start("param");
            writers.attribute(child.first);
            writers.string(child.second);
            writers.end();
        }
        if (p.hasTail)
            writers.string(p.tail);
        writers.end();
        if (named) {
            anyValue.push_back(!p.children.empty() || p.hasTail);
            if (texted && !p.text.empty())
                written.push_back({p.name, p.text, false});
            else
                written.push_back({p.name, "(none)", true});
        }
    }
    writers.end();
    std::string const& text = writers.finish();

    for (int zero = 0; zero < 2; ++zero) {
        std::string const payload = zero == 0 ? text : text + std::string(1, '\0');
        Reading const read = compareReadings(payload.data(), payload.size());
        bool same = read.document && read.visits.size() == written.size();
        for (size_t i = 0; same && i < written.size(); ++i)
            same =
                anyValue[i] ? read.visits[i].name == written[i].name : read.visits[i] == written[i];
        if (!same) {
            std::fprintf(stderr, "written: %zu parameters\n", written.size());
            for (const Visit& v : written) {
                printQuoted("  name", v.name);
                printQuoted(v.none ? "  value (none)" : "  value", v.value);
            }
            printReading("read back", read);
            fail("a written payload reads back otherwise", payload);
        }
    }
}

// Puts fuzzed bytes where the direct reader checks characters: a name and
// a text (a group of two children with `group`) inside the form the writer
// gives, so that most inputs reach those checks.
void readTemplate(Input input, bool group) {
    std::string const name = input.rawText();
    std::string const text = input.rawText();
    std::string payload = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<message>\n <param name=\"";
    payload += name;
    payload += "\">";
    payload += text;
    if (group) {
        payload += "<param name=\"";
        payload += input.rawText();
        payload += "\">";
        payload += input.rawText();
        payload += "</param>";
        payload += input.rawText();
    }
    payload += "</param>\n</message>\n";
    if (input.byte() & 1)
        payload.push_back('\0');
    compareReadings(payload.data(), payload.size());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    ACE_Log_Msg* log = ACE_Log_Msg::instance();
    log->clr_flags(ACE_Log_Msg::STDERR | ACE_Log_Msg::OSTREAM | ACE_Log_Msg::SYSLOG |
                   ACE_Log_Msg::LOGGER);
    log->priority_mask(0, ACE_Log_Msg::PROCESS);
    xmlInitParser();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > (1u << 16))
        return 0;
    if (size > 0 && data[0] == 0xFF) {
        writePayloads(Input(data + 1, size - 1));
        return 0;
    }
    if (size > 0 && (data[0] == 0xFE || data[0] == 0xFD)) {
        readTemplate(Input(data + 1, size - 1), data[0] == 0xFD);
        return 0;
    }
    compareReadings(reinterpret_cast<const char*>(data), size);
    return 0;
}
