#include <tarnwick/security.h>

#include <cerrno>

namespace Tarnwick {

int Security::login(const char* /*user*/, const char* /*password*/) {
    errno = ENOSYS;
    return -1;
}

}  // namespace Tarnwick
