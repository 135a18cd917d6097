// event_wire: what an event looks like on the wire, and how a received one
// reaches its handler.
//
// Builds an IdentityEvent and a GetVersionEvent with a few arguments, takes
// the bytes that a connection would send for each (the 32-byte header in
// network order, then the payload) from a Message_Writer, prints them, and
// then does what the receiving side does: a Message_Reader assembles the
// message from the bytes, Event_Factory::create makes the typed event, and
// EventHandler::handle_event dispatches it.
#include <tarnwick/abstract_event.h>
#include <tarnwick/event_factory.h>
#include <tarnwick/message_codec.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

// The bytes of the event's message as a sender writes them: what the
// library's Message_Writer gives out for its block.
Bytes wireBytes(Tarnwick::Abstract_Event* ev) {
    const std::string bytes = Tarnwick::Message_Writer::Bytes(ev->data(false));  // lent block
    return Bytes(bytes.begin(), bytes.end());
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

// What a connection does with the bytes it has read: a Message_Reader takes
// them (checking the header, then collecting the payload), and the whole
// message becomes a typed event. Null when the bytes are no whole message.
Tarnwick::Abstract_Event* receive(const Bytes& wire) {
    Tarnwick::Message_Reader reader;
    size_t used = 0;
    if (reader.feed(reinterpret_cast<const char*>(wire.data()), wire.size(), used) != 1 ||
        used != wire.size())
        return nullptr;
    ACE_Message_Block* block = reader.take();
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
    return status;
}
