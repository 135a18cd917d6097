// The catalogue of event types: one class per type number, the factory that
// makes them, and EventHandler, which receives them by double dispatch.
#pragma once

#include <tarnwick/export.h>

#include <tarnwick/abstract_event.h>

#include <ace/Task.h>

namespace Tarnwick {

class EventHandler;
class Handler;

// Declares a typed event: an Abstract_Event with a number and its place in
// EventHandler, and nothing more.
#define TARNWICK_DECLARE_EVENT(Name)                     \
    class TARNWICK_EXPORT Name : public Abstract_Event { \
    public:                                              \
        Name();                                          \
        Name(const Name& other);                         \
        Name& operator=(const Name& other);              \
        ~Name() override;                                \
        EventType type() const override;                 \
        int handle(EventHandler* handler) override;      \
    }

TARNWICK_DECLARE_EVENT(IdentityEvent);
TARNWICK_DECLARE_EVENT(ErrorEvent);
TARNWICK_DECLARE_EVENT(DirListEvent);
TARNWICK_DECLARE_EVENT(DownloadEvent);
TARNWICK_DECLARE_EVENT(UploadEvent);
TARNWICK_DECLARE_EVENT(StartProcessEvent);
TARNWICK_DECLARE_EVENT(StopProcessEvent);
TARNWICK_DECLARE_EVENT(StatusProcessEvent);
TARNWICK_DECLARE_EVENT(OutputProcessEvent);
TARNWICK_DECLARE_EVENT(ListSessionsEvent);
TARNWICK_DECLARE_EVENT(KickEvent);
TARNWICK_DECLARE_EVENT(GetJobLogEvent);
TARNWICK_DECLARE_EVENT(StopJobEvent);
TARNWICK_DECLARE_EVENT(ReloadEvent);
TARNWICK_DECLARE_EVENT(HeartBeatEvent);
TARNWICK_DECLARE_EVENT(WorkflowActionEvent);
TARNWICK_DECLARE_EVENT(GetVersionEvent);
TARNWICK_DECLARE_EVENT(SetDebugEvent);
TARNWICK_DECLARE_EVENT(JobStepProgressEvent);

#undef TARNWICK_DECLARE_EVENT

// Receives typed events. A client derives from it and overrides the handle
// overloads of the events it serves. The result of handle_event tells the
// engine what to do: 0 means handled without a reply, -1 a failure that is
// answered with an error reply, and any other value that the event, changed
// by the handler (the engine has set its result flag), is the reply.
class TARNWICK_EXPORT EventHandler : public ACE_Task<ACE_MT_SYNCH> {
public:
    EventHandler();
    ~EventHandler() override;

    // Dispatches `event` to its handle overload. An overload without code
    // for the event (-1 with errno ENOSYS) leads to handle_unsupported, with
    // errno cleared first.
    virtual int handle_event(Abstract_Event* event);
    // Called for events the handler has no code for; 0 (no reply) here.
    virtual int handle_unsupported(Abstract_Event* event);
    // Called when a connection goes; 0 here.
    virtual int handle_disconnect(Handler* handler);

    // Each default sets errno to ENOSYS and returns -1: no code for the event.
    virtual int handle(JobStepProgressEvent* event);
    virtual int handle(GetVersionEvent* event);
    virtual int handle(WorkflowActionEvent* event);
    virtual int handle(SetDebugEvent* event);
    virtual int handle(HeartBeatEvent* event);
    virtual int handle(GetJobLogEvent* event);
    virtual int handle(StopJobEvent* event);
    virtual int handle(ReloadEvent* event);
    virtual int handle(KickEvent* event);
    virtual int handle(ListSessionsEvent* event);
    virtual int handle(OutputProcessEvent* event);
    virtual int handle(StatusProcessEvent* event);
    virtual int handle(StopProcessEvent* event);
    virtual int handle(StartProcessEvent* event);
    virtual int handle(UploadEvent* event);
    virtual int handle(DownloadEvent* event);
    virtual int handle(DirListEvent* event);
    virtual int handle(ErrorEvent* event);
    virtual int handle(IdentityEvent* event);

    // Deletes the handler.
    void destroy();
};

// Makes typed events.
class TARNWICK_EXPORT Event_Factory {
public:
    // A new event of the class for `type` (1 to 19), given up with destroy().
    // Null for an unknown type (logged) or without memory (errno ENOMEM).
    static Abstract_Event* create(int type);
    // A new event for the type in the block's header (host order), filled
    // from the block. The event takes its own reference; the caller keeps
    // theirs. Null as for create(int).
    static Abstract_Event* create(ACE_Message_Block* block);
};

}  // namespace Tarnwick
