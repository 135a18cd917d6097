#include <tarnwick/log.h>
#include <tarnwick/message_header.h>
#include <tarnwick/random.h>

#include <arpa/inet.h>

#include <sstream>

namespace Tarnwick {

Message_Header::Message_Header() {
    open();
}

int Message_Header::open() {
    agentid = ACT = size = type = flags = state = reserved = 0;
    magic = MAGIC;
    return 0;
}

int Message_Header::open(const Message_Header& other) {
    agentid = other.agentid;
    ACT = other.ACT;
    size = other.size;
    type = other.type;
    flags = other.flags;
    state = other.state;
    magic = MAGIC;
    reserved = 0;
    return 0;
}

template <typename Convert>
void Message_Header::swapWords(Convert convert) {
    agentid = convert(agentid);
    ACT = convert(ACT);
    size = convert(size);
    type = convert(type);
    flags = convert(flags);
    magic = convert(magic);
    state = convert(state);
    reserved = convert(reserved);
}

int Message_Header::encode() {
    swapWords(htonl);
    return 0;
}

int Message_Header::decode() {
    if (magic == MAGIC)
        return 0;
    swapWords(ntohl);
    return 0;
}

bool Message_Header::isReadable() const {
    return magic == MAGIC;
}

uint32_t Message_Header::setAgentID(uint32_t value) {
    uint32_t const old = agentid;
    agentid = value;
    return old;
}

uint32_t Message_Header::setACT(uint32_t value) {
    uint32_t const old = ACT;
    if (value != 0) {
        ACT = value;
    } else if (old == 0) {
        ACT = Random();
    }
    return old;
}

uint32_t Message_Header::setSize(uint32_t value) {
    uint32_t const old = size;
    size = value;
    return old;
}

uint32_t Message_Header::setType(uint32_t value) {
    uint32_t const old = type;
    type = value;
    return old;
}

uint32_t Message_Header::setFlags(uint32_t value) {
    uint32_t const old = flags;
    flags = value;
    return old;
}

uint32_t Message_Header::setState(uint32_t value) {
    uint32_t const old = state;
    state = value;
    return old;
}

void Message_Header::set(Flag flag, bool on) {
    if (on) {
        enable(flag);
    } else {
        disable(flag);
    }
}

void Message_Header::setBinary(bool on) {
    set(BINARY_FLAG, on);
}
void Message_Header::setError(bool on) {
    set(ERROR_FLAG, on);
}
void Message_Header::setResult(bool on) {
    set(RESULT_FLAG, on);
}
void Message_Header::setBroadCast(bool on) {
    set(BROADCAST_FLAG, on);
}

void Message_Header::dump() const {
    std::ostringstream text;
    text << "DUMPING MESSAGE INFORMATION\n"
         << "===========================\n"
         << "Message Header:\n"
         << "agentid: " << agentid << '\n'
         << "ACT: " << ACT << '\n'
         << "flags: " << flags << '\n'
         << "size: " << size << '\n'
         << "type: " << type << '\n'
         << "magic: " << magic << '\n'
         << "state: " << state << '\n'
         << "===========================\n";
    TW_LOG("%D DEBUG (%t): %C\n", text.str().c_str());
}

}  // namespace Tarnwick
