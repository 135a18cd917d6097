#include <tarnwick/configuration.h>
#include <tarnwick/configuration_paths.h>
#include <tarnwick/log.h>
#include <tarnwick/path.h>

#include <ace/Guard_T.h>

#include <cerrno>
#include <string>

namespace Tarnwick {

namespace {

// The value of a setting, copied under the lock of the configuration (a
// reload on another thread may replace the stored one). False when the
// setting has no value.
bool configuredValue(const wchar_t* key, std::wstring& out) {
    Configuration* config = getConfigSingleton();
    if (config == nullptr)
        return false;
    ACE_GUARD_RETURN(ACE_Recursive_Thread_Mutex, guard, config->lock(), false);
    const wchar_t* const value = config->asString(key);
    if (value == nullptr)
        return false;
    out = value;
    return true;
}

}  // namespace

int check_path(const wchar_t* key) {
    if (key == nullptr) {
        errno = EINVAL;
        return -1;
    }
    std::wstring value;
    if (!configuredValue(key, value)) {
        TW_LOG(
            "%D ERROR (%t): Configuration setting '%W' not set. Please check your "
            "configuration\n",
            key);
        return -1;
    }
    if (!Path::IsDirectory(value.c_str())) {
        TW_LOG("%D ERROR (%t): Path '%W' does not exist or is not a directory.\n", value.c_str());
        return -1;
    }
    return 0;
}

int validate_all_application_paths() {
    static const wchar_t* const keys[] = {L"log", L"var", L"pid", L"rtdir", L"temp"};
    for (const wchar_t* key : keys) {
        if (check_path(key) == -1)
            return -1;
    }
    return 0;
}

int createPathsFromConfig(const wchar_t** keys) {
    if (keys == nullptr)
        return 0;
    for (; *keys != nullptr; ++keys) {
        if (check_path(*keys) == 0)
            continue;
        std::wstring value;
        if (!configuredValue(*keys, value))
            continue;
        TW_LOG("%D INFO  (%t): Creating directory %W.\n", value.c_str());
        if (Path::MkTree(value.c_str(), 0700) == -1)
            return -1;
    }
    return 0;
}

}  // namespace Tarnwick
