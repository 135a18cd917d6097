#include <tarnwick/act_cache.h>

#include <ace/Guard_T.h>

#include <cerrno>

namespace Tarnwick {

ACT_List::ACT_List() = default;
ACT_List::~ACT_List() = default;

int ACT_List::add(uint32_t token) {
    ACE_Guard<ACE_Thread_Mutex> guard(m_mutex);
    if (!guard.locked())
        return -1;
    if (m_tokens.insert(token) == -1) {
        errno = ENOMEM;
        return -1;
    }
    return 0;
}

int ACT_List::remove(uint32_t token) {
    ACE_Guard<ACE_Thread_Mutex> guard(m_mutex);
    if (!guard.locked())
        return -1;
    m_tokens.remove(token);
    return 0;
}

bool ACT_List::contains(uint32_t token) {
    ACE_Guard<ACE_Thread_Mutex> guard(m_mutex);
    if (!guard.locked())
        return false;
    return m_tokens.find(token) == 0;
}

size_t ACT_List::size() {
    ACE_Guard<ACE_Thread_Mutex> guard(m_mutex);
    return m_tokens.size();
}

}  // namespace Tarnwick
