#include <tarnwick/act_cache.h>
#include <tarnwick/identity.h>
#include <tarnwick/log.h>
#include <tarnwick/path.h>

#include <ace/Guard_T.h>
#include <ace/Singleton.h>

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

ACT_Cache::ACT_Cache() = default;

ACT_Cache* ACT_Cache::instance() {
    return ACE_Singleton<ACT_Cache, ACE_Thread_Mutex>::instance();
}

int ACT_Cache::prepare() {
    if (!m_directory.empty())
        return 0;
    std::string directory;
    if (Path::TempPath(directory) == -1)
        return -1;
    Path::Join(directory, "event-cache");
    Path::Join(directory, Identity::instance()->typeAsString());
    if (!Path::IsDirectory(directory) && Path::MkTree(directory, 0700) == -1) {
        TW_LOG("%D ERROR (%t): Can not make directory %C: %m\n", directory.c_str());
        return 0;
    }
    TW_LOG("%D DEBUG (%t): Events with a large payload will be cached in %C\n", directory.c_str());
    m_directory = directory;
    return 0;
}

int ACT_Cache::path(uint32_t token, std::string& file) {
    if (prepare() == -1 || token == 0)
        return -1;
    file = m_directory;
    std::string const name = "event-" + std::to_string(token) + ".dat";
    Path::Join(file, name.c_str());
    return 0;
}

}  // namespace Tarnwick
