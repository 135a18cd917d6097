// Completion tokens (ACT): the open requests of a connection, and the event
// cache where payloads too large for memory are kept, by token.
#pragma once

#include <ace/Thread_Mutex.h>
#include <ace/Unbounded_Set.h>

#include <cstdint>
#include <string>

namespace Tarnwick {

// The open tokens of one connection in one direction: tokens of requests
// that arrived on it (source) or were sent out on it (target). A request and
// its reply carry the same token, so a reply finds its way back by asking
// which connection holds its token. Each list has its own mutex; the
// operations are linear in the number of open tokens.
class ACT_List {
public:
    ACT_List();
    ~ACT_List();
    ACT_List(const ACT_List&) = delete;
    ACT_List& operator=(const ACT_List&) = delete;

    // Adds the token unless it is there. 0, or -1 when the mutex can't be
    // had or memory fails (errno ENOMEM).
    int add(uint32_t token);
    // Removes the token if it is there. 0, or -1 when the mutex can't be had.
    int remove(uint32_t token);
    // False also when the mutex can't be had.
    bool contains(uint32_t token);
    // The number of open tokens.
    size_t size();

private:
    ACE_Unbounded_Set<uint32_t> m_tokens;
    ACE_Thread_Mutex m_mutex;
};

// The process-wide directory of spill files: <temp>/event-cache/<type>, with
// <temp> from Path::TempPath and <type> the process identity's type text, so
// that each kind of program on a machine has its own. A payload's file is
// "event-<token>.dat" in it. Files left behind by a crash are not swept.
class ACT_Cache {
public:
    ACT_Cache();

    // The cache; null (errno ENOMEM) only without memory.
    static ACT_Cache* instance();

    // Makes the directory ready. -1 when the temporary directory can't be
    // found. When the directory can't be made, that is logged and the
    // result is 0 with no directory: the next use tries again, and files
    // are named without one (in the working directory).
    int prepare();
    // The spill file of `token` into `file`. -1 for token 0 or when prepare
    // fails.
    int path(uint32_t token, std::string& file);
    // The prepared directory, empty until then.
    const std::string& directory() const { return m_directory; }

private:
    std::string m_directory;
};

}  // namespace Tarnwick
