// Who a process is: its name, kind of program, agent number and credentials.
#pragma once

#include <tarnwick/export.h>

#include <cstdint>
#include <string>

namespace Tarnwick {

class IdentityEvent;

// The identity of this process (instance()) or of a connection's peer. The
// identification of a connection carries the one into the other as an
// IdentityEvent. No lock guards the fields.
class TARNWICK_EXPORT Identity {
public:
    // The kind of program; every value outside 1 to 5 reads as "unknown".
    enum Type { UNKNOWN = 0, TWAGENT = 1, TWMANAGE = 2, TWCTRL = 3, TWWFE = 4, TWWFC = 5 };

    Identity();
    // Stores name and type; the agent id starts at 0 whatever `agentid` says.
    Identity(const char* name, Identity::Type type, uint32_t agentid);
    // The copy counts as loaded, whatever the source was.
    Identity(const Identity& other);
    // Copies name, login, password, type and agent id; keeps the loaded mark.
    Identity& operator=(const Identity& other);
    ~Identity();

    const char* name() const { return m_name.c_str(); }
    const char* login() const { return m_login.c_str(); }
    const char* password() const { return m_password.c_str(); }
    Identity::Type type() const { return m_type; }
    uint32_t agentid() const { return m_agentid; }
    bool loaded() const { return m_loaded; }

    // -1 for null (nothing changes), else 0.
    int setName(const char* name);
    int setLogin(const char* login);
    int setPassword(const char* password);
    int setType(Identity::Type type);
    int setAgentID(uint32_t agentid);

    // "twagent", "twmanage", "twctrl", "twwfe", "twwfc" or "unknown".
    const char* typeAsString() const;

    // Writes "type", "agentid" and, when both are set, "login" and
    // "password" into the event. -1 when no type is set (logged) or an
    // argument can't be set.
    int updateEvent(IdentityEvent* event);
    // Takes type, agent id, login and password from a received event; the
    // name becomes empty. Nothing changes unless all four are there (-1).
    // Types other than 1 to 3 arrive as 0.
    int updateFromEvent(IdentityEvent* event);

    // Fills the identity from the loaded configuration: the agent id from
    // "agentid" (0 when absent; kept only for TWAGENT), `name` unless null,
    // `type`, and login and password from "login" and "passwd" when present.
    // The first load wins: an identity that is loaded already (a copy is)
    // stays as it is and 0 is returned. -1, with nothing logged, when no
    // configuration is loaded.
    int loadFromConfig(const char* name, Identity::Type type);

    // The identity of this process, created on first use, never destroyed.
    static Identity* instance();

private:
    std::string m_name;
    std::string m_login;
    std::string m_password;
    Identity::Type m_type;
    uint32_t m_agentid;
    bool m_loaded;
};

}  // namespace Tarnwick
