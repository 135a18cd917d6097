// SSL set-up and privileges of the process.
#pragma once

#include <tarnwick/export.h>

namespace Tarnwick {

// Prepares the process-wide SSL context (ACE_SSL_Context::instance()) from
// PEM files named after the application, and declares the settings that name
// them. Static members only. Everything here runs during start-up, on one
// thread, before any connection: nothing takes a lock.
//
// The files of an application named N in the directory K (the setting
// "keydir", or "." without one) are K/N.cert (certificate), K/N.key (private
// key) and K/N.cacert (certificate authority).
//
// Without strict mode no certificate authority is loaded and the peer is not
// verified: SSL then gives encryption, not authentication. Strict mode is off
// unless the application calls enable_strict() before Engine::open. The
// context refuses protocols older than TLS 1.2.
class TARNWICK_EXPORT Security {
public:
    // Declares "keydir" ([paths], required, PATH) and "nossl" in the
    // Configuration. The library never reads "nossl": the application picks
    // the ssl argument of Engine::open and the flags of its connections by it.
    static void initSecurityOptions();

    // The whole set-up from the configuration and Identity::instance()'s
    // name, which must be set by then. -1 when no configuration is loaded or
    // the set-up fails (logged), else 0.
    static int Setup();
    // By the naming rule above. 0 or -1.
    static int SetupSSL(const wchar_t* name);
    // By explicit paths. 0 or -1; a failure leaves the context partly
    // loaded.
    static int SetupSSL(const wchar_t* certificate, const wchar_t* key, const wchar_t* ca);

    // Strict mode: load the CA file and verify the peer's certificate.
    static void enable_strict();
    static void disable_strict();
    // Sets the context up for the accepting side (the default is the
    // connecting side). A server calls this before Setup.
    static void enable_server_setup();
    static void enable_client_setup();

    // The optional authentication component is not part of this library:
    // always false.
    static bool hasCwAT();

    // Logging in as another user is not implemented on this platform: sets
    // errno to ENOSYS and returns -1.
    static int login(const char* user, const char* password);

private:
    Security();

    static int m_ssl_strict_mode;
    static int m_ssl_is_a_server;
};

// Raises and drops the privileges that a backup process needs to read and
// restore every file. On Linux they are capabilities, changed in the
// effective set only:
//   "SeBackupPrivilege"   CAP_DAC_READ_SEARCH
//   "SeRestorePrivilege"  CAP_DAC_OVERRIDE, CAP_CHOWN, CAP_FOWNER, CAP_FSETID
//   "SeSecurityPrivilege" CAP_SYS_ADMIN
// A capability outside the permitted set can be neither raised nor dropped
// ("Can not modify privilege", errno EPERM). Linux keeps capabilities per
// thread: an object changes those of the thread that makes it, and threads
// started by that thread afterwards inherit them. Raise the privileges on the
// thread that does the file work, or before starting the threads that do.
class TARNWICK_EXPORT PrivilegedEnvironment {
public:
    // Changes nothing; the destructor drops nothing.
    PrivilegedEnvironment();
    // With `enable`, raises the privileges (enable_backup, result ignored)
    // and has the destructor drop them. Without, changes nothing.
    explicit PrivilegedEnvironment(bool enable);
    // Drops the privileges if the constructor was asked to raise them,
    // whatever happened since.
    ~PrivilegedEnvironment();

    // Raises backup, restore and security in this order; stops at the first
    // failure (logged), leaving those before it raised. 0 or -1.
    int enable_backup();
    // Drops all three in the same order, ignoring failures. Always 0.
    int disable_backup();

private:
    PrivilegedEnvironment(const PrivilegedEnvironment&);
    PrivilegedEnvironment& operator=(const PrivilegedEnvironment&);

    // Raises (`enable` not 0) or drops the capabilities of the privilege
    // `name`. 0, or -1 logged.
    int setPrivilege(const char* name, int enable);

    bool m_active;
};

}  // namespace Tarnwick
