// A program outside the source tree, built against the installed library:
// encodes an event to wire bytes, decodes them into a new block and checks
// that the typed event made from it carries the arguments. Prints OK.
#include <tarnwick/abstract_event.h>
#include <tarnwick/event_factory.h>
#include <tarnwick/message_block.h>
#include <tarnwick/message_header.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

int failed(const char* what) {
    std::fprintf(stderr, "consumer: %s\n", what);
    return 1;
}

}  // namespace

int main() {
    // Encode: header in network order, then the payload.
    Tarnwick::Abstract_Event* sent = Tarnwick::Event_Factory::create(Tarnwick::GET_VERSION_EVENT);
    if (sent == nullptr)
        return failed("create(GET_VERSION_EVENT) gave null");
    sent->setArg("product", "consumer");
    sent->setArg("build", 42);
    ACE_Message_Block* out = sent->data(false);
    if (out == nullptr)
        return failed("data() gave null");
    Tarnwick::Message_Header* header = static_cast<Tarnwick::Message_Block*>(out)->getHeader();
    const uint32_t token = header->getACT();
    header->decode();
    header->encode();
    std::vector<char> wire(reinterpret_cast<const char*>(header),
                           reinterpret_cast<const char*>(header) + 32);
    header->decode();
    for (ACE_Message_Block* p = out->cont(); p != nullptr; p = p->cont())
        wire.insert(wire.end(), p->rd_ptr(), p->rd_ptr() + p->length());
    sent->destroy();

    // Decode: a new block from the bytes, as a connection builds it.
    Tarnwick::Message_Block* in = new Tarnwick::Message_Block;
    Tarnwick::Message_Header* h = in->getHeader();
    std::memcpy(static_cast<void*>(h), wire.data(), 32);
    h->decode();
    if (!h->isReadable())
        return failed("decoded header is not readable");
    if (h->getSize() != wire.size() - 32)
        return failed("header size does not match the payload");
    in->wr_ptr(32);
    if (in->write(wire.data() + 32, wire.size() - 32) < 0)
        return failed("write() failed");
    Tarnwick::Abstract_Event* got = Tarnwick::Event_Factory::create(in);
    in->release();
    if (got == nullptr)
        return failed("create(block) gave null");

    int status = 0;
    std::string product;
    int build = 0;
    if (got->type() != Tarnwick::GET_VERSION_EVENT)
        status = failed("wrong event type");
    if (got->getACT() != token)
        status = failed("token lost on the way");
    if (got->getArg("product", product) != 0 || product != "consumer")
        status = failed("argument 'product' lost on the way");
    if (got->getArg("build", &build) != 0 || build != 42)
        status = failed("argument 'build' lost on the way");
    got->destroy();

    if (status == 0)
        std::printf("OK: GetVersionEvent with %zu wire bytes\n", wire.size());
    return status;
}
