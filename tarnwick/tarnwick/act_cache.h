// Completion tokens (ACT): the open requests of a connection.
#pragma once

#include <ace/Thread_Mutex.h>
#include <ace/Unbounded_Set.h>

#include <cstdint>

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

}  // namespace Tarnwick
