#include <tarnwick/configuration.h>
#include <tarnwick/event_factory.h>
#include <tarnwick/identity.h>
#include <tarnwick/message_block.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "child.h"
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

// ---------------------------------------------------------------------------
// Loading the identity from the configuration. The configuration is a
// process-wide singleton: every test that loads it runs in a forked child.

namespace {

// The settings that name the identity, as an application declares them.
const Setting::Importer IDENTITY_ROWS[] = {
    {"agentid", "agent", nullptr, "Number of this agent.", "NUMBER", SETTING_ARGUMENT},
    {"login", "agent", nullptr, "Login name.", "NAME", SETTING_ARGUMENT},
    {"passwd", "agent", nullptr, "Password.", "PASSWORD", SETTING_ARGUMENT},
    {nullptr, nullptr, nullptr, nullptr, nullptr, 0},
};

// Runs `body` in a forked child; its expectations count for the test.
void inChild(const std::function<void()>& body) {
    TarnwickTest::ChildResult const result = TarnwickTest::runInChild([&]() {
        body();
        return ::testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_TRUE(result.exited()) << result.output << result.errors;
    EXPECT_EQ(0, result.exitCode()) << result.output << result.errors;
}

// Declares the identity settings and loads a configuration file with
// `content` into the process-wide configuration.
void loadConfiguration(const std::string& content) {
    char pattern[] = "/tmp/tw-identity-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(pattern));
    std::string const file = std::string(pattern) + "/agent.conf";
    {
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
        out << content;
    }
    Configuration* const config = getConfigSingleton();
    ASSERT_EQ(0, config->import(APPLICATION_SETTINGS));
    ASSERT_EQ(0, config->import(IDENTITY_ROWS));
    std::wstring const path(file.begin(), file.end());
    config->setKeyVal(L"configfile", path.c_str());
    EXPECT_EQ(0, config->open(path.c_str()));
    EXPECT_TRUE(config->isOk());
    std::error_code ignored;
    std::filesystem::remove_all(pattern, ignored);
}

const char FULL_CONFIGURATION[] =
    "[agent]\nagentid=42\nlogin=operat\xc3\xb6r\npasswd=s\xc3\xa9same\n";

}  // namespace

TEST(IdentityLoadFromConfig, WithoutALoadedConfigurationFailsAndLogsNothing) {
    inChild([]() {
        LogCapture capture;
        Identity identity;
        EXPECT_EQ(-1, identity.loadFromConfig("twagent", Identity::TWAGENT));
        EXPECT_FALSE(identity.loaded());
        EXPECT_STREQ("", identity.name());
        EXPECT_EQ(Identity::UNKNOWN, identity.type());
        EXPECT_TRUE(capture.lines().empty());
    });
}

TEST(IdentityLoadFromConfig, TakesNameTypeAgentIdAndCredentials) {
    inChild([]() {
        loadConfiguration(FULL_CONFIGURATION);
        LogCapture capture;
        Identity identity;
        EXPECT_EQ(0, identity.loadFromConfig("twagent", Identity::TWAGENT));
        EXPECT_TRUE(identity.loaded());
        EXPECT_STREQ("twagent", identity.name());
        EXPECT_EQ(Identity::TWAGENT, identity.type());
        EXPECT_EQ(42u, identity.agentid());
        EXPECT_STREQ("operat\xc3\xb6r", identity.login());
        EXPECT_STREQ("s\xc3\xa9same", identity.password());
        EXPECT_TRUE(capture.lines().empty());
    });
}

TEST(IdentityLoadFromConfig, TheFirstLoadWins) {
    inChild([]() {
        loadConfiguration(FULL_CONFIGURATION);
        Identity identity;
        ASSERT_EQ(0, identity.loadFromConfig("twagent", Identity::TWAGENT));
        Tarnwick::getConfigSingleton()->setKeyVal(L"agentid", L"7");
        Tarnwick::getConfigSingleton()->setKeyVal(L"login", L"other");
        EXPECT_EQ(0, identity.loadFromConfig("twmanage", Identity::TWMANAGE));
        EXPECT_STREQ("twagent", identity.name());
        EXPECT_EQ(Identity::TWAGENT, identity.type());
        EXPECT_EQ(42u, identity.agentid());
        EXPECT_STREQ("operat\xc3\xb6r", identity.login());
    });
}

TEST(IdentityLoadFromConfig, OnlyAnAgentTakesTheAgentId) {
    inChild([]() {
        loadConfiguration(FULL_CONFIGURATION);
        Identity identity;
        EXPECT_EQ(0, identity.loadFromConfig("twctrl", Identity::TWCTRL));
        EXPECT_EQ(Identity::TWCTRL, identity.type());
        EXPECT_EQ(0u, identity.agentid());
        EXPECT_STREQ("operat\xc3\xb6r", identity.login());
    });
}

TEST(IdentityLoadFromConfig, ACopyCountsAsLoadedAndStaysAsItIs) {
    inChild([]() {
        loadConfiguration(FULL_CONFIGURATION);
        Identity original("twctrl", Identity::TWCTRL, 0);
        Identity copy(original);
        EXPECT_EQ(0, copy.loadFromConfig("twagent", Identity::TWAGENT));
        EXPECT_STREQ("twctrl", copy.name());
        EXPECT_EQ(Identity::TWCTRL, copy.type());
        EXPECT_EQ(0u, copy.agentid());
        EXPECT_STREQ("", copy.login());
    });
}

TEST(IdentityLoadFromConfig, ANullNameKeepsTheNameAndAbsentValuesChangeNothing) {
    inChild([]() {
        loadConfiguration("[agent]\n");
        Identity identity("named", Identity::UNKNOWN, 0);
        identity.setLogin("kept");
        EXPECT_EQ(0, identity.loadFromConfig(nullptr, Identity::TWAGENT));
        EXPECT_TRUE(identity.loaded());
        EXPECT_STREQ("named", identity.name());
        EXPECT_EQ(Identity::TWAGENT, identity.type());
        EXPECT_EQ(0u, identity.agentid());
        EXPECT_STREQ("kept", identity.login());
        EXPECT_STREQ("", identity.password());
    });
}

TEST(IdentityLoadFromConfig, TheProcessIdentityLoadsLikeAnyOther) {
    inChild([]() {
        loadConfiguration(FULL_CONFIGURATION);
        EXPECT_EQ(0, Identity::instance()->loadFromConfig("twagent", Identity::TWAGENT));
        EXPECT_STREQ("twagent", Identity::instance()->name());
        EXPECT_EQ(42u, Identity::instance()->agentid());
    });
}
