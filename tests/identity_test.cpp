#include <tarnwick/event_factory.h>
#include <tarnwick/identity.h>
#include <tarnwick/message_block.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "log_capture.h"
#include "wire.h"

using namespace Tarnwick;
using TarnwickTest::LogCapture;
using TarnwickTest::word;

namespace {

// The identity that `sender` gives a peer through a received IdentityEvent;
// the receiving side starts from `start`.
Identity carried(Identity& sender, const Identity& start = Identity()) {
    IdentityEvent event;
    EXPECT_EQ(sender.updateEvent(&event), 0);
    Message_Block* block = TarnwickTest::blockFromWire(TarnwickTest::wireBytes(event.data(false)));
    Abstract_Event* incoming = Event_Factory::create(block);
    block->release();
    Identity peer;
    peer = start;
    peer.updateFromEvent(static_cast<IdentityEvent*>(incoming));
    incoming->destroy();
    return peer;
}

}  // namespace

TEST(Identity, TypeNames) {
    Identity identity;
    const std::vector<std::string> names = {"unknown", "twagent", "twmanage", "twctrl",
                                            "twwfe",   "twwfc",   "unknown"};
    for (int type = 0; type <= 6; ++type) {
        identity.setType(static_cast<Identity::Type>(type));
        EXPECT_EQ(identity.typeAsString(), names[type]) << type;
    }
}

TEST(Identity, ConstructorIgnoresTheAgentId) {
    Identity identity("twagent", Identity::TWAGENT, 55);
    EXPECT_STREQ(identity.name(), "twagent");
    EXPECT_EQ(identity.type(), Identity::TWAGENT);
    EXPECT_EQ(identity.agentid(), 0u);
    EXPECT_FALSE(identity.loaded());
}

TEST(Identity, CopyIsLoadedAssignmentKeepsTheMark) {
    Identity source("a", Identity::TWCTRL, 0);
    source.setLogin("l");
    source.setPassword("p");
    source.setAgentID(4);
    Identity copy(source);
    EXPECT_TRUE(copy.loaded());
    EXPECT_STREQ(copy.name(), "a");
    EXPECT_STREQ(copy.login(), "l");
    EXPECT_STREQ(copy.password(), "p");
    EXPECT_EQ(copy.type(), Identity::TWCTRL);
    EXPECT_EQ(copy.agentid(), 4u);

    Identity assigned;
    assigned = source;
    EXPECT_FALSE(assigned.loaded());
    EXPECT_STREQ(assigned.login(), "l");
    EXPECT_EQ(assigned.agentid(), 4u);
}

TEST(Identity, NullSettersChangeNothing) {
    Identity identity("n", Identity::TWAGENT, 0);
    EXPECT_EQ(identity.setName(nullptr), -1);
    EXPECT_EQ(identity.setLogin(nullptr), -1);
    EXPECT_EQ(identity.setPassword(nullptr), -1);
    EXPECT_STREQ(identity.name(), "n");
    EXPECT_EQ(identity.setName("m"), 0);
    EXPECT_STREQ(identity.name(), "m");
    EXPECT_EQ(identity.setAgentID(3), 0);
    EXPECT_EQ(identity.setType(Identity::TWWFE), 0);
}

TEST(Identity, WireBytesOfAnIdentityEvent) {
    Identity identity("twagent", Identity::TWAGENT, 0);
    identity.setAgentID(7);
    IdentityEvent event;
    event.setACT(0x0A0B0C0D);
    ASSERT_EQ(identity.updateEvent(&event), 0);
    std::string const wire = TarnwickTest::wireBytes(event.data(false));
    std::string const xml =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<message>\n"
        " <param name=\"agentid\">7</param>\n"
        " <param name=\"type\">1</param>\n"
        "</message>\n";
    ASSERT_EQ(wire.size(), 32 + xml.size() + 1);
    std::string const header = word(0) + word(0x0A0B0C0D) +
                               word(static_cast<uint32_t>(xml.size() + 1)) + word(1) + word(0) +
                               word(0x00060201) + word(0) + word(0);
    EXPECT_EQ(TarnwickTest::headerPart(wire), header);
    EXPECT_EQ(TarnwickTest::payloadPart(wire), xml + std::string(1, '\0'));
}

TEST(Identity, UpdateEventWithoutTypeFails) {
    Identity identity;
    IdentityEvent event;
    LogCapture capture;
    EXPECT_EQ(identity.updateEvent(&event), -1);
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{"%D ERROR (%t): internal error: Application Type not set, "
                                       "can not update event."});
    EXPECT_TRUE(event.getArgMap().empty());
}

TEST(Identity, CredentialsTravelOnlyInPairs) {
    Identity identity("x", Identity::TWAGENT, 0);
    identity.setLogin("admin");
    IdentityEvent event;
    {
        LogCapture capture;
        EXPECT_EQ(identity.updateEvent(&event), 0);
        EXPECT_TRUE(capture.lines().empty());
    }
    EXPECT_EQ(event.getArgMap().count("login"), 0u);
    EXPECT_EQ(event.getArgMap().count("password"), 0u);

    identity.setPassword("secret");
    IdentityEvent full;
    LogCapture capture;
    EXPECT_EQ(identity.updateEvent(&full), 0);
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{"%D DEBUG (%t): Setting login credentials!"});
    EXPECT_EQ(full.getArgMap().at("login"), "admin");
    EXPECT_EQ(full.getArgMap().at("password"), "secret");
}

TEST(Identity, FullIdentityCrossesTheWire) {
    Identity sender("twctrl", Identity::TWCTRL, 0);
    sender.setAgentID(4000000000u);
    sender.setLogin("user");
    sender.setPassword("pw");
    Identity peer = carried(sender, Identity("old", Identity::TWAGENT, 0));
    EXPECT_STREQ(peer.name(), "");
    EXPECT_EQ(peer.type(), Identity::TWCTRL);
    EXPECT_EQ(peer.agentid(), 4000000000u);
    EXPECT_STREQ(peer.login(), "user");
    EXPECT_STREQ(peer.password(), "pw");
}

TEST(Identity, TypeFourArrivesAsZero) {
    Identity sender("wfe", Identity::TWWFE, 0);
    sender.setLogin("u");
    sender.setPassword("p");
    Identity peer = carried(sender);
    EXPECT_EQ(peer.type(), Identity::UNKNOWN);
    EXPECT_STREQ(peer.typeAsString(), "unknown");
    EXPECT_STREQ(peer.login(), "u");
}

TEST(Identity, WithoutCredentialsThePeerStaysUntouched) {
    Identity sender("agent", Identity::TWAGENT, 0);
    sender.setAgentID(12);
    Identity start("before", Identity::TWMANAGE, 0);
    start.setAgentID(3);
    Identity peer = carried(sender, start);
    EXPECT_STREQ(peer.name(), "before");
    EXPECT_EQ(peer.type(), Identity::TWMANAGE);
    EXPECT_EQ(peer.agentid(), 3u);
}

TEST(Identity, InstanceIsOneObject) {
    Identity* one = Identity::instance();
    ASSERT_NE(one, nullptr);
    EXPECT_EQ(one, Identity::instance());
}
