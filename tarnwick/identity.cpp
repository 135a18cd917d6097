#include <tarnwick/configuration.h>
#include <tarnwick/event_factory.h>
#include <tarnwick/identity.h>
#include <tarnwick/log.h>
#include <tarnwick/utf8.h>

#include <ace/Guard_T.h>
#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Singleton.h>

#include <cstdio>
#include <cstdlib>

namespace Tarnwick {

Identity::Identity() : m_type(UNKNOWN), m_agentid(0), m_loaded(false) {}

Identity::Identity(const char* name, Identity::Type type, uint32_t)
    : m_name(name != nullptr ? name : ""), m_type(type), m_agentid(0), m_loaded(false) {}

Identity::Identity(const Identity& other)
    : m_name(other.m_name),
      m_login(other.m_login),
      m_password(other.m_password),
      m_type(other.m_type),
      m_agentid(other.m_agentid),
      m_loaded(true) {}

Identity& Identity::operator=(const Identity& other) {
    m_name = other.m_name;
    m_login = other.m_login;
    m_password = other.m_password;
    m_type = other.m_type;
    m_agentid = other.m_agentid;
    return *this;
}

Identity::~Identity() = default;

namespace {

int assign(std::string& field, const char* value) {
    if (value == nullptr)
        return -1;
    field = value;
    return 0;
}

// Stores the UTF-8 form of the configuration value `key` in `field` when the
// key has a value that converts.
void assignFromConfig(Configuration* config, const wchar_t* key, std::string& field) {
    const wchar_t* const value = config->asString(key);
    if (value == nullptr)
        return;
    char* const text = wcstoutf8_malloced(value);
    if (text == nullptr)
        return;
    field = text;
    utf8free(text);
}

}  // namespace

int Identity::setName(const char* name) {
    return assign(m_name, name);
}
int Identity::setLogin(const char* login) {
    return assign(m_login, login);
}
int Identity::setPassword(const char* password) {
    return assign(m_password, password);
}

int Identity::setType(Identity::Type type) {
    m_type = type;
    return 0;
}

int Identity::setAgentID(uint32_t agentid) {
    m_agentid = agentid;
    return 0;
}

const char* Identity::typeAsString() const {
    switch (m_type) {
        case TWAGENT:
            return "twagent";
        case TWMANAGE:
            return "twmanage";
        case TWCTRL:
            return "twctrl";
        case TWWFE:
            return "twwfe";
        case TWWFC:
            return "twwfc";
        default:
            return "unknown";
    }
}

int Identity::updateEvent(IdentityEvent* event) {
    if (m_type == UNKNOWN) {
        TW_LOG("%D ERROR (%t): internal error: Application Type not set, can not update event.\n");
        return -1;
    }
    if (event->setArg("type", static_cast<int>(m_type)) == -1)
        return -1;
    char agentid[16];
    std::snprintf(agentid, sizeof agentid, "%u", m_agentid);
    if (event->setArg("agentid", agentid) == -1)
        return -1;
    if (m_login.empty() || m_password.empty())
        return 0;
    TW_LOG("%D DEBUG (%t): Setting login credentials!\n");
    if (event->setArg("login", m_login) == -1)
        return -1;
    if (event->setArg("password", m_password) == -1)
        return -1;
    return 0;
}

int Identity::updateFromEvent(IdentityEvent* event) {
    char text[257] = "";
    if (event->getArg("type", text, sizeof text) == -1)
        return -1;
    long type = std::strtol(text, nullptr, 10);
    if (type != TWAGENT && type != TWMANAGE && type != TWCTRL)
        type = UNKNOWN;

    text[0] = '\0';
    if (event->getArg("agentid", text, sizeof text) == -1)
        return -1;
    uint32_t const agentid = static_cast<uint32_t>(std::strtoll(text, nullptr, 10));

    std::string login;
    std::string password;
    if (event->getArg("login", login) == -1)
        return -1;
    if (event->getArg("password", password) == -1)
        return -1;

    m_name.clear();
    m_login = login;
    m_password = password;
    m_type = static_cast<Identity::Type>(type);
    m_agentid = agentid;
    return 0;
}

int Identity::loadFromConfig(const char* name, Identity::Type type) {
    Configuration* const config = getConfigSingleton();
    if (config == nullptr)
        return -1;
    ACE_Guard<ACE_Recursive_Thread_Mutex> guard(config->lock());
    if (!guard.locked() || !config->isOk())
        return -1;
    if (m_loaded)
        return 0;

    unsigned int agentid = 0;
    config->getValue(L"agentid", agentid, false, false);
    if (type == TWAGENT)
        m_agentid = agentid;
    if (name != nullptr)
        m_name = name;
    m_type = type;
    assignFromConfig(config, L"login", m_login);
    assignFromConfig(config, L"passwd", m_password);
    m_loaded = true;
    return 0;
}

Identity* Identity::instance() {
    return ACE_Unmanaged_Singleton<Identity, ACE_Recursive_Thread_Mutex>::instance();
}

}  // namespace Tarnwick
