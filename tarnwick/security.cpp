#include <tarnwick/configuration.h>
#include <tarnwick/identity.h>
#include <tarnwick/log.h>
#include <tarnwick/path.h>
#include <tarnwick/security.h>
#include <tarnwick/utf8.h>

#include <ace/Guard_T.h>
#include <ace/Recursive_Thread_Mutex.h>
#include <ace/SSL/SSL_Context.h>
#include <ace/SString.h>

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/capability.h>

#include <cerrno>
#include <cstring>

namespace Tarnwick {

int Security::m_ssl_strict_mode = 0;
int Security::m_ssl_is_a_server = 0;

namespace {

typedef ACE_Guard<ACE_Recursive_Thread_Mutex> Guard;

// Whether the process-wide configuration has been loaded, read under its
// lock. False when the lock can't be had.
bool configurationLoaded(Configuration* config) {
    if (config == nullptr)
        return false;
    Guard guard(config->lock());
    return guard.locked() && config->isOk();
}

// Sends what OpenSSL has to say about the last failure to the log, and
// leaves the error queue empty, so that it can't confuse later calls. errno
// is kept.
void reportSSLError() {
    int const error = errno;
    ACE_SSL_Context::report_error();
    ERR_clear_error();
    errno = error;
}

}  // namespace

void Security::initSecurityOptions() {
    Configuration* const config = getConfigSingleton();
    if (config != nullptr)
        config->import(SECURITY_SETTINGS);
}

int Security::Setup() {
    if (!configurationLoaded(getConfigSingleton()))
        return -1;

    int result = -1;
    wchar_t* const name = utf8towcs_malloced(Identity::instance()->name());
    if (name != nullptr) {
        result = SetupSSL(name);
        wcsfree(name);
    }
    if (result == -1) {
        TW_LOG("%D ERROR (%t): Can not initialize security context.\n");
        return -1;
    }
    return 0;
}

int Security::SetupSSL(const wchar_t* name) {
    TW_LOG("%D DEBUG (%t): Auto loading SSL settings\n");

    ACE_WString base;
    Configuration* const config = getConfigSingleton();
    if (config != nullptr) {
        Guard guard(config->lock());
        const wchar_t* const keydir = guard.locked() ? config->asString(L"keydir") : nullptr;
        TW_LOG("%D DEBUG (%t): in path: %W\n", keydir);
        base = keydir != nullptr ? keydir : L".";
    } else {
        TW_LOG("%D DEBUG (%t): in path: %W\n", static_cast<const wchar_t*>(nullptr));
        base = L".";
    }
    Path::Join(base, name);

    ACE_WString certificate(base);
    ACE_WString key(base);
    ACE_WString ca(base);
    certificate += L".cert";
    key += L".key";
    ca += L".cacert";
    return SetupSSL(certificate.c_str(), key.c_str(), ca.c_str());
}

int Security::SetupSSL(const wchar_t* certificate, const wchar_t* key, const wchar_t* ca) {
    TW_LOG("%D DEBUG (%t): Using SSL certificate: %W\n", certificate);
    TW_LOG("%D DEBUG (%t): Using SSL private key: %W\n", key);

    ACE_SSL_Context* const context = ACE_SSL_Context::instance();

    // The mode comes first: the context is made by the first call that needs
    // it, with the general method, and the mode can't change after that. ACE
    // also loads the certificate authorities of the environment then
    // (SSL_CERT_FILE, SSL_CERT_DIR); strict mode trusts its own CA file only.
    context->set_mode(m_ssl_is_a_server != 0 ? ACE_SSL_Context::SSLv23_server
                                             : ACE_SSL_Context::SSLv23_client);
    SSL_CTX* const ctx = context->context();
    if (ctx != nullptr) {
        SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
        // The engine reads a connection when its socket turns readable, from
        // a blocking socket. A TLS 1.3 session ticket after the handshake
        // turns the socket readable without application data, and the read
        // would wait for data that may never come. Sessions are never
        // resumed: no tickets.
        SSL_CTX_set_num_tickets(ctx, 0);
    }

    if (m_ssl_strict_mode != 0) {
        int loaded = -1;
        std::string const caFile = utf8String(ca);
        if (ctx != nullptr && !caFile.empty()) {
            X509_STORE* const store = X509_STORE_new();
            if (store != nullptr) {
                SSL_CTX_set_cert_store(ctx, store);
                SSL_CTX_set_client_CA_list(ctx, sk_X509_NAME_new_null());
                loaded = context->load_trusted_ca(caFile.c_str(), nullptr, false);
            }
        }
        if (loaded == -1 || context->have_trusted_ca() <= 0) {
            reportSSLError();
            TW_LOG("%D ERROR (%t): Can not load CA key.\n");
            return -1;
        }
    }

    TW_LOG("%D DEBUG (%t): Loading certificate: %W\n", certificate);
    std::string const certificateFile = utf8String(certificate);
    if (context->certificate(certificateFile.c_str(), SSL_FILETYPE_PEM) == -1) {
        reportSSLError();
        TW_LOG("%D ERROR (%t): Can not load SSL certificate: %m\n");
        return -1;
    }

    TW_LOG("%D DEBUG (%t): Loading private key: %W\n", key);
    std::string const keyFile = utf8String(key);
    if (context->private_key(keyFile.c_str(), SSL_FILETYPE_PEM) == -1) {
        reportSSLError();
        TW_LOG("%D ERROR (%t): Can not load SSL private key: %m\n");
        return -1;
    }

    if (m_ssl_strict_mode != 0)
        context->set_verify_peer(1, 1, 0);

    TW_LOG("%D DEBUG (%t): Succesfully loaded SSL certificates.\n");
    return 0;
}

void Security::enable_strict() {
    m_ssl_strict_mode = 1;
}

void Security::disable_strict() {
    m_ssl_strict_mode = 0;
}

void Security::enable_server_setup() {
    m_ssl_is_a_server = 1;
}

void Security::enable_client_setup() {
    m_ssl_is_a_server = 0;
}

bool Security::hasCwAT() {
    return false;
}

int Security::login(const char* /*user*/, const char* /*password*/) {
    errno = ENOSYS;
    return -1;
}

// ---------------------------------------------------------------------------

namespace {

// The capabilities that stand for one privilege.
struct Privilege {
    const char* name;
    cap_value_t capabilities[4];
    int count;
};

const Privilege PRIVILEGES[] = {
    {"SeBackupPrivilege", {CAP_DAC_READ_SEARCH, 0, 0, 0}, 1},
    {"SeRestorePrivilege", {CAP_DAC_OVERRIDE, CAP_CHOWN, CAP_FOWNER, CAP_FSETID}, 4},
    {"SeSecurityPrivilege", {CAP_SYS_ADMIN, 0, 0, 0}, 1},
};

const Privilege* findPrivilege(const char* name) {
    if (name == nullptr)
        return nullptr;
    for (const Privilege& privilege : PRIVILEGES) {
        if (std::strcmp(privilege.name, name) == 0)
            return &privilege;
    }
    return nullptr;
}

// Frees the capability state and keeps errno.
void release(cap_t caps) {
    int const error = errno;
    cap_free(caps);
    errno = error;
}

}  // namespace

PrivilegedEnvironment::PrivilegedEnvironment() : m_active(false) {}

PrivilegedEnvironment::PrivilegedEnvironment(bool enable) : m_active(enable) {
    if (m_active)
        enable_backup();
}

PrivilegedEnvironment::~PrivilegedEnvironment() {
    if (m_active)
        disable_backup();
}

int PrivilegedEnvironment::enable_backup() {
    TW_LOG("%D DEBUG (%t): Enabling backup operator privileges.\n");
    if (setPrivilege("SeBackupPrivilege", 1) == -1) {
        TW_LOG("%D ERROR (%t): Can not set SE_BACKUP_NAME privilege: %m\n");
        return -1;
    }
    if (setPrivilege("SeRestorePrivilege", 1) == -1) {
        TW_LOG("%D ERROR (%t): Can not set SE_RESTORE_NAME privilege: %m\n");
        return -1;
    }
    if (setPrivilege("SeSecurityPrivilege", 1) == -1) {
        TW_LOG("%D ERROR (%t): Can not set SE_SECURITY_NAME privilege: %m\n");
        return -1;
    }
    return 0;
}

int PrivilegedEnvironment::disable_backup() {
    TW_LOG("%D DEBUG (%t): Disabling backup operator privileges.\n");
    setPrivilege("SeBackupPrivilege", 0);
    setPrivilege("SeRestorePrivilege", 0);
    setPrivilege("SeSecurityPrivilege", 0);
    return 0;
}

int PrivilegedEnvironment::setPrivilege(const char* name, int enable) {
    cap_t const caps = cap_get_proc();
    if (caps == nullptr) {
        TW_LOG("%D ERROR (%t): Can not access self to adjust privileges: %m\n");
        return -1;
    }

    const Privilege* const privilege = findPrivilege(name);
    if (privilege == nullptr) {
        TW_LOG("%D ERROR (%t): Unrecognized privilege name: %C\n", name);
        release(caps);
        return -1;
    }

    // A capability outside the permitted set can be neither raised nor
    // dropped: it isn't held.
    int result = 0;
    for (int i = 0; i < privilege->count && result == 0; ++i) {
        cap_flag_value_t permitted = CAP_CLEAR;
        if (cap_get_flag(caps, privilege->capabilities[i], CAP_PERMITTED, &permitted) == -1) {
            result = -1;
        } else if (permitted != CAP_SET) {
            errno = EPERM;
            result = -1;
        }
    }
    if (result == 0 && (cap_set_flag(caps, CAP_EFFECTIVE, privilege->count, privilege->capabilities,
                                     enable != 0 ? CAP_SET : CAP_CLEAR) == -1 ||
                        cap_set_proc(caps) == -1))
        result = -1;

    if (result == -1)
        TW_LOG("%D ERROR (%t): Can not modify privilege (%C): %m\n", name);
    release(caps);
    return result;
}

}  // namespace Tarnwick
