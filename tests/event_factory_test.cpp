#include <tarnwick/event_factory.h>
#include <tarnwick/message_block.h>
#include <tarnwick/tarnwick.h>

#include <gtest/gtest.h>

#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <typeinfo>
#include <vector>

#include "log_capture.h"
#include "wire.h"

using namespace Tarnwick;
using TarnwickTest::LogCapture;

namespace {

const char* const UNKNOWN_TYPE =
    "%D ERROR (%t): unknown event type, can not instantiate an object of this type.";

// Records which overload ran.
class RecordingHandler : public EventHandler {
public:
    int handle(GetVersionEvent*) override {
        calls.push_back("GetVersionEvent");
        return 5;
    }
    int handle(KickEvent*) override {
        calls.push_back("KickEvent");
        errno = ENOSYS;
        return -1;
    }
    int handle(ReloadEvent*) override {
        calls.push_back("ReloadEvent");
        errno = EACCES;
        return -1;
    }
    int handle(HeartBeatEvent*) override {
        calls.push_back("HeartBeatEvent");
        return 0;
    }
    int handle_unsupported(Abstract_Event* event) override {
        calls.push_back("unsupported " + std::to_string(event->type()) + " errno " +
                        std::to_string(errno));
        return unsupportedResult;
    }

    std::vector<std::string> calls;
    int unsupportedResult = 0;
};

}  // namespace

TEST(EventFactory, UnknownTypesAreLoggedAndRefused) {
    for (int type : {0, 20, -1, 99}) {
        LogCapture capture;
        EXPECT_EQ(Event_Factory::create(type), nullptr) << type;
        EXPECT_EQ(capture.lines(), std::vector<std::string>{UNKNOWN_TYPE}) << type;
    }
}

TEST(EventFactory, EachTypeGivesItsClass) {
    const std::vector<std::string> names = {
        typeid(IdentityEvent).name(),       typeid(ErrorEvent).name(),
        typeid(DirListEvent).name(),        typeid(DownloadEvent).name(),
        typeid(UploadEvent).name(),         typeid(StartProcessEvent).name(),
        typeid(StopProcessEvent).name(),    typeid(StatusProcessEvent).name(),
        typeid(OutputProcessEvent).name(),  typeid(ListSessionsEvent).name(),
        typeid(KickEvent).name(),           typeid(GetJobLogEvent).name(),
        typeid(StopJobEvent).name(),        typeid(ReloadEvent).name(),
        typeid(HeartBeatEvent).name(),      typeid(WorkflowActionEvent).name(),
        typeid(GetVersionEvent).name(),     typeid(SetDebugEvent).name(),
        typeid(JobStepProgressEvent).name()};
    for (int type = 1; type <= 19; ++type) {
        Abstract_Event* event = Event_Factory::create(type);
        ASSERT_NE(event, nullptr);
        EXPECT_EQ(event->type(), type);
        EXPECT_EQ(event->getType(), static_cast<uint32_t>(type));
        EXPECT_EQ(typeid(*event).name(), names[type - 1]);
        event->destroy();
    }
}

TEST(EventFactory, CreateFromABlockFillsTheEvent) {
    ListSessionsEvent sent;
    sent.setACT(4711);
    sent.setAgentID(3);
    sent.setArg("session", "s1");
    Message_Block* block = TarnwickTest::blockFromWire(TarnwickTest::wireBytes(sent.data(false)));
    Abstract_Event* event = Event_Factory::create(block);
    block->release();
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(event->type(), LIST_SESSIONS_EVENT);
    EXPECT_NE(dynamic_cast<ListSessionsEvent*>(event), nullptr);
    EXPECT_EQ(event->getACT(), 4711u);
    EXPECT_EQ(event->getAgentID(), 3u);
    std::string session;
    EXPECT_EQ(event->getArg("session", session), 0);
    EXPECT_EQ(session, "s1");
    event->destroy();
}

TEST(EventFactory, EventIsReturnedEvenWhenTheBlockSizeIsWrong) {
    Message_Block* block = new Message_Block();
    block->getHeader()->setType(KICK_EVENT);
    block->wr_ptr(16);
    LogCapture capture;
    Abstract_Event* event = Event_Factory::create(block);
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(event->type(), KICK_EVENT);
    EXPECT_EQ(capture.lines(),
              std::vector<std::string>{
                  "%D ERROR (%t): Assigning data block with invalid size (16) to Event object."});
    event->destroy();
    block->release();
}

// A block as a connection assembles it, with `payload` as a formatted payload.
Message_Block* blockWithPayload(uint32_t type, const std::string& payload) {
    std::string wire = TarnwickTest::word(0) + TarnwickTest::word(12) +
                       TarnwickTest::word(static_cast<uint32_t>(payload.size())) +
                       TarnwickTest::word(type) + TarnwickTest::word(0) +
                       TarnwickTest::word(0x00060201) + TarnwickTest::word(0) +
                       TarnwickTest::word(0) + payload;
    return TarnwickTest::blockFromWire(wire);
}

TEST(EventFactory, MalformedPayloadGivesAnEventWithoutArgumentsAndOneDebugLine) {
    std::fflush(stderr);
    char name[] = "/tmp/tarnwick_stderr_XXXXXX";
    int const file = mkstemp(name);
    ASSERT_GE(file, 0);
    unlink(name);
    int const saved = dup(2);
    dup2(file, 2);
    std::vector<std::string> lines;
    Abstract_Event* event = nullptr;
    {
        LogCapture capture;
        Message_Block* block =
            blockWithPayload(DIR_LIST_EVENT, std::string("<message><param name=\"a\">") + '\0');
        event = Event_Factory::create(block);
        block->release();
        lines = capture.lines();
    }
    std::fflush(stderr);
    dup2(saved, 2);
    close(saved);
    char buffer[256];
    ssize_t const written = pread(file, buffer, sizeof buffer, 0);
    close(file);
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(event->type(), DIR_LIST_EVENT);
    EXPECT_TRUE(event->getArgMap().empty());
    event->destroy();
    EXPECT_EQ(written, 0) << std::string(buffer, written > 0 ? written : 0);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].compare(0, 24, "%D DEBUG (%t): libxml2: "), 0) << lines[0];
}

TEST(EventFactory, ParameterNamesAreTakenAsTheyStand) {
    Message_Block* block = blockWithPayload(
        DIR_LIST_EVENT, std::string("<message><param name=\"path\">/a</param>"
                                    "<param name=\"x' or @name='path\">b</param></message>") +
                            '\0');
    Abstract_Event* event = Event_Factory::create(block);
    block->release();
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(event->getArgMap(),
              (std::map<std::string, std::string>{{"path", "/a"}, {"x' or @name='path", "b"}}));
    std::string value;
    EXPECT_EQ(event->getArg("x' or @name='path", value), 0);
    EXPECT_EQ(value, "b");
    event->destroy();
}

TEST(EventFactory, BlockWithTypeNinetyNineIsNotConverted) {
    Message_Block* block = new Message_Block();
    block->getHeader()->setType(99);
    block->wr_ptr(32);
    LogCapture capture;
    EXPECT_EQ(Event_Factory::create(block), nullptr);
    EXPECT_EQ(capture.lines(), std::vector<std::string>{UNKNOWN_TYPE});
    EXPECT_EQ(block->data_block()->reference_count(), 1);
    block->release();
}

TEST(EventFactory, CreateFromAPlainBlockFailsCleanly) {
    ACE_Message_Block plain(64);
    plain.wr_ptr(32);
    EXPECT_EQ(Event_Factory::create(&plain), nullptr);
    EXPECT_EQ(Event_Factory::create(static_cast<ACE_Message_Block*>(nullptr)), nullptr);
}

TEST(EventHandler, DefaultHandlerReturnsZeroForEveryClassAndClearsTheError) {
    EventHandler handler;
    for (int type = 1; type <= 19; ++type) {
        Abstract_Event* event = Event_Factory::create(type);
        errno = 0;
        EXPECT_EQ(event->handle(&handler), -1) << type;
        EXPECT_EQ(errno, ENOSYS) << type;
        errno = 7;
        EXPECT_EQ(handler.handle_event(event), 0) << type;
        EXPECT_EQ(errno, 0) << type;
        event->destroy();
    }
    EXPECT_EQ(handler.handle_disconnect(nullptr), 0);
}

TEST(EventHandler, DispatchReachesTheOverloadForTheClass) {
    RecordingHandler handler;
    Abstract_Event* version = Event_Factory::create(GET_VERSION_EVENT);
    Abstract_Event* beat = Event_Factory::create(HEART_BEAT_EVENT);
    Abstract_Event* dir = Event_Factory::create(DIR_LIST_EVENT);
    EXPECT_EQ(handler.handle_event(version), 5);
    EXPECT_EQ(handler.handle_event(beat), 0);
    handler.unsupportedResult = 1;
    EXPECT_EQ(handler.handle_event(dir), 1);
    EXPECT_EQ(handler.calls, (std::vector<std::string>{"GetVersionEvent", "HeartBeatEvent",
                                                       "unsupported 3 errno 0"}));
    version->destroy();
    beat->destroy();
    dir->destroy();
}

TEST(EventHandler, OverrideSettingTheUnsupportedSignalIsTreatedAsUnsupported) {
    RecordingHandler handler;
    Abstract_Event* kick = Event_Factory::create(KICK_EVENT);
    EXPECT_EQ(handler.handle_event(kick), 0);
    EXPECT_EQ(handler.calls, (std::vector<std::string>{"KickEvent", "unsupported 11 errno 0"}));
    kick->destroy();
}

TEST(EventHandler, OtherFailuresComeBackAsMinusOne) {
    RecordingHandler handler;
    Abstract_Event* reload = Event_Factory::create(RELOAD_EVENT);
    EXPECT_EQ(handler.handle_event(reload), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(handler.calls, std::vector<std::string>{"ReloadEvent"});
    reload->destroy();
}

TEST(EventHandler, DestroyDeletesTheHandler) {
    EventHandler* handler = new EventHandler();
    handler->destroy();
}

TEST(TranslateCommand, NamesOfCommandNumbers) {
    EXPECT_STREQ(translate_command(14), L"Hartbeat (internal)");
    EXPECT_STREQ(translate_command(0), L"No command");
    EXPECT_STREQ(translate_command(2), L"Session List");
    EXPECT_STREQ(translate_command(21), L"Reload Configuration");
}
