#include <tarnwick/abstract_event.h>
#include <tarnwick/log.h>
#include <tarnwick/message_block.h>
#include <tarnwick/path.h>
#include <tarnwick/utf8.h>
#include <tarnwick/xml.h>

#include <libxml/parser.h>

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <set>
#include <sstream>

namespace Tarnwick {

namespace {

const uint64_t HEADER_SIZE = 32;
const uint64_t READ_BUFFER_SIZE = 0x20000;

Message_Header* headerAtBase(ACE_Message_Block* block) {
    if (block == nullptr)
        return nullptr;
    ACE_Data_Block* data = block->data_block();
    if (data == nullptr || data->base() == nullptr || data->capacity() < HEADER_SIZE) {
        return nullptr;
    }
    return reinterpret_cast<Message_Header*>(data->base());
}

template <typename Number>
int setNumber(Abstract_Event& event, const char* name, Number value) {
    std::ostringstream text;
    text << value;
    return event.setArg(name, text.str());
}

// True when `name` can be a parameter name on the wire. A name that is not
// XML text would make the whole payload unreadable to the receiver, so such
// a parameter is left out.
bool isParameterName(const std::string& name) {
    return isXMLText(name.c_str(), name.size());
}

// The text of a formatted payload is built here, in a buffer of the thread
// that keeps its capacity from one event to the next.
const size_t PAYLOAD_BUFFER_KEPT = 1 << 20;

std::string& payloadBuffer() {
    thread_local std::string buffer;
    return buffer;
}

// Gives back the memory of an unusually large payload.
void trimPayloadBuffer() {
    std::string& buffer = payloadBuffer();
    if (buffer.capacity() > PAYLOAD_BUFFER_KEPT)
        std::string().swap(buffer);
}

}  // namespace

Abstract_Event::Abstract_Event() : m_block(nullptr), m_document(nullptr), m_dirty(1) {
    Message_Block* block = new (std::nothrow) Message_Block();
    if (block == nullptr || block->getHeader() == nullptr) {
        if (block != nullptr)
            block->release();
        errno = ENOMEM;
        return;
    }
    m_block = block;
    Message_Header* h = m_block->getHeader();
    h->open();
    h->setACT(0);
    m_block->wr_ptr(HEADER_SIZE);
}

// A copy shares the source's message (one data block, one payload) with a
// reference of its own, so that each of the two may be destroyed; the parsed
// document is a cache of the payload, made again when the copy needs it.
Abstract_Event::Abstract_Event(const Abstract_Event& other)
    : m_args(other.m_args),
      m_nestedArgs(other.m_nestedArgs),
      m_block(other.m_block != nullptr ? static_cast<Message_Block*>(other.m_block->duplicate())
                                       : nullptr),
      m_document(nullptr),
      m_dirty(other.m_dirty) {}

Abstract_Event& Abstract_Event::operator=(const Abstract_Event& other) {
    if (this == &other)
        return *this;
    // The new reference first: the two may share one block.
    Message_Block* const taken = other.m_block != nullptr
                                     ? static_cast<Message_Block*>(other.m_block->duplicate())
                                     : nullptr;
    if (m_block != nullptr)
        m_block->release();
    delete m_document;
    m_args = other.m_args;
    m_nestedArgs = other.m_nestedArgs;
    m_block = taken;
    m_document = nullptr;
    m_dirty = other.m_dirty;
    return *this;
}

Abstract_Event::~Abstract_Event() {
    if (m_block != nullptr)
        m_block->release();
    delete m_document;
}

void Abstract_Event::destroy() {
    delete this;
}

Message_Header* Abstract_Event::header() const {
    if (m_block == nullptr)
        return nullptr;
    ACE_Data_Block* data = m_block->data_block();
    if (data == nullptr || data->base() == nullptr)
        return nullptr;
    if (m_block->rd_ptr() < data->base() ||
        static_cast<uint64_t>(m_block->rd_ptr() - data->base()) + HEADER_SIZE > data->capacity()) {
        return nullptr;
    }
    return reinterpret_cast<Message_Header*>(m_block->rd_ptr());
}

uint32_t Abstract_Event::getACT() const {
    Message_Header* h = header();
    return h != nullptr ? h->getACT() : 0;
}

uint32_t Abstract_Event::setACT(uint32_t act) {
    Message_Header* h = header();
    return h != nullptr ? h->setACT(act) : 0;
}

uint32_t Abstract_Event::getState() const {
    Message_Header* h = header();
    return h != nullptr ? h->getState() : 0;
}

uint32_t Abstract_Event::setState(uint32_t state) {
    Message_Header* h = header();
    return h != nullptr ? h->setState(state) : 0;
}

uint32_t Abstract_Event::getAgentID() const {
    Message_Header* h = header();
    return h != nullptr ? h->getAgentID() : 0;
}

uint32_t Abstract_Event::setAgentID(uint32_t agentid) {
    Message_Header* h = header();
    return h != nullptr ? h->setAgentID(agentid) : 0;
}

uint32_t Abstract_Event::getFlags() const {
    Message_Header* h = header();
    return h != nullptr ? h->getFlags() : 0;
}

uint32_t Abstract_Event::setFlags(uint32_t flags) {
    Message_Header* h = header();
    return h != nullptr ? h->setFlags(flags) : 0;
}

uint32_t Abstract_Event::getSize() const {
    return m_block != nullptr ? m_block->getLength() : 0;
}

uint32_t Abstract_Event::getType() const {
    Message_Header* h = header();
    if (h == nullptr)
        return 0;
    return h->getType() != 0 ? h->getType() : static_cast<uint32_t>(type());
}

uint32_t Abstract_Event::setType(uint32_t t) {
    Message_Header* h = header();
    if (h == nullptr)
        return 0;
    uint32_t const old = h->getType();
    if (t != 0) {
        h->setType(t);
    } else if (old == 0) {
        h->setType(static_cast<uint32_t>(type()));
    }
    return old;
}

bool Abstract_Event::setResult(bool result) {
    Message_Header* h = header();
    if (h == nullptr)
        return false;
    h->setResult(result);
    return result;
}

bool Abstract_Event::isResult() const {
    Message_Header* h = header();
    return h != nullptr && h->isResult();
}

void Abstract_Event::setBroadCast(bool broadcast) {
    Message_Header* h = header();
    if (h != nullptr)
        h->setBroadCast(broadcast);
}

bool Abstract_Event::isBroadCast() const {
    Message_Header* h = header();
    return h != nullptr && h->isBroadCast();
}

void Abstract_Event::setFormatted() {
    Message_Header* h = header();
    if (h != nullptr)
        h->setBinary(false);
}

void Abstract_Event::setBinary() {
    Message_Header* h = header();
    if (h != nullptr)
        h->setBinary(true);
}

bool Abstract_Event::isFormatted() const {
    Message_Header* h = header();
    return h != nullptr && !h->isBinary();
}

bool Abstract_Event::isBinary() const {
    Message_Header* h = header();
    return h != nullptr && h->isBinary();
}

bool Abstract_Event::isError() const {
    return getType() == ERROR_EVENT;
}

void Abstract_Event::closeAfterSend() {
    if (m_block != nullptr && m_block->data_block() != nullptr) {
        m_block->data_block()->msg_type(ACE_Message_Block::MB_HANGUP);
    }
}

uint64_t Abstract_Event::GetHeaderSize() {
    return HEADER_SIZE;
}

uint32_t Abstract_Event::GetACT(ACE_Message_Block* block) {
    Message_Header* h = headerAtBase(block);
    return h != nullptr ? h->getACT() : 0;
}

uint32_t Abstract_Event::GetMessageType(ACE_Message_Block* block) {
    Message_Header* h = headerAtBase(block);
    return h != nullptr ? h->getType() : 0;
}

uint32_t Abstract_Event::GetMessageSize(ACE_Message_Block* block) {
    Message_Header* h = headerAtBase(block);
    return h != nullptr ? h->getSize() : 0;
}

int Abstract_Event::setArg(const char* name, const char* value) {
    if (name == nullptr || value == nullptr) {
        errno = EINVAL;
        return -1;
    }
    m_args.emplace(name, value);
    m_dirty = 1;
    return 0;
}

int Abstract_Event::setArg(const char* name, const std::string& value) {
    return setArg(name, value.c_str());
}

int Abstract_Event::setArg(const char* name, int value) {
    return setNumber(*this, name, value);
}

int Abstract_Event::setArg(const char* name, uint32_t value) {
    return setNumber(*this, name, value);
}

int Abstract_Event::setArg(const char* name, int64_t value) {
    return setNumber(*this, name, value);
}

int Abstract_Event::setArg(const char* name, uint64_t value) {
    return setNumber(*this, name, value);
}

int Abstract_Event::setArg(const char* name, const std::map<std::string, std::string>& value) {
    if (name == nullptr) {
        errno = EINVAL;
        return -1;
    }
    m_nestedArgs[name] = value;
    m_dirty = 1;
    return 0;
}

const std::map<std::string, std::string>& Abstract_Event::getArgMap() const {
    return m_args;
}

int Abstract_Event::loadDocument(bool quiet) {
    if (m_block == nullptr)
        return -1;
    if (m_document != nullptr)
        return 0;
    m_document = new (std::nothrow) XMLDocument();
    if (m_document == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    int result = 0;
    ACE_Message_Block* payload = m_block->cont();
    if (m_block->isStoredOnDisk()) {
        const char* name = m_block->getFileName();
        if (Path::IsFile(name))
            result = m_document->parseFile(name);
    } else if (payload != nullptr) {
        ACE_Message_Block* piece = payload->duplicate();
        if (piece == nullptr) {
            errno = ENOMEM;
            return -1;
        }
        size_t const length = piece->length();
        result = m_document->parseMemory(
            piece->rd_ptr(), length > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(length));
        piece->release();
    }
    if (result == -1) {
        if (!quiet)
            TW_LOG_ERRNO("%D ERROR (%t): An error occurred while parsing message payload.");
        return -1;
    }
    return 0;
}

int Abstract_Event::getArg(const char* name, char* out, uint64_t size) {
    if (name == nullptr || out == nullptr)
        return -1;
    if (loadDocument(false) == -1)
        return -1;
    return m_document->queryParameter(name, out, size);
}

char* Abstract_Event::getArgMalloced(const char* name) {
    if (name == nullptr || loadDocument(true) == -1)
        return nullptr;
    return m_document->queryParameterMalloced(name);
}

int Abstract_Event::getArg(const char* name, std::string& out) {
    std::unique_ptr<char[]> value(getArgMalloced(name));
    if (!value)
        return -1;
    out = value.get();
    return 0;
}

int Abstract_Event::getArg(const char* name, bool* out) {
    char text[32] = "";
    if (out == nullptr || getArg(name, text, sizeof text) == -1)
        return -1;
    if (std::strncmp(text, "true", sizeof text) == 0 || std::strncmp(text, "1", sizeof text) == 0) {
        *out = true;
    }
    return 0;
}

template <typename Number>
int Abstract_Event::getNumber(const char* name, Number* out) {
    char text[33] = "";
    if (out == nullptr || getArg(name, text, sizeof text) == -1)
        return -1;
    std::istringstream stream(text);
    Number value;
    if (!(stream >> value))
        return -1;
    *out = value;
    char rest;
    if (stream >> rest)
        return -1;
    return 0;
}

int Abstract_Event::getArg(const char* name, int* out) {
    return getNumber(name, out);
}
int Abstract_Event::getArg(const char* name, uint32_t* out) {
    return getNumber(name, out);
}
int Abstract_Event::getArg(const char* name, uint64_t* out) {
    return getNumber(name, out);
}
int Abstract_Event::getArg(const char* name, int64_t* out) {
    return getNumber(name, out);
}

int Abstract_Event::getArg(const char* name, std::map<std::string, std::string>& out) {
    if (name == nullptr || loadDocument(false) == -1)
        return -1;
    if (m_document->queryParameterMap(name, out) == -1) {
        TW_LOG("%D ERROR (%t): Can not get value for argument '%C': XML error\n", name);
        return -1;
    }
    return 0;
}

int Abstract_Event::writeXMLFromArgMap(std::string& out) const {
    // A value that is not XML text is written as nothing (the writer refuses
    // it), and a parameter whose name is not is left out whole.
    try {
        PayloadWriter writer(out);
        writer.startDocument();
        writer.startElement("message");
        // A value is written up to its first zero byte.
        auto const writeParameter = [&writer](const std::string& name, const std::string& value) {
            if (!isParameterName(name))
                return;
            writer.startElement("param");
            writer.writeAttribute("name", name.data(), name.size());
            writer.writeString(value.c_str(), std::strlen(value.c_str()));
            writer.endElement();
        };
        for (const auto& arg : m_args)
            writeParameter(arg.first, arg.second);
        for (const auto& group : m_nestedArgs) {
            if (!isParameterName(group.first))
                continue;
            writer.startElement("param");
            writer.writeAttribute("name", group.first.data(), group.first.size());
            for (const auto& arg : group.second)
                writeParameter(arg.first, arg.second);
            writer.endElement();
        }
        writer.endElement();
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
    return 0;
}

int Abstract_Event::getXMLString(std::string& out) const {
    std::string& text = payloadBuffer();
    text.clear();
    int const result = writeXMLFromArgMap(text);
    if (result == 0 && !text.empty()) {
        try {
            out.assign(text);
        } catch (const std::bad_alloc&) {
            errno = ENOMEM;
            trimPayloadBuffer();
            return -1;
        }
    }
    trimPayloadBuffer();
    return result == 0 && !text.empty() ? 0 : -1;
}

// Each name of a parameter of a "message" element, in document order, takes
// the text of the first child of the first parameter of that name; a first
// parameter without children gives no argument, and later ones of the name
// don't count. Names are compared as text and never pasted into a query. A
// name already in m_args keeps its value (setArg doesn't overwrite), so
// only the names whose first parameter gave nothing need remembering, in
// `unset`.
void Abstract_Event::addPayloadArgument(const std::string& name, const char* value,
                                        std::set<std::string>& unset) {
    // One lookup in each container: emplace and insert do nothing to a name
    // that is there.
    if (value == nullptr) {
        if (m_args.find(name) == m_args.end())
            unset.insert(name);
    } else if (unset.find(name) == unset.end() && m_args.emplace(name, value).second) {
        m_dirty = 1;
    }
}

int Abstract_Event::setArgsFromXMLDoc(_xmlDoc* doc) {
    if (doc == nullptr)
        return -1;
    std::set<std::string> unset;
    forEachParameter(doc, [this, &unset](const std::string& name, xmlNodePtr param) {
        xmlNodePtr const first = param->children;
        addPayloadArgument(name,
                           first != nullptr && first->content != nullptr
                               ? reinterpret_cast<const char*>(first->content)
                               : nullptr,
                           unset);
    });
    return 0;
}

int Abstract_Event::setArgsFromPayload(const char* text, size_t length) {
    std::set<std::string> unset;
    bool const parsed = readPayloadParameters(
        text, length, [this, &unset](const std::string& name, const char* value) {
            addPayloadArgument(name, value, unset);
        });
    return parsed ? 0 : -1;
}

int Abstract_Event::setXMLString(const std::string& text) {
    return setArgsFromPayload(text.data(), text.size());
}

int Abstract_Event::prepare_header() {
    if (m_block != nullptr)
        return 0;
    Message_Block* block = new (std::nothrow) Message_Block();
    if (block == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    m_block = block;
    Message_Header* h = header();
    if (h == nullptr)
        return -1;
    h->open();
    h->setACT(0);
    h->setType(getType());
    return 0;
}

int Abstract_Event::update_header() {
    if (m_block == nullptr)
        return -1;
    Message_Header* base = m_block->getHeader();
    if (base == nullptr) {
        TW_LOG_ERRNO("%D ERROR (%t): Internal error: invalid data format.");
        return -1;
    }
    Message_Header* current = header();
    if (current == nullptr)
        current = base;
    uint32_t const type = getType();
    base->setAgentID(current->getAgentID());
    base->setACT(current->getACT());
    base->setType(type);
    base->setState(current->getState());
    base->setFlags(current->getFlags());
    base->setSize(m_block->getLength());
    m_block->ACE_Message_Block::reset();
    m_block->wr_ptr(HEADER_SIZE);
    return 0;
}

int64_t Abstract_Event::write(const char* data, uint64_t length) {
    if (prepare_header() == -1 || m_block == nullptr)
        return -1;
    int64_t const written = m_block->write(data, length);
    if (written == -1)
        return -1;
    if (update_header() == -1)
        return -1;
    m_dirty = 1;
    return written;
}

int64_t Abstract_Event::writeHandle(ACE_HANDLE handle) {
    if (handle == ACE_INVALID_HANDLE)
        return -1;
    if (prepare_header() == -1)
        return -1;
    char buffer[READ_BUFFER_SIZE];
    int64_t total = 0;
    for (;;) {
        ssize_t const count = ::read(handle, buffer, sizeof buffer);
        if (count < 0) {
            if (errno == EINTR)
                continue;
            return -1;
        }
        if (count == 0) {
            setBinary();
            return total;
        }
        if (write(buffer, static_cast<uint64_t>(count)) == -1)
            return -1;
        total += count;
    }
}

int64_t Abstract_Event::writeFile(const char* path) {
    if (path == nullptr) {
        errno = EINVAL;
        return -1;
    }
    ACE_HANDLE const handle = ::open(path, O_RDONLY | O_CLOEXEC);
    int64_t const result = writeHandle(handle);
    if (handle != ACE_INVALID_HANDLE) {
        int const error = errno;
        errno = ::close(handle) == -1 ? errno : error;
    }
    return result;
}

int64_t Abstract_Event::writeFile(const wchar_t* path) {
    std::unique_ptr<char, void (*)(char*)> narrow(wcstoutf8_malloced(path), utf8free);
    if (!narrow)
        return -1;
    return writeFile(narrow.get());
}

int Abstract_Event::write_xml() {
    std::string& text = payloadBuffer();
    text.clear();
    if (writeXMLFromArgMap(text) == -1)
        return -1;
    reset();
    // The text and its final zero byte go into the block in one write.
    int result = 0;
    try {
        text.push_back('\0');
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        result = -1;
    }
    if (result == 0 && write(text.data(), text.size()) == -1)
        result = -1;
    trimPayloadBuffer();
    return result;
}

int Abstract_Event::refresh() {
    if (m_args.empty()) {
        if (prepare_header() == -1 || update_header() == -1)
            return -1;
    } else {
        if (write_xml() == -1) {
            TW_LOG("%D ERROR (%t): Failure while converting event data into xml.\n");
            return -1;
        }
        setFormatted();
    }
    m_dirty = 0;
    return 0;
}

ACE_Message_Block* Abstract_Event::data(bool duplicate) {
    if (m_dirty != 0 && refresh() == -1)
        return nullptr;
    if (m_block == nullptr)
        return nullptr;
    return duplicate ? m_block->duplicate() : m_block;
}

int Abstract_Event::data(ACE_Message_Block* block) {
    Message_Block* incoming = dynamic_cast<Message_Block*>(block);
    if (incoming == nullptr) {
        errno = EINVAL;
        return -1;
    }
    // Take the reference first: the incoming block may share its data with
    // the block this event gives up.
    Message_Block* taken = static_cast<Message_Block*>(incoming->duplicate());
    if (m_block != nullptr)
        m_block->reset();
    m_args.clear();
    delete m_document;
    m_document = nullptr;
    m_dirty = 1;
    if (m_block != nullptr)
        m_block->release();
    m_block = taken;
    if (m_block == nullptr) {
        errno = ENOMEM;
        return -1;
    }

    ptrdiff_t const headerLength = m_block->wr_ptr() - m_block->rd_ptr();
    if (headerLength != static_cast<ptrdiff_t>(HEADER_SIZE) || header() == nullptr) {
        TW_LOG("%D ERROR (%t): Assigning data block with invalid size (%d) to Event object.\n",
               static_cast<int>(headerLength));
        return -1;
    }
    setACT(0);

    if (!isBinary()) {
        ACE_Message_Block* payload = m_block->cont();
        if (m_block->isStoredOnDisk()) {
            xmlDocPtr doc = parsePayloadFile(m_block->getFileName());
            setArgsFromXMLDoc(doc);
            if (doc != nullptr)
                xmlFreeDoc(doc);
        } else if (payload != nullptr && payload->length() > 0) {
            setArgsFromPayload(payload->rd_ptr(), payload->length());
        }
    }
    return update_header();
}

int Abstract_Event::reset() {
    if (m_block != nullptr)
        m_block->reset();
    m_args.clear();
    delete m_document;
    m_document = nullptr;
    m_dirty = 1;
    return 0;
}

int Abstract_Event::error(const char* message, int number) {
    if (message == nullptr)
        message = "";
    TW_LOG("%D ERROR (%t): Return error event: %C\n", message);
    reset();
    Message_Header* h = header();
    if (h == nullptr)
        return -1;
    h->setResult(true);
    h->setType(ERROR_EVENT);
    setArg("errormsg", message);
    setArg("errornr", number);
    write_xml();
    return update_header() == -1 ? -1 : 1;
}

void Abstract_Event::dump() {
    if (m_block != nullptr) {
        ptrdiff_t const headerLength = m_block->wr_ptr() - m_block->rd_ptr();
        if (headerLength != static_cast<ptrdiff_t>(HEADER_SIZE)) {
            TW_LOG("%D ERROR (%t): Invalid header size: %d != %d \n",
                   static_cast<int>(headerLength), static_cast<int>(HEADER_SIZE));
        }
    }
    if (Message_Header* h = header())
        h->dump();
    if (m_dirty != 0)
        refresh();
    int level = 0;
    for (ACE_Message_Block* block = m_block; block != nullptr; block = block->cont(), ++level) {
        TW_LOG("%D DEBUG (%t): At level: %d\n", level);
        std::string bytes(block->rd_ptr(), block->length());
        TW_LOG("%D DEBUG (%t): %C\n", bytes.c_str());
    }
    for (const auto& arg : m_args) {
        TW_LOG("%D DEBUG (%t): %C : %C\n", arg.first.c_str(), arg.second.c_str());
    }
}

}  // namespace Tarnwick
