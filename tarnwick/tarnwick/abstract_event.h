// The base class of every message: header, payload and named arguments.
#pragma once

#include <tarnwick/export.h>

#include <ace/Message_Block.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>

struct _xmlDoc;

namespace Tarnwick {

class EventHandler;
class Message_Block;
class Message_Header;
class XMLDocument;

// The event type numbers carried in the header's type word.
enum EventType {
    IDENTITY_EVENT = 1,
    ERROR_EVENT = 2,
    DIR_LIST_EVENT = 3,
    DOWNLOAD_EVENT = 4,
    UPLOAD_EVENT = 5,
    START_PROCESS_EVENT = 6,
    STOP_PROCESS_EVENT = 7,
    STATUS_PROCESS_EVENT = 8,
    OUTPUT_PROCESS_EVENT = 9,
    LIST_SESSIONS_EVENT = 10,
    KICK_EVENT = 11,
    GET_JOB_LOG_EVENT = 12,
    STOP_JOB_EVENT = 13,
    RELOAD_EVENT = 14,
    HEART_BEAT_EVENT = 15,
    WORKFLOW_ACTION_EVENT = 16,
    GET_VERSION_EVENT = 17,
    SET_DEBUG_EVENT = 18,
    JOB_STEP_PROGRESS_EVENT = 19
};

// A message with its header (in a Message_Block), its payload and its
// arguments. The payload is either formatted, an XML "message" document
// built from the arguments, or binary bytes written by the owner.
//
// Writing and reading arguments are separate roads: setArg fills a map in
// memory that becomes XML when the block is asked for with data(), while
// getArg queries the parsed payload of the block. So a locally built event
// answers getArg only after data(), and a received one at once.
//
// Parameter names are compared as text, whatever characters they hold. A
// value that is not valid UTF-8 made of characters that XML allows is sent
// as nothing (an empty parameter), and a parameter whose name is not such
// text is left out, so that the receiver can always read the payload.
//
// Events are heap objects, given up with destroy(). Failures are return
// values (-1 or null, errno ENOMEM for allocations), never exceptions. An
// event is owned by one thread at a time.
class TARNWICK_EXPORT Abstract_Event {
public:
    // A new event with an opened header holding a fresh token. Without
    // memory the event has no block and its accessors answer 0.
    Abstract_Event();
    // A copy (or an assignment) shares the source's message, with a
    // reference of its own: either may be destroyed, in any order. What the
    // target held before an assignment is released.
    Abstract_Event(const Abstract_Event& other);
    Abstract_Event& operator=(const Abstract_Event& other);
    virtual ~Abstract_Event();

    // The event's type number.
    virtual EventType type() const = 0;
    // Calls the EventHandler overload for the event's class.
    virtual int handle(EventHandler* handler) = 0;

    void destroy();

    // Header fields; setters return the old value, 0 without a block.
    uint32_t getACT() const;
    // See Message_Header::setACT: 0 assures that the header has a token.
    uint32_t setACT(uint32_t act);
    uint32_t getState() const;
    uint32_t setState(uint32_t state);
    uint32_t getAgentID() const;
    uint32_t setAgentID(uint32_t agentid);
    uint32_t getFlags() const;
    uint32_t setFlags(uint32_t flags);
    // The payload's present length (not the header's size word).
    uint32_t getSize() const;
    // The header's type if set, else type().
    uint32_t getType() const;
    // Stores a non-zero type; 0 fills an unset header type from type().
    uint32_t setType(uint32_t type);
    // Returns `result`, or false without a block.
    bool setResult(bool result);
    bool isResult() const;
    void setBroadCast(bool broadcast);
    bool isBroadCast() const;
    void setFormatted();
    void setBinary();
    bool isFormatted() const;
    bool isBinary() const;
    // True for an error reply: the type is 2 (the header's error bit is
    // another matter).
    bool isError() const;
    // Marks the block so that its connection closes once it has been sent;
    // changes no byte on the wire.
    void closeAfterSend();

    // Readers of the header at the base of a raw block, as it stands.
    static uint64_t GetHeaderSize();
    static uint32_t GetACT(ACE_Message_Block* block);
    static uint32_t GetMessageType(ACE_Message_Block* block);
    static uint32_t GetMessageSize(ACE_Message_Block* block);

    // Flat arguments. A name already present keeps its first value; the call
    // still returns 0. Numbers are written in decimal.
    int setArg(const char* name, const char* value);
    int setArg(const char* name, const std::string& value);
    int setArg(const char* name, int value);
    int setArg(const char* name, uint32_t value);
    int setArg(const char* name, int64_t value);
    int setArg(const char* name, uint64_t value);
    // A named group of arguments; replaces a group of that name.
    int setArg(const char* name, const std::map<std::string, std::string>& value);
    const std::map<std::string, std::string>& getArgMap() const;

    // The text of a parameter of the payload into `out` of capacity `size`.
    // 0 also for an absent parameter (out untouched) and an empty one; -1
    // when it doesn't fit or the payload can't be parsed.
    int getArg(const char* name, char* out, uint64_t size);
    // The text in a new buffer freed with delete[]; null when absent, empty
    // or failing.
    char* getArgMalloced(const char* name);
    // -1 for an absent or empty parameter.
    int getArg(const char* name, std::string& out);
    // Sets *out to true for "true" or "1"; any other text leaves it alone.
    int getArg(const char* name, bool* out);
    // -1 when the text is no number, or has more than whitespace behind the
    // number (then *out has been written all the same).
    int getArg(const char* name, int* out);
    int getArg(const char* name, uint32_t* out);
    int getArg(const char* name, uint64_t* out);
    int getArg(const char* name, int64_t* out);
    // The named children of a group parameter.
    int getArg(const char* name, std::map<std::string, std::string>& out);

    // The arguments as the formatted payload text, without the final zero
    // byte. 0 or -1.
    int getXMLString(std::string& out) const;
    // Fills the flat arguments from a "message" document. 0 or -1.
    int setXMLString(const std::string& text);

    // Appends bytes to the payload; returns the count or -1. The binary flag
    // is the owner's to set.
    int64_t write(const char* data, uint64_t length);
    // Appends a whole file and marks the payload binary; the total or -1.
    int64_t writeFile(const char* path);
    int64_t writeFile(const wchar_t* path);

    // The outgoing block, brought up to date with the arguments. With
    // `duplicate` false the event keeps the block; with true the caller owns
    // a new reference. Null on failure.
    ACE_Message_Block* data(bool duplicate);
    // Takes over an incoming Message_Block (header in host order, read
    // position 0, write position 32) by a duplicate; the caller keeps its
    // reference. Fills the arguments from a formatted payload. 0 or -1.
    int data(ACE_Message_Block* block);
    // Drops payload, flat arguments and parsed document; the header stays.
    int reset();
    // Turns the event into an error reply (type 2, result flag) carrying
    // "errormsg" and "errornr". Returns 1, or -1 on failure.
    int error(const char* message, int number);
    // Writes the event to the log at debug priority.
    void dump();

private:
    Message_Header* header() const;
    int prepare_header();
    int update_header();
    int write_xml();
    int64_t writeHandle(ACE_HANDLE handle);
    // Appends the formatted payload text of the arguments to `out`. 0, or -1
    // without memory.
    int writeXMLFromArgMap(std::string& out) const;
    int setArgsFromXMLDoc(_xmlDoc* doc);
    // Fills the flat arguments from a formatted payload in memory; 0, or -1
    // when the text is no document.
    int setArgsFromPayload(const char* text, size_t length);
    // Takes one parameter of a payload in document order: the first of each
    // name counts; `unset` holds the names whose first one had no text.
    void addPayloadArgument(const std::string& name, const char* value,
                            std::set<std::string>& unset);
    // Brings the block up to date with the arguments; clears m_dirty.
    int refresh();
    // Parses the payload into m_document on first use. 0 or -1.
    int loadDocument(bool quiet);
    template <typename Number>
    int getNumber(const char* name, Number* out);

    std::map<std::string, std::string> m_args;
    std::map<std::string, std::map<std::string, std::string>> m_nestedArgs;
    Message_Block* m_block;
    XMLDocument* m_document;
    uint32_t m_dirty;
};

}  // namespace Tarnwick
