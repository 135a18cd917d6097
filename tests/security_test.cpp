// Tests of Security and PrivilegedEnvironment: the settings, the SSL context
// made from the key files of a name, strict mode, and the capabilities that
// stand for the backup privileges.
//
// The SSL context and the configuration are process-wide singletons whose
// state persists, and capabilities are process state too: every test that
// touches them runs in a forked child, and the test process itself never
// makes the SSL context.
#include <tarnwick/abstract_event.h>
#include <tarnwick/configuration.h>
#include <tarnwick/engine.h>
#include <tarnwick/event_factory.h>
#include <tarnwick/handler_t.h>
#include <tarnwick/identity.h>
#include <tarnwick/message_block.h>
#include <tarnwick/message_codec.h>
#include <tarnwick/router.h>
#include <tarnwick/security.h>

#include <gtest/gtest.h>

#include <ace/INET_Addr.h>
#include <ace/OS_NS_sys_time.h>
#include <ace/OS_NS_unistd.h>
#include <ace/SOCK_Acceptor.h>
#include <ace/SOCK_Connector.h>
#include <ace/SOCK_Stream.h>
#include <ace/SSL/SSL_Context.h>
#include <ace/Synch_Options.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <signal.h>
#include <sys/capability.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "engine_setup.h"
#include "forked.h"
#include "log_lines.h"
#include "loopback.h"
#include "pump.h"
#include "scratch_dir.h"

using Tarnwick::Configuration;
using Tarnwick::PrivilegedEnvironment;
using Tarnwick::Security;
using TarnwickTest::argOf;
using TarnwickTest::checkLeaks;
using TarnwickTest::connections;
using TarnwickTest::countPrefix;
using TarnwickTest::freePort;
using TarnwickTest::hasLine;
using TarnwickTest::hasPrefix;
using TarnwickTest::inChild;
using TarnwickTest::LogCapture;
using TarnwickTest::loopback;
using TarnwickTest::now;
using TarnwickTest::pumpFor;
using TarnwickTest::pumpUntil;
using TarnwickTest::ScratchDir;
using TarnwickTest::sourceDir;
using TarnwickTest::wordAt;

namespace {

// ---------------------------------------------------------------------------
// Helpers

std::wstring widen(const std::string& text) {
    return std::wstring(text.begin(), text.end());
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

// Runs tests/support/make_certs.sh: an authority in `dir` and the key files
// of `names` (shell words, "--foreign" included).
bool makeCertificates(const std::string& dir, const std::string& names) {
    std::string const command =
        "sh '" + sourceDir() + "/tests/support/make_certs.sh' '" + dir + "' " + names;
    return std::system(command.c_str()) == 0;
}

// The captured lines, without ACE_SSL's own report of an OpenSSL error.
std::vector<std::string> libraryLines(const LogCapture& capture) {
    std::vector<std::string> lines;
    for (const std::string& line : capture.lines()) {
        if (line.compare(0, 8, "ACE_SSL ") != 0)
            lines.push_back(line);
    }
    return lines;
}

// Declares the library's settings of an application and of security, and
// loads the configuration file `file` with `content`.
void loadConfiguration(const std::string& file, const std::string& content) {
    Configuration* const config = Tarnwick::getConfigSingleton();
    ASSERT_NE(nullptr, config);
    ASSERT_EQ(0, config->import(Tarnwick::APPLICATION_SETTINGS));
    Security::initSecurityOptions();
    writeFile(file, content);
    std::wstring const path = widen(file);
    config->setKeyVal(L"configfile", path.c_str());
    ASSERT_EQ(0, config->open(path.c_str()));
    ASSERT_TRUE(config->isOk());
}

// Whether the trust store of `ctx` verifies the certificate in `file`.
bool storeVerifies(SSL_CTX* ctx, const std::string& file) {
    FILE* const in = std::fopen(file.c_str(), "r");
    if (in == nullptr)
        return false;
    X509* const certificate = PEM_read_X509(in, nullptr, nullptr, nullptr);
    std::fclose(in);
    if (certificate == nullptr)
        return false;
    X509_STORE_CTX* const store = X509_STORE_CTX_new();
    bool ok = false;
    if (store != nullptr &&
        X509_STORE_CTX_init(store, SSL_CTX_get_cert_store(ctx), certificate, nullptr) == 1)
        ok = X509_verify_cert(store) == 1;
    X509_STORE_CTX_free(store);
    X509_free(certificate);
    return ok;
}

// What SSL_accept on the context makes of a peer that has sent nothing yet:
// SSL_ERROR_WANT_READ for a context that can accept.
int acceptOutcome(SSL_CTX* ctx) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0)
        return -1;
    fcntl(fds[0], F_SETFL, O_NONBLOCK);
    SSL* const ssl = SSL_new(ctx);
    int outcome = -1;
    if (ssl != nullptr) {
        SSL_set_fd(ssl, fds[0]);
        outcome = SSL_get_error(ssl, SSL_accept(ssl));
        SSL_free(ssl);
    }
    close(fds[0]);
    close(fds[1]);
    return outcome;
}

// The authority and key files of every SSL test, made once: "server" and
// "client" signed by the authority, "rogue" by another one, and "lonely"
// without its .cacert.
class SecuritySSL : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        keys_ = new ScratchDir();
        ready_ = !keys_->path().empty() &&
                 makeCertificates(keys_->path(), "server client --foreign rogue lonely") &&
                 std::remove((keys_->path() + "/lonely.cacert").c_str()) == 0;
    }
    static void TearDownTestSuite() {
        delete keys_;
        keys_ = nullptr;
    }
    void SetUp() override { ASSERT_TRUE(ready_) << "could not make the key files"; }

    static std::string dir() { return keys_->path(); }
    static std::string file(const std::string& name) { return keys_->path() + "/" + name; }

    static ScratchDir* keys_;
    static bool ready_;
};

ScratchDir* SecuritySSL::keys_ = nullptr;
bool SecuritySSL::ready_ = false;

// The lines of a set-up of the name `name` in `keydir` that succeeds.
std::vector<std::string> successLines(const std::string& keydir, const std::string& base) {
    return {
        "%D DEBUG (%t): Auto loading SSL settings",
        "%D DEBUG (%t): in path: " + keydir,
        "%D DEBUG (%t): Using SSL certificate: " + base + ".cert",
        "%D DEBUG (%t): Using SSL private key: " + base + ".key",
        "%D DEBUG (%t): Loading certificate: " + base + ".cert",
        "%D DEBUG (%t): Loading private key: " + base + ".key",
        "%D DEBUG (%t): Succesfully loaded SSL certificates.",
    };
}

// ---------------------------------------------------------------------------
// The simple members

TEST(Security, LoginIsNotImplemented) {
    errno = 0;
    EXPECT_EQ(-1, Tarnwick::Security::login("user", "password"));
    EXPECT_EQ(ENOSYS, errno);
    errno = 0;
    EXPECT_EQ(-1, Tarnwick::Security::login(nullptr, nullptr));
    EXPECT_EQ(ENOSYS, errno);
}

TEST(Security, HasNoAuthenticationComponent) {
    EXPECT_FALSE(Security::hasCwAT());
}

TEST(Security, InitSecurityOptionsDeclaresKeydirAndNossl) {
    inChild([]() {
        Configuration* const config = Tarnwick::getConfigSingleton();
        EXPECT_FALSE(config->setKeyVal(L"keydir", L"/etc/keys"));
        EXPECT_FALSE(config->hasKey(L"keydir"));

        Security::initSecurityOptions();
        EXPECT_FALSE(config->setKeyVal(L"keydir", L"/etc/keys"));
        EXPECT_TRUE(config->hasKey(L"keydir"));
        EXPECT_EQ(std::wstring(L"/etc/keys"), config->asString(L"keydir"));
        EXPECT_FALSE(config->setKeyVal(L"nossl", nullptr));
        EXPECT_TRUE(config->hasKey(L"nossl"));

        // keydir is required: without it the configuration isn't valid.
        Configuration other;
        ASSERT_EQ(0, other.import(Tarnwick::SECURITY_SETTINGS));
        ASSERT_EQ(0, other.import(Tarnwick::APPLICATION_SETTINGS));
        ScratchDir scratch;
        std::string const file = scratch.path() + "/app.conf";
        writeFile(file, "[paths]\n");
        std::wstring const path = widen(file);
        other.setKeyVal(L"configfile", path.c_str());
        LogCapture capture;
        EXPECT_EQ(-1, other.open(path.c_str()));
        EXPECT_EQ(std::vector<std::string>{"%D ERROR (%t): A required option is missing: paths - "
                                           "keydir"},
                  capture.lines());
    });
}

// ---------------------------------------------------------------------------
// The SSL context

TEST_F(SecuritySSL, SetupSSLByNameLoadsTheFilesOfTheNameInKeydir) {
    inChild([]() {
        Security::initSecurityOptions();
        Tarnwick::getConfigSingleton()->setKeyVal(L"keydir", widen(dir()).c_str());
        LogCapture capture;
        EXPECT_EQ(0, Security::SetupSSL(L"server"));
        EXPECT_EQ(successLines(dir(), file("server")), capture.lines());

        ACE_SSL_Context* const context = ACE_SSL_Context::instance();
        EXPECT_EQ(file("server.cert"), context->certificate_file_name());
        EXPECT_EQ(file("server.key"), context->private_key_file_name());
        EXPECT_EQ(ACE_SSL_Context::SSLv23_client, context->get_mode());
        EXPECT_EQ(TLS1_2_VERSION, SSL_CTX_get_min_proto_version(context->context()));
        EXPECT_EQ(0u, SSL_CTX_get_num_tickets(context->context()));
        // Not strict: the peer isn't verified.
        EXPECT_EQ(SSL_VERIFY_NONE, SSL_CTX_get_verify_mode(context->context()));
    });
}

TEST_F(SecuritySSL, KeydirEndingInASeparatorGetsNoSecondOne) {
    inChild([]() {
        Security::initSecurityOptions();
        Tarnwick::getConfigSingleton()->setKeyVal(L"keydir", widen(dir() + "/").c_str());
        LogCapture capture;
        EXPECT_EQ(0, Security::SetupSSL(L"client"));
        EXPECT_EQ(successLines(dir() + "/", file("client")), capture.lines());
    });
}

TEST_F(SecuritySSL, WithoutKeydirTheFilesAreLookedForInTheCurrentDirectory) {
    inChild([]() {
        ASSERT_EQ(0, chdir(dir().c_str()));
        Security::initSecurityOptions();  // declared, but without a value
        LogCapture capture;
        EXPECT_EQ(0, Security::SetupSSL(L"server"));
        EXPECT_EQ(successLines("(null)", "./server"), capture.lines());
        EXPECT_EQ(std::string("./server.cert"),
                  ACE_SSL_Context::instance()->certificate_file_name());
    });
}

TEST_F(SecuritySSL, WithoutStrictModeAMissingCAFileDoesNoHarm) {
    inChild([]() {
        Security::initSecurityOptions();
        Tarnwick::getConfigSingleton()->setKeyVal(L"keydir", widen(dir()).c_str());
        LogCapture capture;
        EXPECT_EQ(0, Security::SetupSSL(L"lonely"));
        EXPECT_EQ(successLines(dir(), file("lonely")), capture.lines());
    });
}

TEST_F(SecuritySSL, StrictModeFailsOnAMissingCAFileBeforeTheCertificateIsRead) {
    inChild([]() {
        Security::initSecurityOptions();
        Tarnwick::getConfigSingleton()->setKeyVal(L"keydir", widen(dir()).c_str());
        Security::enable_strict();
        LogCapture capture;
        EXPECT_EQ(-1, Security::SetupSSL(L"lonely"));
        std::vector<std::string> const expected = {
            "%D DEBUG (%t): Auto loading SSL settings",
            "%D DEBUG (%t): in path: " + dir(),
            "%D DEBUG (%t): Using SSL certificate: " + file("lonely.cert"),
            "%D DEBUG (%t): Using SSL private key: " + file("lonely.key"),
            "%D ERROR (%t): Can not load CA key.",
        };
        EXPECT_EQ(expected, libraryLines(capture));
        // The certificate was never read.
        EXPECT_STREQ("", ACE_SSL_Context::instance()->certificate_file_name());
    });
}

TEST_F(SecuritySSL, StrictModeTrustsTheCAFileAloneAndVerifiesThePeer) {
    inChild([]() {
        // Authorities of the environment don't count in strict mode.
        setenv("SSL_CERT_FILE", file("foreign-ca.cert").c_str(), 1);
        unsetenv("SSL_CERT_DIR");
        Security::initSecurityOptions();
        Tarnwick::getConfigSingleton()->setKeyVal(L"keydir", widen(dir()).c_str());
        Security::enable_strict();
        LogCapture capture;
        EXPECT_EQ(0, Security::SetupSSL(L"server"));
        EXPECT_EQ(successLines(dir(), file("server")), capture.lines());

        SSL_CTX* const ctx = ACE_SSL_Context::instance()->context();
        EXPECT_EQ(SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT | SSL_VERIFY_CLIENT_ONCE,
                  SSL_CTX_get_verify_mode(ctx));
        EXPECT_TRUE(storeVerifies(ctx, file("client.cert")));
        EXPECT_FALSE(storeVerifies(ctx, file("rogue.cert")));
    });
}

TEST_F(SecuritySSL, DisableStrictLeavesTheCAFileAlone) {
    inChild([]() {
        Security::enable_strict();
        Security::disable_strict();
        LogCapture capture;
        EXPECT_EQ(0, Security::SetupSSL(widen(file("lonely.cert")).c_str(),
                                        widen(file("lonely.key")).c_str(),
                                        widen(file("lonely.cacert")).c_str()));
        EXPECT_EQ(SSL_VERIFY_NONE, SSL_CTX_get_verify_mode(ACE_SSL_Context::instance()->context()));
    });
}

TEST_F(SecuritySSL, SetupSSLWithPathsLogsAndLoadsThem) {
    inChild([]() {
        LogCapture capture;
        EXPECT_EQ(0, Security::SetupSSL(widen(file("client.cert")).c_str(),
                                        widen(file("client.key")).c_str(),
                                        widen(file("client.cacert")).c_str()));
        std::vector<std::string> expected = successLines("", file("client"));
        expected.erase(expected.begin(), expected.begin() + 2);
        EXPECT_EQ(expected, capture.lines());
    });
}

TEST_F(SecuritySSL, AMissingCertificateFails) {
    inChild([]() {
        LogCapture capture;
        EXPECT_EQ(-1, Security::SetupSSL(widen(file("absent.cert")).c_str(),
                                         widen(file("server.key")).c_str(),
                                         widen(file("server.cacert")).c_str()));
        std::vector<std::string> const expected = {
            "%D DEBUG (%t): Using SSL certificate: " + file("absent.cert"),
            "%D DEBUG (%t): Using SSL private key: " + file("server.key"),
            "%D DEBUG (%t): Loading certificate: " + file("absent.cert"),
            "%D ERROR (%t): Can not load SSL certificate: No such file or directory",
        };
        EXPECT_EQ(expected, libraryLines(capture));
    });
}

TEST_F(SecuritySSL, AMissingPrivateKeyFails) {
    inChild([]() {
        LogCapture capture;
        EXPECT_EQ(-1, Security::SetupSSL(widen(file("server.cert")).c_str(),
                                         widen(file("absent.key")).c_str(),
                                         widen(file("server.cacert")).c_str()));
        std::vector<std::string> const lines = libraryLines(capture);
        ASSERT_EQ(5u, lines.size());
        EXPECT_EQ("%D DEBUG (%t): Loading private key: " + file("absent.key"), lines[3]);
        EXPECT_EQ("%D ERROR (%t): Can not load SSL private key: No such file or directory",
                  lines[4]);
    });
}

TEST_F(SecuritySSL, AKeyOfAnotherCertificateFails) {
    inChild([]() {
        LogCapture capture;
        EXPECT_EQ(-1, Security::SetupSSL(widen(file("server.cert")).c_str(),
                                         widen(file("client.key")).c_str(),
                                         widen(file("server.cacert")).c_str()));
        EXPECT_TRUE(
            hasPrefix(libraryLines(capture), "%D ERROR (%t): Can not load SSL private key: "));
    });
}

TEST_F(SecuritySSL, SetupNeedsALoadedConfigurationAndLogsNothingWithout) {
    inChild([]() {
        Tarnwick::Identity::instance()->setName("server");
        Security::initSecurityOptions();
        Tarnwick::getConfigSingleton()->setKeyVal(L"keydir", widen(dir()).c_str());
        LogCapture capture;
        EXPECT_EQ(-1, Security::Setup());
        EXPECT_TRUE(capture.lines().empty());
        EXPECT_STREQ("", ACE_SSL_Context::instance()->certificate_file_name());
    });
}

TEST_F(SecuritySSL, SetupUsesTheIdentityNameAndTheConfiguredKeydir) {
    inChild([]() {
        ScratchDir scratch;
        loadConfiguration(scratch.path() + "/agent.conf", "[paths]\nkeydir=" + dir() + "\n");
        Tarnwick::Identity::instance()->setName("server");
        Security::enable_server_setup();
        LogCapture capture;
        EXPECT_EQ(0, Security::Setup());
        EXPECT_EQ(successLines(dir(), file("server")), capture.lines());
        ACE_SSL_Context* const context = ACE_SSL_Context::instance();
        EXPECT_EQ(ACE_SSL_Context::SSLv23_server, context->get_mode());
        EXPECT_EQ(SSL_ERROR_WANT_READ, acceptOutcome(context->context()));
    });
}

TEST_F(SecuritySSL, AClientContextCanNotAccept) {
    inChild([]() {
        ScratchDir scratch;
        loadConfiguration(scratch.path() + "/agent.conf", "[paths]\nkeydir=" + dir() + "\n");
        Tarnwick::Identity::instance()->setName("client");
        Security::enable_server_setup();
        Security::enable_client_setup();
        EXPECT_EQ(0, Security::Setup());
        ACE_SSL_Context* const context = ACE_SSL_Context::instance();
        EXPECT_EQ(ACE_SSL_Context::SSLv23_client, context->get_mode());
        EXPECT_EQ(SSL_ERROR_SSL, acceptOutcome(context->context()));
    });
}

TEST_F(SecuritySSL, AFailedSetupSaysSoLast) {
    inChild([]() {
        ScratchDir scratch;
        loadConfiguration(scratch.path() + "/agent.conf", "[paths]\nkeydir=" + dir() + "\n");
        Tarnwick::Identity::instance()->setName("absent");
        LogCapture capture;
        EXPECT_EQ(-1, Security::Setup());
        std::vector<std::string> const lines = libraryLines(capture);
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ("%D ERROR (%t): Can not load SSL certificate: No such file or directory",
                  lines[lines.size() - 2]);
        EXPECT_EQ("%D ERROR (%t): Can not initialize security context.", lines.back());
    });
}

// ---------------------------------------------------------------------------
// Privileges

const cap_value_t BACKUP_CAPABILITIES[] = {CAP_DAC_READ_SEARCH, CAP_DAC_OVERRIDE, CAP_CHOWN,
                                           CAP_FOWNER,          CAP_FSETID,       CAP_SYS_ADMIN};
const int BACKUP_CAPABILITY_COUNT = 6;

bool hasFlag(cap_value_t capability, cap_flag_t set) {
    cap_t const caps = cap_get_proc();
    cap_flag_value_t value = CAP_CLEAR;
    if (caps != nullptr)
        cap_get_flag(caps, capability, set, &value);
    cap_free(caps);
    return value == CAP_SET;
}

// How many of the six are in `set`.
int countInSet(cap_flag_t set) {
    int count = 0;
    for (cap_value_t capability : BACKUP_CAPABILITIES)
        count += hasFlag(capability, set) ? 1 : 0;
    return count;
}

// Sets or clears `capability` in the sets `sets` of this process.
bool changeFlag(cap_value_t capability, std::vector<cap_flag_t> sets, cap_flag_value_t value) {
    cap_t const caps = cap_get_proc();
    if (caps == nullptr)
        return false;
    bool ok = true;
    for (cap_flag_t set : sets)
        ok = ok && cap_set_flag(caps, set, 1, &capability, value) == 0;
    ok = ok && cap_set_proc(caps) == 0;
    cap_free(caps);
    return ok;
}

bool clearEffective() {
    bool ok = true;
    for (cap_value_t capability : BACKUP_CAPABILITIES)
        ok = ok && changeFlag(capability, {CAP_EFFECTIVE}, CAP_CLEAR);
    return ok;
}

bool allPermitted() {
    return countInSet(CAP_PERMITTED) == BACKUP_CAPABILITY_COUNT;
}

TEST(PrivilegedEnvironment, RaisesTheCapabilitiesAndTheDestructorDropsThem) {
    if (!allPermitted())
        GTEST_SKIP() << "needs the six capabilities in the permitted set (root)";
    inChild([]() {
        ASSERT_TRUE(clearEffective());
        ASSERT_EQ(0, countInSet(CAP_EFFECTIVE));
        LogCapture capture;
        {
            PrivilegedEnvironment environment(true);
            EXPECT_EQ(BACKUP_CAPABILITY_COUNT, countInSet(CAP_EFFECTIVE));
            EXPECT_EQ(std::vector<std::string>{"%D DEBUG (%t): Enabling backup operator "
                                               "privileges."},
                      capture.lines());
            capture.clear();
        }
        EXPECT_EQ(0, countInSet(CAP_EFFECTIVE));
        EXPECT_EQ(BACKUP_CAPABILITY_COUNT, countInSet(CAP_PERMITTED));
        EXPECT_EQ(std::vector<std::string>{"%D DEBUG (%t): Disabling backup operator privileges."},
                  capture.lines());
    });
}

TEST(PrivilegedEnvironment, EnableAndDisableByHand) {
    if (!allPermitted())
        GTEST_SKIP() << "needs the six capabilities in the permitted set (root)";
    inChild([]() {
        ASSERT_TRUE(clearEffective());
        PrivilegedEnvironment environment;
        EXPECT_EQ(0, environment.enable_backup());
        EXPECT_TRUE(hasFlag(CAP_DAC_READ_SEARCH, CAP_EFFECTIVE));
        EXPECT_TRUE(hasFlag(CAP_FSETID, CAP_EFFECTIVE));
        EXPECT_TRUE(hasFlag(CAP_SYS_ADMIN, CAP_EFFECTIVE));
        EXPECT_EQ(0, environment.disable_backup());
        EXPECT_EQ(0, countInSet(CAP_EFFECTIVE));
    });
}

TEST(PrivilegedEnvironment, DisabledAtConstructionChangesNothingEvenAfterEnablingByHand) {
    if (!allPermitted())
        GTEST_SKIP() << "needs the six capabilities in the permitted set (root)";
    inChild([]() {
        ASSERT_TRUE(clearEffective());
        LogCapture capture;
        {
            PrivilegedEnvironment environment(false);
            EXPECT_EQ(0, countInSet(CAP_EFFECTIVE));
            EXPECT_TRUE(capture.lines().empty());
            EXPECT_EQ(0, environment.enable_backup());
            EXPECT_EQ(BACKUP_CAPABILITY_COUNT, countInSet(CAP_EFFECTIVE));
            capture.clear();
        }
        // Only the flag set at construction drives the destructor.
        EXPECT_EQ(BACKUP_CAPABILITY_COUNT, countInSet(CAP_EFFECTIVE));
        EXPECT_TRUE(capture.lines().empty());

        { PrivilegedEnvironment environment; }
        EXPECT_EQ(BACKUP_CAPABILITY_COUNT, countInSet(CAP_EFFECTIVE));
        EXPECT_TRUE(capture.lines().empty());
    });
}

TEST(PrivilegedEnvironment, WithoutTheBackupCapabilityEnablingFails) {
    inChild([]() {
        ASSERT_TRUE(changeFlag(CAP_DAC_READ_SEARCH, {CAP_EFFECTIVE, CAP_PERMITTED}, CAP_CLEAR));
        ASSERT_FALSE(hasFlag(CAP_DAC_READ_SEARCH, CAP_PERMITTED));
        LogCapture capture;
        PrivilegedEnvironment environment;
        errno = 0;
        EXPECT_EQ(-1, environment.enable_backup());
        EXPECT_EQ(EPERM, errno);
        std::vector<std::string> const expected = {
            "%D DEBUG (%t): Enabling backup operator privileges.",
            "%D ERROR (%t): Can not modify privilege (SeBackupPrivilege): Operation not "
            "permitted",
            "%D ERROR (%t): Can not set SE_BACKUP_NAME privilege: Operation not permitted",
        };
        EXPECT_EQ(expected, capture.lines());
        EXPECT_FALSE(hasFlag(CAP_DAC_READ_SEARCH, CAP_EFFECTIVE));
    });
}

TEST(PrivilegedEnvironment, AFailureStopsTheRowAndKeepsWhatWasRaised) {
    if (!allPermitted())
        GTEST_SKIP() << "needs the six capabilities in the permitted set (root)";
    inChild([]() {
        ASSERT_TRUE(clearEffective());
        ASSERT_TRUE(changeFlag(CAP_FOWNER, {CAP_PERMITTED}, CAP_CLEAR));
        LogCapture capture;
        PrivilegedEnvironment environment;
        EXPECT_EQ(-1, environment.enable_backup());
        std::vector<std::string> const expected = {
            "%D DEBUG (%t): Enabling backup operator privileges.",
            "%D ERROR (%t): Can not modify privilege (SeRestorePrivilege): Operation not "
            "permitted",
            "%D ERROR (%t): Can not set SE_RESTORE_NAME privilege: Operation not permitted",
        };
        EXPECT_EQ(expected, capture.lines());
        EXPECT_TRUE(hasFlag(CAP_DAC_READ_SEARCH, CAP_EFFECTIVE));
        EXPECT_FALSE(hasFlag(CAP_DAC_OVERRIDE, CAP_EFFECTIVE));
        EXPECT_FALSE(hasFlag(CAP_SYS_ADMIN, CAP_EFFECTIVE));
    });
}

TEST(PrivilegedEnvironment, WithoutTheSecurityCapabilityTheThirdFails) {
    if (!allPermitted())
        GTEST_SKIP() << "needs the six capabilities in the permitted set (root)";
    inChild([]() {
        ASSERT_TRUE(clearEffective());
        ASSERT_TRUE(changeFlag(CAP_SYS_ADMIN, {CAP_PERMITTED}, CAP_CLEAR));
        LogCapture capture;
        PrivilegedEnvironment environment;
        EXPECT_EQ(-1, environment.enable_backup());
        std::vector<std::string> const lines = capture.lines();
        ASSERT_EQ(3u, lines.size());
        EXPECT_EQ(
            "%D ERROR (%t): Can not modify privilege (SeSecurityPrivilege): Operation not "
            "permitted",
            lines[1]);
        EXPECT_EQ("%D ERROR (%t): Can not set SE_SECURITY_NAME privilege: Operation not permitted",
                  lines[2]);
        EXPECT_TRUE(hasFlag(CAP_DAC_OVERRIDE, CAP_EFFECTIVE));
    });
}

TEST(PrivilegedEnvironment, DisablingIgnoresFailures) {
    inChild([]() {
        ASSERT_TRUE(changeFlag(CAP_DAC_READ_SEARCH, {CAP_EFFECTIVE, CAP_PERMITTED}, CAP_CLEAR));
        LogCapture capture;
        PrivilegedEnvironment environment;
        EXPECT_EQ(0, environment.disable_backup());
        std::vector<std::string> const lines = capture.lines();
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ("%D DEBUG (%t): Disabling backup operator privileges.", lines[0]);
        EXPECT_EQ(
            "%D ERROR (%t): Can not modify privilege (SeBackupPrivilege): Operation not "
            "permitted",
            lines[1]);
        if (allPermitted() || countInSet(CAP_PERMITTED) == BACKUP_CAPABILITY_COUNT - 1) {
            // The other two were dropped all the same.
            EXPECT_EQ(2u, lines.size());
            EXPECT_FALSE(hasFlag(CAP_DAC_OVERRIDE, CAP_EFFECTIVE));
            EXPECT_FALSE(hasFlag(CAP_SYS_ADMIN, CAP_EFFECTIVE));
        }
    });
}

}  // namespace

// ---------------------------------------------------------------------------
// SSL sessions of the engine
//
// The engine and the SSL context are one object each per process, and one
// context serves one side (a server context can't connect, a client context
// can't accept). So the two ends of a session live in two processes: the
// test's child runs one engine, and a peer process forked from it before it
// touched SSL runs the other.

namespace {

using Tarnwick::Abstract_Event;
using Tarnwick::Engine;
using Tarnwick::Handler;
using Tarnwick::Identity;

// How long a test waits for a session to get somewhere, in milliseconds.
const int SSL_WAIT_MS = 8000;

// The events of one end of a session, dispatched on its reactor thread. A
// GetVersionEvent whose token this side sent is the peer's reply; any other
// is the peer's request, answered with this process's name and, when the
// request carried a "blob", the same blob.
class SessionEvents : public Tarnwick::EventHandler {
public:
    explicit SessionEvents(bool askOnActivation) : m_ask_on_activation(askOnActivation) {}

    int handle(Tarnwick::IdentityEvent* event) override {
        activations.push_back(Engine::getSingleton()->activate_handler(event));
        if (m_ask_on_activation)
            ask("");
        return 0;
    }
    int handle(Tarnwick::GetVersionEvent* event) override {
        if (m_sent.count(event->getACT()) != 0) {
            replies.push_back(argOf(event, "name"));
            replyBlobs.push_back(argOf(event, "blob"));
            return 0;
        }
        std::string const blob = argOf(event, "blob");
        ++requests;
        event->reset();
        event->setArg("name", Identity::instance()->name());
        if (!blob.empty())
            event->setArg("blob", blob);
        return 1;
    }
    int handle_unsupported(Abstract_Event*) override { return 0; }
    int handle_disconnect(Handler*) override {
        ++disconnects;
        return 0;
    }

    // Sends the peer a GetVersionEvent, with `blob` unless it is empty.
    bool ask(const std::string& blob) {
        Tarnwick::GetVersionEvent event;
        if (!blob.empty())
            event.setArg("blob", blob);
        m_sent.insert(event.getACT());
        return Engine::getSingleton()->forward(&event) == 0;
    }

    std::vector<int> activations;
    std::vector<std::string> replies;
    std::vector<std::string> replyBlobs;
    int requests = 0;
    int disconnects = 0;

private:
    bool m_ask_on_activation;
    std::set<uint32_t> m_sent;
};

// The router of an agent: events that name no destination go to every
// connection.
class AllPeersRouter : public Tarnwick::Router {
protected:
    int default_filter_type() override { return Tarnwick::Routing_Key::ROUTE_ALL; }
};

// The engine of one end: configuration with `keydir`, the identity, the
// event handler, and a router: an agent (the listening end) keeps any
// number of connections, a control tool has one peer. Not opened.
SessionEvents* prepareEngine(const std::string& keydir, const char* name, Identity::Type type,
                             uint32_t agentid, bool askOnActivation) {
    ScratchDir scratch;
    loadConfiguration(scratch.path() + "/engine.conf", "[paths]\nkeydir=" + keydir + "\n");
    Identity* const self = Identity::instance();
    self->setName(name);
    self->setType(type);
    self->setAgentID(agentid);
    self->setLogin("operator");
    self->setPassword("secret");
    SessionEvents* const events = new SessionEvents(askOnActivation);
    Engine* const engine = Engine::getSingleton();
    engine->event_handler(events, true);
    if (type == Identity::TWAGENT)
        engine->router(new AllPeersRouter(), true);
    else
        engine->router(new Tarnwick::SinglePeerRouter(), true);
    return events;
}

// The protocol version of the engine's one SSL connection, or 0.
int sessionVersion(Engine* engine) {
    Tarnwick::Dispatch_Set set;
    if (engine->router()->findAllHandlers(set) == -1 || set.size() != 1)
        return 0;
    auto* const handler = dynamic_cast<Tarnwick::SSLHandler*>(*set.begin());
    return handler != nullptr && handler->peer().ssl() != nullptr
               ? SSL_version(handler->peer().ssl())
               : 0;
}

// A peer in a process of its own, forked at once and waiting: go(port)
// makes it run `body` with the port. Its standard error is this process's.
class PeerProcess {
public:
    explicit PeerProcess(const std::function<int(u_short)>& body) {
        int ends[2];
        if (pipe(ends) != 0)
            return;
        std::fflush(nullptr);
        m_pid = fork();
        if (m_pid == 0) {
            ::close(ends[1]);
            u_short port = 0;
            ssize_t const got = ::read(ends[0], &port, sizeof port);
            ::close(ends[0]);
            int code = 3;
            if (got == static_cast<ssize_t>(sizeof port)) {
                code = body(port);
                checkLeaks();
                if (code == 0 && ::testing::Test::HasFailure())
                    code = 1;
            }
            std::fflush(nullptr);
            _exit(code);
        }
        ::close(ends[0]);
        m_go = ends[1];
    }
    ~PeerProcess() {
        if (m_go != -1)
            ::close(m_go);
        if (m_pid > 0 && !m_reaped) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }
    PeerProcess(const PeerProcess&) = delete;
    PeerProcess& operator=(const PeerProcess&) = delete;

    bool started() const { return m_pid > 0; }
    void go(u_short port) {
        if (::write(m_go, &port, sizeof port) != static_cast<ssize_t>(sizeof port))
            ADD_FAILURE() << "the peer process did not take its port";
        ::close(m_go);
        m_go = -1;
    }
    // Whether the process has ended; never waits.
    bool finished() {
        if (!m_reaped && m_pid > 0 && waitpid(m_pid, &m_status, WNOHANG) == m_pid)
            m_reaped = true;
        return m_reaped;
    }
    // The exit status, after waiting at most `seconds`; -1 if it didn't end
    // (it is killed then) or was killed.
    int exitCode(int seconds = 10) {
        ACE_Time_Value const deadline = now() + ACE_Time_Value(seconds);
        while (!finished() && now() < deadline)
            ACE_OS::sleep(ACE_Time_Value(0, 5000));
        if (!finished()) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, &m_status, 0);
            m_reaped = true;
            return -1;
        }
        return WIFEXITED(m_status) ? WEXITSTATUS(m_status) : -1;
    }

private:
    pid_t m_pid = -1;
    int m_go = -1;
    int m_status = 0;
    bool m_reaped = false;
};

// The client end of a session, in a peer process: an SSL engine named
// `name` that connects to `port`, identifies itself as a control tool, asks
// the server for its version (with `blob`), answers the server's request,
// and leaves. 0 when everything came as it should.
int runClient(u_short port, const std::string& keydir, const char* name, bool strict,
              const std::string& blob, bool serverAsks = true) {
    LogCapture capture;
    SessionEvents* const events = prepareEngine(keydir, name, Identity::TWCTRL, 0, false);
    if (strict)
        Security::enable_strict();
    Engine* const engine = Engine::getSingleton();
    if (engine->open(0, true) == -1) {
        std::cerr << "client: the engine did not open\n" << capture.text();
        return 10;
    }
    ACE_Synch_Options options;
    if (engine->makeConnection(loopback(port), Tarnwick::CONNECTION_SSL, options) == -1) {
        std::cerr << "client: no connection\n" << capture.text();
        engine->shutdown();
        return 11;
    }
    int const version = sessionVersion(engine);
    events->ask(blob);
    bool const done = pumpUntil(
        engine,
        [&] {
            return events->activations.size() == 1 && events->replies.size() == 1 &&
                   events->requests == (serverAsks ? 1 : 0);
        },
        SSL_WAIT_MS);
    // Our answer to the server's request goes out before we leave.
    pumpFor(engine, 100);

    std::vector<std::string> const lines = capture.lines();
    bool const identified =
        hasLine(lines, "%D INFO  (%t): Connection from 127.0.0.1 activated : twagent 7");
    bool const blobBack = events->replyBlobs.size() == 1 && events->replyBlobs[0] == blob;
    bool const fromServer = events->replies.size() == 1 && events->replies[0] == "server";
    // The engine owns the event handler: it goes with the shutdown.
    engine->shutdown();
    if (!done || !identified || !blobBack || !fromServer ||
        (version != TLS1_2_VERSION && version != TLS1_3_VERSION)) {
        std::cerr << "client: done " << done << ", identified " << identified << ", blob "
                  << blobBack << ", version " << version << "\n"
                  << capture.text();
        return 12;
    }
    return 0;
}

// The server end: an SSL engine in server mode, agent 7, listening at a
// free port; asks each client that identifies itself for its version.
// Returns the port, 0 on failure.
u_short startServer(const std::string& keydir, const char* name, bool strict,
                    SessionEvents*& events, bool ask = true) {
    events = prepareEngine(keydir, name, Identity::TWAGENT, 7, ask);
    if (strict)
        Security::enable_strict();
    Engine* const engine = Engine::getSingleton();
    engine->enableServerMode();
    if (engine->open(0, true) == -1)
        return 0;
    u_short const port = freePort();
    ACE_Synch_Options options;
    if (engine->makeConnection(
            loopback(port), Tarnwick::CONNECTION_PASSIVE | Tarnwick::CONNECTION_SSL, options) == -1)
        return 0;
    return port;
}

// A client of the raw OpenSSL library, on a thread of its own: connects to
// `port`, completes a handshake with at most `maxVersion` (0: any) and
// keeps the connection until stop().
class RawTLSClient {
public:
    RawTLSClient(u_short port, int maxVersion) {
        m_thread = std::thread([this, port, maxVersion] { run(port, maxVersion); });
    }
    ~RawTLSClient() { stop(); }
    void stop() {
        m_stop = true;
        if (m_thread.joinable())
            m_thread.join();
    }
    bool finished() const { return m_finished; }
    // The negotiated version, or 0 when the handshake failed.
    int version() const { return m_version; }

private:
    void run(u_short port, int maxVersion) {
        SSL_CTX* const ctx = SSL_CTX_new(TLS_client_method());
        if (maxVersion != 0) {
            SSL_CTX_set_security_level(ctx, 0);
            SSL_CTX_set_min_proto_version(ctx, 0);
            SSL_CTX_set_max_proto_version(ctx, maxVersion);
        }
        int const fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        SSL* const ssl = SSL_new(ctx);
        if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
            SSL_set_fd(ssl, fd);
            if (SSL_connect(ssl) == 1)
                m_version = SSL_version(ssl);
        }
        m_finished = true;
        while (!m_stop)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        if (m_version != 0)
            SSL_shutdown(ssl);
        SSL_free(ssl);
        ::close(fd);
        SSL_CTX_free(ctx);
    }

    std::thread m_thread;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_finished{false};
    std::atomic<int> m_version{0};
};

// The SSL tests of the engine share the key files of SecuritySSL, and a
// TMPDIR for the engines' event caches.
class SecuritySession : public SecuritySSL {
protected:
    static void SetUpTestSuite() {
        SecuritySSL::SetUpTestSuite();
        const char* const before = std::getenv("TMPDIR");
        had_temp_ = before != nullptr;
        temp_before_ = had_temp_ ? before : "";
        if (ready_) {
            std::string const temp = dir() + "/tmp";
            ready_ = ::mkdir(temp.c_str(), 0700) == 0 && setenv("TMPDIR", temp.c_str(), 1) == 0;
        }
    }
    static void TearDownTestSuite() {
        if (had_temp_)
            setenv("TMPDIR", temp_before_.c_str(), 1);
        else
            unsetenv("TMPDIR");
        SecuritySSL::TearDownTestSuite();
    }

    static bool had_temp_;
    static std::string temp_before_;
};

bool SecuritySession::had_temp_ = false;
std::string SecuritySession::temp_before_;

}  // namespace

TEST_F(SecuritySession, TwoEnginesTalkOverSSLBothWaysAndIdentifyEachOther) {
    inChild([]() {
        std::string const blob(200000, 'b');
        PeerProcess client(
            [&](u_short port) { return runClient(port, dir(), "client", true, blob); });
        ASSERT_TRUE(client.started());

        LogCapture capture;
        SessionEvents* events = nullptr;
        u_short const port = startServer(dir(), "server", true, events);
        ASSERT_NE(0, port) << capture.text();
        Engine* const engine = Engine::getSingleton();
        client.go(port);
        EXPECT_TRUE(pumpUntil(
            engine,
            [&] {
                return events->activations.size() == 1 && events->replies.size() == 1 &&
                       events->requests == 1 && events->disconnects == 1;
            },
            SSL_WAIT_MS))
            << capture.text();
        EXPECT_EQ(0, client.exitCode());

        std::vector<std::string> const lines = capture.lines();
        EXPECT_TRUE(hasLine(lines, "%D DEBUG (%t): Incoming connection from 127.0.0.1"));
        EXPECT_TRUE(hasLine(lines, "%D INFO  (%t): Connection from 127.0.0.1 activated : twctrl"));
        EXPECT_EQ(std::vector<int>{0}, events->activations);
        EXPECT_EQ(std::vector<std::string>{"client"}, events->replies);
        EXPECT_EQ(0, countPrefix(lines, "%D ERROR"));
        EXPECT_EQ(0, countPrefix(lines, "%D WARN "));
        engine->shutdown();
    });
}

TEST_F(SecuritySession, SmallBuffersOnOneSideLoseNothing) {
    inChild([]() {
        std::string const blob(200000, 'b');
        PeerProcess client(
            [&](u_short port) { return runClient(port, dir(), "client", false, blob, false); });
        ASSERT_TRUE(client.started());

        LogCapture capture;
        SessionEvents* events = nullptr;
        u_short const port = startServer(dir(), "server", false, events, false);
        ASSERT_NE(0, port) << capture.text();
        Engine* const engine = Engine::getSingleton();
        engine->setBufferSize(512);
        client.go(port);
        EXPECT_TRUE(pumpUntil(
            engine,
            [&] {
                return events->activations.size() == 1 && events->requests == 1 &&
                       events->disconnects == 1;
            },
            SSL_WAIT_MS))
            << capture.text();
        EXPECT_EQ(0, client.exitCode());
        engine->shutdown();
    });
}

TEST_F(SecuritySession, AQuietSessionNeverHoldsTheReactor) {
    inChild([]() {
        // The client waits on its reactor while nothing at all is sent.
        PeerProcess client([&](u_short port) {
            LogCapture capture;
            prepareEngine(dir(), "client", Identity::TWCTRL, 0, false);
            Engine* const engine = Engine::getSingleton();
            engine->disableIdentification();
            if (engine->open(0, true) == -1)
                return 10;
            ACE_Synch_Options options;
            if (engine->makeConnection(loopback(port), Tarnwick::CONNECTION_SSL, options) == -1)
                return 11;
            ACE_Time_Value longest = ACE_Time_Value::zero;
            ACE_Time_Value const end = now() + ACE_Time_Value(0, 300000);
            while (now() < end) {
                ACE_Time_Value const start = now();
                engine->run_step();
                longest = std::max(longest, now() - start);
            }
            int const open = connections(engine);
            engine->shutdown();
            if (longest > ACE_Time_Value(0, 100000) || open != 1) {
                std::cerr << "client: longest step " << longest.msec() << " ms, connections "
                          << open << "\n"
                          << capture.text();
                return 12;
            }
            return 0;
        });
        ASSERT_TRUE(client.started());

        LogCapture capture;
        SessionEvents* events = nullptr;
        u_short const port = startServer(dir(), "server", false, events);
        ASSERT_NE(0, port) << capture.text();
        Engine* const engine = Engine::getSingleton();
        engine->disableIdentification();
        client.go(port);
        EXPECT_TRUE(pumpUntil(
            engine, [&] { return client.finished(); }, SSL_WAIT_MS));
        EXPECT_EQ(0, client.exitCode()) << capture.text();
        EXPECT_TRUE(pumpUntil(
            engine, [&] { return connections(engine) == 0; }, SSL_WAIT_MS));
        engine->shutdown();
    });
}

TEST_F(SecuritySession, StrictServerRefusesAPeerThatTheAuthorityDidNotSign) {
    inChild([]() {
        PeerProcess rogue([&](u_short port) {
            LogCapture capture;
            SessionEvents* const events = prepareEngine(dir(), "rogue", Identity::TWCTRL, 0, false);
            Engine* const engine = Engine::getSingleton();
            if (engine->open(0, true) == -1)
                return 10;
            ACE_Synch_Options options;
            // TLS 1.3 finishes the client's part of the handshake before the
            // server has judged the certificate: the refusal may come as a
            // failed connect or as the end of the new connection.
            if (engine->makeConnection(loopback(port), Tarnwick::CONNECTION_SSL, options) == 0) {
                events->ask("");
                if (!pumpUntil(
                        engine, [&] { return connections(engine) == 0; }, SSL_WAIT_MS))
                    return 11;
            }
            bool const refused = events->activations.empty() && events->replies.empty();
            engine->shutdown();
            return refused ? 0 : 12;
        });
        ASSERT_TRUE(rogue.started());

        LogCapture capture;
        SessionEvents* events = nullptr;
        u_short const port = startServer(dir(), "server", true, events);
        ASSERT_NE(0, port) << capture.text();
        Engine* const engine = Engine::getSingleton();
        rogue.go(port);
        EXPECT_TRUE(pumpUntil(
            engine,
            [&] {
                return hasLine(capture.lines(),
                               "%D ERROR (%t): Incoming connection failed: Protocol error");
            },
            SSL_WAIT_MS))
            << capture.text();
        EXPECT_TRUE(pumpUntil(
            engine, [&] { return rogue.finished(); }, SSL_WAIT_MS));
        EXPECT_EQ(0, rogue.exitCode());
        EXPECT_EQ(0, connections(engine));
        EXPECT_TRUE(events->activations.empty());
        EXPECT_EQ(0, events->requests);
        engine->shutdown();
    });
}

TEST_F(SecuritySession, StrictClientRefusesAServerThatTheAuthorityDidNotSign) {
    inChild([]() {
        PeerProcess client([&](u_short port) {
            LogCapture capture;
            prepareEngine(dir(), "client", Identity::TWCTRL, 0, false);
            Security::enable_strict();
            Engine* const engine = Engine::getSingleton();
            if (engine->open(0, true) == -1)
                return 10;
            ACE_Synch_Options options;
            int const result =
                engine->makeConnection(loopback(port), Tarnwick::CONNECTION_SSL, options);
            engine->shutdown();
            if (result != -1)
                return 11;
            return hasLine(capture.lines(),
                           "%D ERROR (%t): Active connection failed.: Protocol error")
                       ? 0
                       : 12;
        });
        ASSERT_TRUE(client.started());

        LogCapture capture;
        SessionEvents* events = nullptr;
        u_short const port = startServer(dir(), "rogue", false, events);
        ASSERT_NE(0, port) << capture.text();
        Engine* const engine = Engine::getSingleton();
        client.go(port);
        EXPECT_TRUE(pumpUntil(
            engine, [&] { return client.finished(); }, SSL_WAIT_MS));
        EXPECT_EQ(0, client.exitCode());
        EXPECT_EQ(0, connections(engine));
        EXPECT_TRUE(events->activations.empty());
        engine->shutdown();
    });
}

TEST_F(SecuritySession, APeerWithoutHandshakeNeverHoldsTheReactorAndGoesAfterTheLimit) {
    inChild([]() {
        LogCapture capture;
        SessionEvents* events = nullptr;
        u_short const port = startServer(dir(), "server", false, events);
        ASSERT_NE(0, port) << capture.text();
        Engine* const engine = Engine::getSingleton();
        Engine::getSingleton()->disableIdentification();
        // 5 seconds in production; the decision is the same with less.
        Handler::Handshake_Limit = ACE_Time_Value(0, 400000);

        // Three peers connect and say nothing, one sends half a record.
        ACE_SOCK_Connector connector;
        ACE_SOCK_Stream silent[3];
        for (ACE_SOCK_Stream& peer : silent)
            ASSERT_EQ(0, connector.connect(peer, loopback(port)));
        ACE_SOCK_Stream partial;
        ASSERT_EQ(0, connector.connect(partial, loopback(port)));
        ASSERT_EQ(3, partial.send_n("\x16\x03\x01", 3));
        // Another peer, behind them, is served at once.
        ACE_Time_Value const start = now();
        RawTLSClient other(port, 0);
        EXPECT_TRUE(pumpUntil(
            engine, [&] { return other.finished(); }, SSL_WAIT_MS));
        EXPECT_EQ(TLS1_3_VERSION, other.version());
        EXPECT_LT((now() - start).msec(), 400);
        EXPECT_EQ(0, countPrefix(capture.lines(), "%D ERROR (%t): Incoming connection failed"));

        // The silent ones go when their time is up, each with its line.
        EXPECT_TRUE(pumpUntil(
            engine,
            [&] {
                return countPrefix(capture.lines(),
                                   "%D ERROR (%t): Incoming connection failed: Timer expired") == 4;
            },
            SSL_WAIT_MS))
            << capture.text();
        EXPECT_TRUE(pumpUntil(
            engine, [&] { return connections(engine) == 1; }, SSL_WAIT_MS));
        other.stop();
        for (ACE_SOCK_Stream& peer : silent)
            peer.close();
        partial.close();
        EXPECT_TRUE(pumpUntil(
            engine, [&] { return connections(engine) == 0; }, SSL_WAIT_MS));
        engine->shutdown();
    });
}

TEST_F(SecuritySession, TheListenerSpeaksTLS12AndNewerOnly) {
    inChild([]() {
        LogCapture capture;
        SessionEvents* events = nullptr;
        u_short const port = startServer(dir(), "server", false, events);
        ASSERT_NE(0, port) << capture.text();
        Engine* const engine = Engine::getSingleton();

        const int versions[] = {TLS1_VERSION, TLS1_1_VERSION, TLS1_2_VERSION, 0};
        const int expected[] = {0, 0, TLS1_2_VERSION, TLS1_3_VERSION};
        for (int i = 0; i < 4; ++i) {
            RawTLSClient client(port, versions[i]);
            EXPECT_TRUE(pumpUntil(
                engine, [&] { return client.finished(); }, SSL_WAIT_MS));
            EXPECT_EQ(expected[i], client.version()) << "at most version " << versions[i];
            client.stop();
            EXPECT_TRUE(pumpUntil(
                engine, [&] { return connections(engine) == 0; }, SSL_WAIT_MS));
        }
        EXPECT_EQ(2, countPrefix(capture.lines(),
                                 "%D ERROR (%t): Incoming connection failed: Protocol error"));
        engine->shutdown();
    });
}

namespace {

// A TLS socket of a client thread: connected and through its handshake, or
// not ok().
class TLSSocket {
public:
    explicit TLSSocket(u_short port) {
        m_ctx = SSL_CTX_new(TLS_client_method());
        m_fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        m_ssl = SSL_new(m_ctx);
        if (::connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
            SSL_set_fd(m_ssl, m_fd);
            m_ok = SSL_connect(m_ssl) == 1;
        }
    }
    ~TLSSocket() {
        SSL_free(m_ssl);
        ::close(m_fd);
        SSL_CTX_free(m_ctx);
    }
    bool ok() const { return m_ok; }
    SSL* ssl() { return m_ssl; }
    int fd() const { return m_fd; }
    // The bytes of one TLS record that carries `data`, not sent.
    std::string record(const std::string& data) {
        BIO* const memory = BIO_new(BIO_s_mem());
        BIO* const socket = SSL_get_wbio(m_ssl);
        BIO_up_ref(socket);
        SSL_set0_wbio(m_ssl, memory);
        SSL_write(m_ssl, data.data(), static_cast<int>(data.size()));
        std::string bytes;
        char buffer[4096];
        int got;
        while ((got = BIO_read(memory, buffer, sizeof buffer)) > 0)
            bytes.append(buffer, static_cast<size_t>(got));
        SSL_set0_wbio(m_ssl, socket);
        return bytes;
    }

private:
    SSL_CTX* m_ctx = nullptr;
    SSL* m_ssl = nullptr;
    int m_fd = -1;
    bool m_ok = false;
};

// The wire bytes of a new GetVersionEvent, and its token.
std::string versionRequest(uint32_t& token) {
    Tarnwick::Abstract_Event* const event =
        Tarnwick::Event_Factory::create(Tarnwick::GET_VERSION_EVENT);
    token = event->getACT();
    std::string const bytes = Tarnwick::Message_Writer::Bytes(event->data(false));
    event->destroy();
    return bytes;
}

// A TLS peer of the engine on a thread of its own that asks for the version
// `rounds` times, one request after the other's reply, and notes each round
// trip in microseconds (-1 for a request left without a reply).
class TLSRequester {
public:
    TLSRequester(u_short port, int rounds) {
        for (int i = 0; i < rounds; ++i) {
            uint32_t token = 0;
            m_requests.push_back(versionRequest(token));
            m_tokens.push_back(token);
        }
        m_thread = std::thread([this, port] { run(port); });
    }
    ~TLSRequester() {
        if (m_thread.joinable())
            m_thread.join();
    }
    bool finished() const { return m_finished; }
    // Joins the thread; the median round trip, -1 when one failed.
    long median() {
        m_thread.join();
        std::vector<long> times = m_times;
        if (times.size() != m_requests.size() ||
            std::find(times.begin(), times.end(), -1) != times.end())
            return -1;
        std::sort(times.begin(), times.end());
        return times[times.size() / 2];
    }

private:
    void run(u_short port) {
        TLSSocket socket(port);
        std::string pending;
        for (size_t i = 0; socket.ok() && i < m_requests.size(); ++i) {
            auto const start = std::chrono::steady_clock::now();
            SSL_write(socket.ssl(), m_requests[i].data(), static_cast<int>(m_requests[i].size()));
            bool answered = false;
            while (!answered) {
                // Whole messages first; those of other tokens (the engine's
                // own identification request) are skipped.
                while (pending.size() >= 32 && pending.size() >= 32 + wordAt(pending, 8)) {
                    size_t const length = 32 + wordAt(pending, 8);
                    answered = answered || wordAt(pending, 4) == m_tokens[i];
                    pending.erase(0, length);
                }
                if (answered)
                    break;
                char buffer[4096];
                int const got = SSL_read(socket.ssl(), buffer, sizeof buffer);
                if (got <= 0)
                    break;
                pending.append(buffer, static_cast<size_t>(got));
            }
            auto const took = std::chrono::steady_clock::now() - start;
            m_times.push_back(
                answered ? static_cast<long>(
                               std::chrono::duration_cast<std::chrono::microseconds>(took).count())
                         : -1);
        }
        if (socket.ok())
            SSL_shutdown(socket.ssl());
        m_finished = true;
    }

    std::vector<std::string> m_requests;
    std::vector<uint32_t> m_tokens;
    std::vector<long> m_times;
    std::thread m_thread;
    std::atomic<bool> m_finished{false};
};

}  // namespace

TEST_F(SecuritySession, MisbehavingSSLPeersHoldUpNobody) {
    // The figures are printed for the record; what is asserted is that every
    // request of the well-behaved peer got its reply meanwhile.
    inChild([]() {
        LogCapture capture;
        SessionEvents* events = nullptr;
        u_short const port = startServer(dir(), "server", false, events, false);
        ASSERT_NE(0, port) << capture.text();
        Engine* const engine = Engine::getSingleton();

        TLSRequester quiet(port, 30);
        EXPECT_TRUE(pumpUntil(
            engine, [&] { return quiet.finished(); }, SSL_WAIT_MS));
        long const quietMedian = quiet.median();
        EXPECT_GE(quietMedian, 0);

        // Silent TCP connections, a record cut short after the handshake,
        // and a record sent a byte every 20 ms.
        ACE_SOCK_Connector connector;
        ACE_SOCK_Stream silent[3];
        for (ACE_SOCK_Stream& peer : silent)
            ASSERT_EQ(0, connector.connect(peer, loopback(port)));
        std::atomic<bool> stop(false);
        std::atomic<int> ready(0);
        uint32_t token = 0;
        std::string const request = versionRequest(token);
        std::thread partial([&] {
            TLSSocket socket(port);
            std::string const bytes = socket.record(request);
            ::send(socket.fd(), bytes.data(), 3, MSG_NOSIGNAL);
            ++ready;
            while (!stop)
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
        });
        std::thread trickle([&] {
            TLSSocket socket(port);
            std::string const bytes = socket.record(request);
            ++ready;
            for (size_t i = 0; i < bytes.size() && !stop; ++i) {
                ::send(socket.fd(), bytes.data() + i, 1, MSG_NOSIGNAL);
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
            while (!stop)
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
        });
        EXPECT_TRUE(pumpUntil(
            engine, [&] { return ready == 2; }, SSL_WAIT_MS));

        TLSRequester noisy(port, 30);
        EXPECT_TRUE(pumpUntil(
            engine, [&] { return noisy.finished(); }, SSL_WAIT_MS));
        long const noisyMedian = noisy.median();
        EXPECT_GE(noisyMedian, 0);
        std::cout << TarnwickTest::FIGURE_MARK << "SSL round trip median: quiet " << quietMedian
                  << " us, with misbehaving neighbours " << noisyMedian << " us\n";

        stop = true;
        partial.join();
        trickle.join();
        for (ACE_SOCK_Stream& peer : silent)
            peer.close();
        EXPECT_TRUE(pumpUntil(
            engine, [&] { return connections(engine) == 0; }, SSL_WAIT_MS));
        engine->shutdown();
    });
}

TEST_F(SecuritySession, OpensslClientGetsATLS12OrNewerSession) {
    inChild([]() {
        LogCapture capture;
        SessionEvents* events = nullptr;
        u_short const port = startServer(dir(), "server", false, events);
        ASSERT_NE(0, port) << capture.text();
        Engine* const engine = Engine::getSingleton();

        std::string output;
        std::atomic<bool> done(false);
        std::thread client([&] {
            std::string const command =
                "openssl s_client -connect 127.0.0.1:" + std::to_string(port) +
                " -brief </dev/null 2>&1";
            FILE* const pipe = popen(command.c_str(), "r");
            if (pipe != nullptr) {
                char buffer[512];
                size_t got;
                while ((got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0)
                    output.append(buffer, got);
                pclose(pipe);
            }
            done = true;
        });
        EXPECT_TRUE(pumpUntil(
            engine, [&] { return done.load(); }, SSL_WAIT_MS));
        client.join();
        EXPECT_NE(std::string::npos, output.find("CONNECTION ESTABLISHED")) << output;
        EXPECT_TRUE(output.find("Protocol version: TLSv1.3") != std::string::npos ||
                    output.find("Protocol version: TLSv1.2") != std::string::npos)
            << output;
        EXPECT_TRUE(hasLine(capture.lines(), "%D DEBUG (%t): Incoming connection from 127.0.0.1"))
            << capture.text();
        EXPECT_TRUE(pumpUntil(
            engine, [&] { return connections(engine) == 0; }, SSL_WAIT_MS));
        engine->shutdown();
    });
}

TEST_F(SecuritySession, APlainClientAtTheSSLListenerFailsCleanly) {
    inChild([]() {
        LogCapture capture;
        SessionEvents* events = nullptr;
        u_short const port = startServer(dir(), "server", false, events);
        ASSERT_NE(0, port) << capture.text();
        Engine* const engine = Engine::getSingleton();
        {
            Tarnwick::Sig_Pipe_Guard noSigPipe;
            ACE_Synch_Options options;
            Handler* plain = nullptr;
            ASSERT_EQ(0, Engine::makeActiveConnection(loopback(port), 0, options, &plain));
            ASSERT_NE(nullptr, plain);
            // A message where the listener waits for a handshake.
            Tarnwick::HeartBeatEvent heartbeat;
            ACE_Message_Block* const block = heartbeat.data(false);
            EXPECT_GT(plain->send(block, nullptr), 0);
            EXPECT_TRUE(pumpUntil(
                engine,
                [&] {
                    return hasLine(capture.lines(),
                                   "%D ERROR (%t): Incoming connection failed: Protocol error");
                },
                SSL_WAIT_MS))
                << capture.text();
            ACE_Message_Block* received = nullptr;
            ACE_Time_Value wait(2);
            EXPECT_LE(plain->recv(received, &wait), 0);
            EXPECT_EQ(nullptr, received);
            plain->close(0);
            EXPECT_EQ(nullptr, plain->release());
        }
        EXPECT_EQ(0, connections(engine));
        EXPECT_TRUE(events->activations.empty());
        engine->shutdown();
    });
}

TEST_F(SecuritySession, AnSSLClientAtAPlainListenerFailsCleanly) {
    inChild([]() {
        PeerProcess client([&](u_short port) {
            LogCapture capture;
            prepareEngine(dir(), "client", Identity::TWCTRL, 0, false);
            Engine* const engine = Engine::getSingleton();
            if (engine->open(0, true) == -1)
                return 10;
            ACE_Synch_Options options;
            Handler* handler = nullptr;
            int const alone = Engine::makeActiveConnection(loopback(port), Tarnwick::CONNECTION_SSL,
                                                           options, &handler);
            int const joined =
                engine->makeConnection(loopback(port), Tarnwick::CONNECTION_SSL, options);
            engine->shutdown();
            if (alone != -1 || handler != nullptr || joined != -1)
                return 11;
            std::vector<std::string> const lines = capture.lines();
            int const failures =
                countPrefix(lines, "%D ERROR (%t): Active connection failed.: Protocol error");
            if (failures != 2)
                std::cerr << capture.text();
            return failures == 2 ? 0 : 12;
        });
        ASSERT_TRUE(client.started());

        // A plain agent: no SSL set-up at all.
        LogCapture capture;
        SessionEvents* const events = prepareEngine(dir(), "server", Identity::TWAGENT, 7, false);
        Engine* const engine = Engine::getSingleton();
        engine->enableServerMode();
        ASSERT_EQ(0, engine->open(0, false));
        u_short const port = freePort();
        ACE_Synch_Options options;
        ASSERT_EQ(0, engine->makeConnection(loopback(port), Tarnwick::CONNECTION_PASSIVE, options));
        client.go(port);
        EXPECT_TRUE(pumpUntil(
            engine, [&] { return client.finished(); }, SSL_WAIT_MS));
        EXPECT_EQ(0, client.exitCode());
        EXPECT_TRUE(pumpUntil(
            engine, [&] { return connections(engine) == 0; }, SSL_WAIT_MS));
        EXPECT_TRUE(events->activations.empty());
        engine->shutdown();
    });
}

TEST_F(SecuritySession, OpenFailsWithoutKeyFilesAndBeforeAConfiguration) {
    inChild([]() {
        LogCapture capture;
        Engine* const engine = Engine::getSingleton();
        EXPECT_EQ(-1, engine->open(0, true));
        EXPECT_EQ(nullptr, engine->getReactor());
        EXPECT_TRUE(capture.lines().empty()) << capture.text();

        prepareEngine(dir(), "absent", Identity::TWAGENT, 7, false);
        engine->enableServerMode();
        EXPECT_EQ(-1, engine->open(0, true));
        EXPECT_EQ(nullptr, engine->getReactor());
        EXPECT_TRUE(
            hasLine(capture.lines(), "%D ERROR (%t): Can not initialize security context."));
        // The server mode reached the context.
        EXPECT_EQ(ACE_SSL_Context::SSLv23_server, ACE_SSL_Context::instance()->get_mode());
    });
}
