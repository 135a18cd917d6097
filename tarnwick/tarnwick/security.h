// SSL set-up and privileges of the process.
#pragma once

namespace Tarnwick {

// SSL set-up and privileges of the process: static members only. The rest of
// the class arrives later.
class Security {
public:
    // Logging in as another user is not implemented on this platform: sets
    // errno to ENOSYS and returns -1.
    static int login(const char* user, const char* password);

private:
    Security();
};

}  // namespace Tarnwick
