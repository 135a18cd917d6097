// What joins the library's layers. A lower module never includes a higher
// one: what it needs from above is given to it here, once, when the library
// is loaded, before any client code runs.
#include <tarnwick/act_cache.h>
#include <tarnwick/application.h>
#include <tarnwick/configuration.h>
#include <tarnwick/identity.h>
#include <tarnwick/path.h>
#include <tarnwick/tarnwick.h>

#include <ace/Guard_T.h>

#include <string>

namespace Tarnwick {

namespace {

// Path's view of the setting "temp": its value in a validated
// configuration, copied under the lock (a reload on another thread may
// replace it).
bool configuredTemp(std::wstring& value) {
    Configuration* config = getConfigSingleton();
    if (config == nullptr)
        return false;
    ACE_Guard<ACE_Recursive_Thread_Mutex> guard(config->lock());
    if (!guard.locked() || !config->isOk())
        return false;
    const wchar_t* const temp = config->asString(L"temp");
    if (temp == nullptr)
        return false;
    value = temp;
    return true;
}

// The configuration's view of the application.
const wchar_t* applicationBinaryname(Application* application) {
    return application->binaryname();
}
const wchar_t* applicationName(Application* application) {
    return application->name();
}
const wchar_t* applicationDescription(Application* application) {
    return application->description();
}
const wchar_t* applicationVersion(Application* application) {
    return application->version();
}

// The spill directory's name: the kind of program this process is.
const char* identityType() {
    return Identity::instance()->typeAsString();
}

struct Layers {
    Layers() {
        Path::setTempSetting(configuredTemp);
        ACT_Cache::setTypeReader(identityType);
        Configuration::ApplicationReaders const readers = {
            applicationBinaryname, applicationName, applicationDescription, applicationVersion};
        Configuration::setApplicationReaders(readers);
    }
};

const Layers g_layers;

}  // namespace

}  // namespace Tarnwick
