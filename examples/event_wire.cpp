// event_wire: what an event looks like on the wire, and how a received one
// reaches its handler.
//
// Builds an IdentityEvent and a GetVersionEvent with a few arguments, takes
// the bytes that a connection would send for each (the 32-byte header in
// network order, then the payload), prints them, and then does what the
// receiving side does: a new Message_Block from the bytes, a typed event from
// Event_Factory::create, and EventHandler::handle_event to dispatch it.
#include <tarnwick/abstract_event.h>
#include <tarnwick/event_factory.h>
#include <tarnwick/message_block.h>
#include <tarnwick/message_header.h>

#include <libxml/parser.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

// The bytes of the event's message as a sender writes them.
Bytes wireBytes(Tarnwick::Abstract_Event* ev) {
    ACE_Message_Block* b = ev->data(false);  // lent: the event keeps it
    if (b == nullptr)
        return Bytes();
    Tarnwick::Message_Header header = *static_cast<Tarnwick::Message_Block*>(b)->getHeader();
    header.encode();  // the wire is in network order
    const unsigned char* h = reinterpret_cast<const unsigned char*>(&header);
    Bytes out(h, h + sizeof header);
    for (ACE_Message_Block* p = b->cont(); p != nullptr; p = p->cont()) {
        const unsigned char* d = reinterpret_cast<const unsigned char*>(p->rd_ptr());
        out.insert(out.end(), d, d + p->length());
    }
    return out;
}

// The header as eight 32-bit words and the payload as text.
void dumpWire(const char* what, const Bytes& wire) {
    static const char* const names[8] = {"agentid", "ACT",   "size",  "type",
                                         "flags",   "magic", "state", "reserved"};
    std::printf("%s: %zu bytes on the wire\n", what, wire.size());
    for (int i = 0; i < 8 && wire.size() >= 32; ++i) {
        const unsigned char* w = &wire[i * 4];
        std::printf("  %-8s %02x %02x %02x %02x\n", names[i], w[0], w[1], w[2], w[3]);
    }
    if (wire.size() <= 32) {
        std::printf("  (no payload)\n");
        return;
    }
    std::string text;
    for (size_t i = 32; i < wire.size(); ++i) {
        unsigned char c = wire[i];
        if (c == '\n' || std::isprint(c)) {
            text += static_cast<char>(c);
        } else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            text += hex;
        }
    }
    std::printf("  payload:\n    ");
    for (char c : text) {
        if (c == '\n')
            std::printf("\n    ");
        else
            std::putchar(c);
    }
    std::printf("\n");
}

// What a connection does with the bytes it has read: the header into a new
// block, decoded to host order and checked, the payload behind it, and the
// typed event made from the whole. Null when the bytes are no message.
Tarnwick::Abstract_Event* receive(const Bytes& wire) {
    if (wire.size() < 32)
        return nullptr;
    Tarnwick::Message_Block* block = new Tarnwick::Message_Block;
    Tarnwick::Message_Header* header = block->getHeader();
    std::memcpy(static_cast<void*>(header), wire.data(), 32);
    header->decode();
    if (!header->isReadable() || header->getSize() != wire.size() - 32) {
        block->release();
        return nullptr;
    }
    block->wr_ptr(32);
    if (wire.size() > 32)
        block->write(reinterpret_cast<const char*>(wire.data() + 32), wire.size() - 32);
    Tarnwick::Abstract_Event* ev = Tarnwick::Event_Factory::create(block);
    block->release();  // the event holds its own reference
    return ev;
}

// A client's handler: it has code for GetVersionEvent only. Every other
// event comes to handle_unsupported.
class VersionHandler : public Tarnwick::EventHandler {
public:
    using Tarnwick::EventHandler::handle;

    int handle(Tarnwick::GetVersionEvent* ev) override {
        std::string product;
        int build = 0;
        ev->getArg("product", product);
        ev->getArg("build", &build);
        std::printf("handler: GetVersionEvent, token %u: product '%s', build %d\n", ev->getACT(),
                    product.c_str(), build);
        for (const auto& kv : ev->getArgMap())
            std::printf("  %s = %s\n", kv.first.c_str(), kv.second.c_str());
        return 0;  // handled, no reply
    }

    int handle_unsupported(Tarnwick::Abstract_Event* ev) override {
        std::string login;
        ev->getArg("login", login);
        std::printf("handler: no code for event type %u (login '%s'), ignored\n", ev->getType(),
                    login.c_str());
        return 0;
    }
};

}  // namespace

int main() {
    xmlInitParser();

    // Events are heap objects, given up with destroy().
    Tarnwick::Abstract_Event* identity = new Tarnwick::IdentityEvent;
    identity->setArg("type", "agent");
    identity->setArg("agentid", 1001);
    identity->setArg("login", "backup");

    Tarnwick::Abstract_Event* version = new Tarnwick::GetVersionEvent;
    version->setAgentID(1001);
    version->setArg("product", "event_wire");
    version->setArg("build", 42);

    const Bytes identityWire = wireBytes(identity);
    const Bytes versionWire = wireBytes(version);
    identity->destroy();
    version->destroy();
    dumpWire("IdentityEvent", identityWire);
    dumpWire("GetVersionEvent", versionWire);

    VersionHandler handler;
    int status = 0;
    for (const Bytes* wire : {&identityWire, &versionWire}) {
        Tarnwick::Abstract_Event* ev = receive(*wire);
        if (ev == nullptr) {
            std::printf("error: the bytes did not make an event\n");
            status = 1;
            continue;
        }
        if (handler.handle_event(ev) != 0)
            status = 1;
        ev->destroy();
    }
    xmlCleanupParser();
    return status;
}
