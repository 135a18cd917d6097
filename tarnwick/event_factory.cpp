#include <tarnwick/event_factory.h>
#include <tarnwick/log.h>

#include <cerrno>
#include <new>

namespace Tarnwick {

#define TARNWICK_DEFINE_EVENT(Name, Number)             \
    Name::Name() = default;                             \
    Name::Name(const Name& other) = default;            \
    Name& Name::operator=(const Name& other) = default; \
    Name::~Name() = default;                            \
    EventType Name::type() const {                      \
        return Number;                                  \
    }                                                   \
    int Name::handle(EventHandler* handler) {           \
        return handler->handle(this);                   \
    }

TARNWICK_DEFINE_EVENT(IdentityEvent, IDENTITY_EVENT)
TARNWICK_DEFINE_EVENT(ErrorEvent, ERROR_EVENT)
TARNWICK_DEFINE_EVENT(DirListEvent, DIR_LIST_EVENT)
TARNWICK_DEFINE_EVENT(DownloadEvent, DOWNLOAD_EVENT)
TARNWICK_DEFINE_EVENT(UploadEvent, UPLOAD_EVENT)
TARNWICK_DEFINE_EVENT(StartProcessEvent, START_PROCESS_EVENT)
TARNWICK_DEFINE_EVENT(StopProcessEvent, STOP_PROCESS_EVENT)
TARNWICK_DEFINE_EVENT(StatusProcessEvent, STATUS_PROCESS_EVENT)
TARNWICK_DEFINE_EVENT(OutputProcessEvent, OUTPUT_PROCESS_EVENT)
TARNWICK_DEFINE_EVENT(ListSessionsEvent, LIST_SESSIONS_EVENT)
TARNWICK_DEFINE_EVENT(KickEvent, KICK_EVENT)
TARNWICK_DEFINE_EVENT(GetJobLogEvent, GET_JOB_LOG_EVENT)
TARNWICK_DEFINE_EVENT(StopJobEvent, STOP_JOB_EVENT)
TARNWICK_DEFINE_EVENT(ReloadEvent, RELOAD_EVENT)
TARNWICK_DEFINE_EVENT(HeartBeatEvent, HEART_BEAT_EVENT)
TARNWICK_DEFINE_EVENT(WorkflowActionEvent, WORKFLOW_ACTION_EVENT)
TARNWICK_DEFINE_EVENT(GetVersionEvent, GET_VERSION_EVENT)
TARNWICK_DEFINE_EVENT(SetDebugEvent, SET_DEBUG_EVENT)
TARNWICK_DEFINE_EVENT(JobStepProgressEvent, JOB_STEP_PROGRESS_EVENT)

#undef TARNWICK_DEFINE_EVENT

namespace {

// The common body of every handle overload that has no code for its event.
int unsupported() {
    errno = ENOSYS;
    return -1;
}

}  // namespace

EventHandler::EventHandler() : ACE_Task<ACE_MT_SYNCH>(nullptr, nullptr) {}

EventHandler::~EventHandler() = default;

int EventHandler::handle_event(Abstract_Event* event) {
    int const result = event->handle(this);
    if (result != -1)
        return result;
    if (errno != ENOSYS)
        return -1;
    errno = 0;
    return handle_unsupported(event);
}

int EventHandler::handle_unsupported(Abstract_Event*) {
    return 0;
}
int EventHandler::handle_disconnect(Handler*) {
    return 0;
}

int EventHandler::handle(JobStepProgressEvent*) {
    return unsupported();
}
int EventHandler::handle(GetVersionEvent*) {
    return unsupported();
}
int EventHandler::handle(WorkflowActionEvent*) {
    return unsupported();
}
int EventHandler::handle(SetDebugEvent*) {
    return unsupported();
}
int EventHandler::handle(HeartBeatEvent*) {
    return unsupported();
}
int EventHandler::handle(GetJobLogEvent*) {
    return unsupported();
}
int EventHandler::handle(StopJobEvent*) {
    return unsupported();
}
int EventHandler::handle(ReloadEvent*) {
    return unsupported();
}
int EventHandler::handle(KickEvent*) {
    return unsupported();
}
int EventHandler::handle(ListSessionsEvent*) {
    return unsupported();
}
int EventHandler::handle(OutputProcessEvent*) {
    return unsupported();
}
int EventHandler::handle(StatusProcessEvent*) {
    return unsupported();
}
int EventHandler::handle(StopProcessEvent*) {
    return unsupported();
}
int EventHandler::handle(StartProcessEvent*) {
    return unsupported();
}
int EventHandler::handle(UploadEvent*) {
    return unsupported();
}
int EventHandler::handle(DownloadEvent*) {
    return unsupported();
}
int EventHandler::handle(DirListEvent*) {
    return unsupported();
}
int EventHandler::handle(ErrorEvent*) {
    return unsupported();
}
int EventHandler::handle(IdentityEvent*) {
    return unsupported();
}

void EventHandler::destroy() {
    delete this;
}

namespace {

Abstract_Event* allocate(int type) {
    switch (type) {
        case IDENTITY_EVENT:
            return new (std::nothrow) IdentityEvent;
        case ERROR_EVENT:
            return new (std::nothrow) ErrorEvent;
        case DIR_LIST_EVENT:
            return new (std::nothrow) DirListEvent;
        case DOWNLOAD_EVENT:
            return new (std::nothrow) DownloadEvent;
        case UPLOAD_EVENT:
            return new (std::nothrow) UploadEvent;
        case START_PROCESS_EVENT:
            return new (std::nothrow) StartProcessEvent;
        case STOP_PROCESS_EVENT:
            return new (std::nothrow) StopProcessEvent;
        case STATUS_PROCESS_EVENT:
            return new (std::nothrow) StatusProcessEvent;
        case OUTPUT_PROCESS_EVENT:
            return new (std::nothrow) OutputProcessEvent;
        case LIST_SESSIONS_EVENT:
            return new (std::nothrow) ListSessionsEvent;
        case KICK_EVENT:
            return new (std::nothrow) KickEvent;
        case GET_JOB_LOG_EVENT:
            return new (std::nothrow) GetJobLogEvent;
        case STOP_JOB_EVENT:
            return new (std::nothrow) StopJobEvent;
        case RELOAD_EVENT:
            return new (std::nothrow) ReloadEvent;
        case HEART_BEAT_EVENT:
            return new (std::nothrow) HeartBeatEvent;
        case WORKFLOW_ACTION_EVENT:
            return new (std::nothrow) WorkflowActionEvent;
        case GET_VERSION_EVENT:
            return new (std::nothrow) GetVersionEvent;
        case SET_DEBUG_EVENT:
            return new (std::nothrow) SetDebugEvent;
        case JOB_STEP_PROGRESS_EVENT:
            return new (std::nothrow) JobStepProgressEvent;
        default:
            return nullptr;
    }
}

}  // namespace

Abstract_Event* Event_Factory::create(int type) {
    if (type < IDENTITY_EVENT || type > JOB_STEP_PROGRESS_EVENT) {
        TW_LOG("%D ERROR (%t): unknown event type, can not instantiate an object of this type.\n");
        return nullptr;
    }
    Abstract_Event* event = allocate(type);
    if (event == nullptr)
        errno = ENOMEM;
    return event;
}

Abstract_Event* Event_Factory::create(ACE_Message_Block* block) {
    Abstract_Event* event = create(static_cast<int>(Abstract_Event::GetMessageType(block)));
    if (event == nullptr)
        return nullptr;
    event->data(block);
    return event;
}

}  // namespace Tarnwick
