// Fuzz target: a received message with arbitrary payload bytes behind a valid
// header, turned into a typed event by Event_Factory::create and then read
// back through every form of getArg. The arguments are then sent on and
// received again: whatever the writer put into the payload must parse back
// with the same values (a crash otherwise). libxml2's reports are the
// library's business: they go to its log, which the target silences.
//
// Input layout:
//   byte 0    event type: 1 + b % 19 for b < 0xF8, otherwise one of a few
//             numbers outside 1..19 (the factory must refuse them)
//   byte 1    header flags, masked to the defined bits (0x04 = binary
//             payload, otherwise the payload is parsed as XML)
//   byte 2..  the payload, as it came off the wire
#include <tarnwick/abstract_event.h>
#include <tarnwick/event_factory.h>
#include <tarnwick/message_block.h>
#include <tarnwick/message_header.h>

#include <ace/Log_Msg.h>
#include <libxml/parser.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>

#include "fuzz_support.h"

namespace {

uint32_t eventType(uint8_t selector) {
    static const uint32_t outside[] = {0, 20, 21, 99, 255, 0x80000000u, 0xFFFFFFFFu, 1000};
    if (selector < 0xF8)
        return 1 + selector % 19;
    return outside[selector - 0xF8];
}

void readArguments(Tarnwick::Abstract_Event* ev) {
    std::string s;
    ev->getArg("x", s);
    // The map is copied: reading arguments may not change it, but the
    // target should not depend on that.
    const std::map<std::string, std::string> args = ev->getArgMap();
    for (const auto& kv : args) {
        const char* name = kv.first.c_str();
        char buf[64];
        ev->getArg(name, buf, sizeof buf);
        ev->getArg(name, s);
        int i = 0;
        ev->getArg(name, &i);
        bool b = false;
        ev->getArg(name, &b);
        std::map<std::string, std::string> m;
        ev->getArg(name, m);
    }
}

// Receives the payload of `sent` again and checks that every argument with a
// text arrives with that text.
void resend(Tarnwick::Message_Block* sent, const std::map<std::string, std::string>& args) {
    Tarnwick::Message_Block* copy = new Tarnwick::Message_Block;
    Tarnwick::Message_Header* h = copy->getHeader();
    if (h == nullptr) {
        copy->release();
        return;
    }
    h->open();
    h->setType(1);
    copy->wr_ptr(32);
    for (ACE_Message_Block* piece = sent->cont(); piece != nullptr; piece = piece->cont())
        copy->write(piece->rd_ptr(), piece->length());
    h->setSize(static_cast<uint32_t>(copy->getLength()));
    Tarnwick::Abstract_Event* again = Tarnwick::Event_Factory::create(copy);
    if (again != nullptr) {
        const std::map<std::string, std::string>& back = again->getArgMap();
        for (const auto& kv : args) {
            if (kv.second.empty())
                continue;
            auto found = back.find(kv.first);
            if (found == back.end() || found->second != kv.second)
                std::abort();
        }
        again->destroy();
    }
    copy->release();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    xmlInitParser();
    TarnwickFuzz::silenceLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2)
        return 0;
    // ACE_Log_Msg keeps its settings per thread as well; make sure this
    // thread is quiet even if the runner calls us on another one.
    TarnwickFuzz::silenceLog();

    const uint32_t type = eventType(data[0]);
    const uint32_t flags = data[1] & 0x1E;
    const char* payload = reinterpret_cast<const char*>(data + 2);
    const size_t length = size - 2;

    Tarnwick::Message_Block* mb = new Tarnwick::Message_Block;
    Tarnwick::Message_Header* h = mb->getHeader();
    if (h == nullptr) {
        mb->release();
        return 0;
    }
    h->open();
    h->setType(type);
    h->setSize(static_cast<uint32_t>(length));
    h->setFlags(flags);
    mb->wr_ptr(32);
    if (length > 0)
        mb->write(payload, length);

    Tarnwick::Abstract_Event* ev = Tarnwick::Event_Factory::create(mb);
    if (ev != nullptr) {
        readArguments(ev);
        const std::map<std::string, std::string> args = ev->getArgMap();
        // Re-encoding what arrived must work as well: this rebuilds the XML
        // payload from the arguments that were read out of it.
        Tarnwick::Message_Block* out = static_cast<Tarnwick::Message_Block*>(ev->data(false));
        if (out != nullptr && !args.empty() && !out->isStoredOnDisk()) {
            resend(out, args);
        }
        ev->destroy();
    }
    mb->release();
    return 0;
}
