// Upload to the backup store: the connection's order and reuse, the
// counters, the texts of every failure, and real round trips through a
// directory store in a scratch directory (content, modes and times read
// back, and a second upload that writes almost nothing).
#include <tarnwick/configuration.h>
#include <tarnwick/contentrouter.h>
#include <tarnwick/registry.h>
#include <tarnwick/store_reader.h>

#include "../tarnwick/store_client.h"
#include "child.h"
#include "log_capture.h"
#include "s3_server.h"
#include "scratch_dir.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

using Tarnwick::Configuration;
using Tarnwick::ContentRouter;
using Tarnwick::Setting;
using Tarnwick::StoreReader;
using TarnwickTest::LogCapture;
using TarnwickTest::ScratchDir;
using TarnwickTest::sourceDir;

namespace {

std::wstring wide(const std::string& text) {
    return std::wstring(text.begin(), text.end());
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary);
    out << content;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string randomBytes(size_t size, unsigned seed) {
    std::mt19937_64 generator(seed);
    std::string out(size, '\0');
    for (char& c : out)
        c = static_cast<char>(generator());
    return out;
}

// The bytes of every file below `path`.
uint64_t treeBytes(const std::string& path) {
    uint64_t total = 0;
    DIR* const dir = ::opendir(path.c_str());
    if (dir == nullptr)
        return 0;
    while (const struct dirent* entry = ::readdir(dir)) {
        std::string const name = entry->d_name;
        if (name == "." || name == "..")
            continue;
        std::string const child = path + "/" + name;
        struct stat st;
        if (::lstat(child.c_str(), &st) != 0)
            continue;
        total += S_ISDIR(st.st_mode) ? treeBytes(child) : static_cast<uint64_t>(st.st_size);
    }
    ::closedir(dir);
    return total;
}

const wchar_t* const kSettings[] = {L"rtdir",        L"storagepoolid",   L"login",
                                    L"passwd",       L"FingerprintType", L"storeurl",
                                    L"storeendpoint"};

// A scratch installation: the Agent's registry entry and configuration file
// with a key directory, a runtime directory, and the settings of the upload.
class ContentRouterTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(dir_.path().empty());
        Configuration* const configuration = Tarnwick::getConfigSingleton();
        static bool declared = false;
        if (!declared) {
            for (const wchar_t* key : kSettings)
                ASSERT_EQ(0, configuration->register_setting(new Setting(
                                 key, 0, L"upload", L"a setting", Tarnwick::SETTING_ARGUMENT)));
            declared = true;
        }
        registry_ = dir_.path() + "/registry";
        ::setenv("TARNWICK_REGISTRY", registry_.c_str(), 1);
        agentConfig_ = dir_.path() + "/agent.cfg";
        writeFile(agentConfig_, "[Paths]\nKeyDir=" + dir_.path() + "/keys\n");
        Tarnwick::Registry registry;
        (void)registry.open(L"Agent", nullptr);
        ASSERT_EQ(0, registry.setConfigFilePath(wide(agentConfig_).c_str()));
        ASSERT_EQ(0, registry.setPath(wide(dir_.path()).c_str()));
        ASSERT_EQ(0, registry.write());
        store_ = dir_.path() + "/store";
        set(L"rtdir", dir_.path() + "/rt");
        set(L"storagepoolid", "3");
        if (setCredentials_) {
            set(L"login", "agent");
            set(L"passwd", "secret");
        }
        set(L"FingerprintType", "1");
        set(L"storeurl", "file://" + store_);
        data_ = dir_.path() + "/data";
        ASSERT_EQ(0, ::mkdir(data_.c_str(), 0755));
    }

    void TearDown() override { ::unsetenv("TARNWICK_REGISTRY"); }

    static void set(const wchar_t* key, const std::string& value) {
        Tarnwick::getConfigSingleton()->setKeyVal(key, wide(value).c_str());
    }

    std::string file(const std::string& name, const std::string& content) {
        std::string const path = data_ + "/" + name;
        writeFile(path, content);
        return path;
    }

    std::string chunkDir() const { return store_ + "/chunks"; }

    bool setCredentials_ = true;
    ScratchDir dir_{"contentrouter"};
    std::string registry_, agentConfig_, store_, data_;
};

TEST_F(ContentRouterTest, FirstUploadOfAMissingPathConnectsAndIsNotSupported) {
    std::string const missing = data_ + "/missing";
    ContentRouter router;
    LogCapture capture;
    EXPECT_EQ(-1, router.upload(wide(missing).c_str(), 7));
    EXPECT_EQ((std::vector<std::string>{"%D DEBUG (%t): Uploading " + missing,
                                        "%D ERROR (%t): File Type not supported."}),
              capture.lines());
    EXPECT_EQ(0, router.count());
    EXPECT_EQ(0, router.errors());
    struct stat st;
    EXPECT_EQ(0, ::stat((store_ + "/store.version").c_str(), &st));
}

TEST_F(ContentRouterTest, GoodUploadReturnsMinusOneAndLogsItsResult) {
    std::string const path = file("a.txt", "hello, store");
    ContentRouter router;
    LogCapture capture;
    EXPECT_EQ(-1, router.upload(wide(path).c_str(), 7));
    EXPECT_EQ((std::vector<std::string>{"%D DEBUG (%t): Uploading " + path,
                                        "%D ERROR (%t): Result: " + path + ", success",
                                        "%D ERROR (%t): File Type not supported."}),
              capture.lines());
    EXPECT_EQ(1, router.count());
    EXPECT_EQ(0, router.errors());
}

TEST_F(ContentRouterTest, TwoUploadsWithOneDsidAuthenticateOnce) {
    std::string const a = file("a.txt", "first");
    std::string const b = file("b.txt", "second");
    ContentRouter router;
    EXPECT_EQ(-1, router.upload(wide(a).c_str(), 7));
    // From now on the store only knows another password: a second
    // authentication would fail.
    writeFile(store_ + "/credentials", "agent\t" + std::string(64, '0') + "\n");
    LogCapture capture;
    EXPECT_EQ(-1, router.upload(wide(b).c_str(), 7));
    EXPECT_EQ((std::vector<std::string>{"%D DEBUG (%t): Uploading " + b,
                                        "%D ERROR (%t): Result: " + b + ", success",
                                        "%D ERROR (%t): File Type not supported."}),
              capture.lines());
    EXPECT_EQ(2, router.count());
    EXPECT_EQ(0, router.errors());
}

TEST_F(ContentRouterTest, ADifferentDsidReplacesTheConnectionAndRestartsTheCounters) {
    std::string const a = file("a.txt", "first");
    std::string const b = file("b.txt", "second");
    ContentRouter router;
    EXPECT_EQ(-1, router.upload(wide(a).c_str(), 7));
    EXPECT_EQ(-1, router.upload(wide(b).c_str(), 7));
    EXPECT_EQ(2, router.count());
    EXPECT_EQ(-1, router.upload(wide(b).c_str(), 8));
    EXPECT_EQ(1, router.count());
    EXPECT_EQ(0, router.errors());
    std::vector<std::string> paths;
    ASSERT_EQ(0, Tarnwick::CRFileList(store_, 8, paths));
    EXPECT_EQ(std::vector<std::string>{b}, paths);
    // The new connection authenticates anew.
    writeFile(store_ + "/credentials", "agent\t" + std::string(64, '0') + "\n");
    LogCapture capture;
    errno = 0;
    EXPECT_EQ(-1, router.upload(wide(a).c_str(), 9));
    EXPECT_EQ(std::vector<std::string>{"%D ERROR (%t): Authentication failed.: Permission denied"},
              capture.lines());
}

TEST_F(ContentRouterTest, StatusOneCountsAsSuccessInBothForms) {
    std::string const path = file("a.txt", randomBytes(100000, 1));
    ContentRouter router;
    EXPECT_EQ(-1, router.upload(wide(path).c_str(), 7));
    LogCapture capture;
    EXPECT_EQ(-1, router.upload(wide(path).c_str(), 7));
    EXPECT_EQ((std::vector<std::string>{
                  "%D DEBUG (%t): Uploading " + path,
                  "%D ERROR (%t): Result: " + path + ", success, data already in store",
                  "%D ERROR (%t): File Type not supported."}),
              capture.lines());
    EXPECT_EQ(2, router.count());
    EXPECT_EQ(0, router.errors());
    capture.clear();
    char context[] = "job-1";
    EXPECT_EQ(0, router.upload(wide(path).c_str(), 7, context, 5));
    EXPECT_EQ(std::vector<std::string>{"%D DEBUG (%t): Uploading " + path}, capture.lines());
    EXPECT_EQ(2, router.count());
}

TEST_F(ContentRouterTest, OneFailedFileInATreeCountsAnErrorAndTheWalkGoesOn) {
    std::string const a = file("a.txt", "aaa");
    std::string const b = file("b.txt", "bbb");
    std::string const link = data_ + "/link";
    ASSERT_EQ(0, ::symlink(a.c_str(), link.c_str()));
    ContentRouter router;
    LogCapture capture;
    EXPECT_EQ(-1, router.upload(wide(data_).c_str(), 7));
    EXPECT_EQ(3, router.count());
    EXPECT_EQ(1, router.errors());
    std::vector<std::string> const lines = capture.lines();
    EXPECT_NE(lines.end(),
              std::find(lines.begin(), lines.end(),
                        "%D ERROR (%t): Can not upload file: " + link + ", not a regular file"));
    EXPECT_EQ("%D DEBUG (%t): Uploading " + data_, lines.front());
    EXPECT_EQ("%D ERROR (%t): File Type not supported.", lines.back());
    std::vector<std::string> paths;
    ASSERT_EQ(0, Tarnwick::CRFileList(store_, 7, paths));
    EXPECT_EQ((std::vector<std::string>{a, b}), paths);
}

TEST_F(ContentRouterTest, TreeRoundTripsByteForByteWithModesAndTimes) {
    ASSERT_EQ(0, ::mkdir((data_ + "/sub").c_str(), 0755));
    std::vector<std::string> files = {file("big.bin", randomBytes(3 * 1024 * 1024 + 17, 2)),
                                      file("empty", ""), file("sub/small.txt", "small\n"),
                                      file("sub/mid.bin", randomBytes(300000, 3))};
    ASSERT_EQ(0, ::chmod(files[2].c_str(), 0600));
    struct timespec times[2] = {{1000000000, 123456789}, {1500000000, 987654321}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, files[1].c_str(), times, 0));
    ContentRouter router;
    EXPECT_EQ(-1, router.upload(wide(data_).c_str(), 11));
    EXPECT_EQ(4, router.count());
    EXPECT_EQ(0, router.errors());
    std::vector<std::string> paths;
    ASSERT_EQ(0, Tarnwick::CRFileList(store_, 11, paths));
    std::sort(files.begin(), files.end());
    ASSERT_EQ(files, paths);
    std::string const restore = dir_.path() + "/restore";
    ASSERT_EQ(0, ::mkdir(restore.c_str(), 0755));
    int n = 0;
    for (const std::string& path : paths) {
        std::string const target = restore + "/" + std::to_string(n++);
        ASSERT_EQ(0, Tarnwick::CRFileGet(store_, 11, path, target)) << path;
        EXPECT_EQ(readFile(path), readFile(target)) << path;
        struct stat original, restored;
        ASSERT_EQ(0, ::stat(path.c_str(), &original));
        ASSERT_EQ(0, ::stat(target.c_str(), &restored));
        EXPECT_EQ(original.st_mode, restored.st_mode) << path;
        EXPECT_EQ(original.st_mtim.tv_sec, restored.st_mtim.tv_sec) << path;
        EXPECT_EQ(original.st_mtim.tv_nsec, restored.st_mtim.tv_nsec) << path;
    }
}

TEST_F(ContentRouterTest, NothingHalfWrittenStaysInTheStore) {
    file("a.bin", randomBytes(600000, 10));
    file("b.txt", "b");
    ContentRouter router;
    EXPECT_EQ(-1, router.upload(wide(data_).c_str(), 13));
    EXPECT_EQ(0, router.errors());
    EXPECT_EQ(0, TarnwickTest::countEntries(store_ + "/tmp"));
}

// A file whose content doesn't match what stat told when the read began
// (/proc files tell the size 0 and hold text) isn't recorded.
TEST_F(ContentRouterTest, AFileThatChangesWhileItIsReadFails) {
    std::string const path = "/proc/self/status";
    ContentRouter router;
    LogCapture capture;
    EXPECT_EQ(-1, router.upload(wide(path).c_str(), 15));
    EXPECT_EQ((std::vector<std::string>{"%D DEBUG (%t): Uploading " + path,
                                        "%D ERROR (%t): Can not upload file: " + path +
                                            ", file changed while it was read"}),
              capture.lines());
    EXPECT_EQ(1, router.count());
    EXPECT_EQ(1, router.errors());
    std::vector<std::string> paths;
    ASSERT_EQ(0, Tarnwick::CRFileList(store_, 15, paths));
    EXPECT_TRUE(paths.empty());
}

TEST_F(ContentRouterTest, AFifoInATreeIsPassedOverWithoutAnError) {
    std::string const fifo = data_ + "/fifo";
    ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
    std::string const a = file("a.txt", "a");
    ContentRouter router;
    LogCapture capture;
    EXPECT_EQ(-1, router.upload(wide(data_).c_str(), 14));
    EXPECT_EQ(1, router.count());
    EXPECT_EQ(0, router.errors());
    std::vector<std::string> const lines = capture.lines();
    auto const at = std::find(lines.begin(), lines.end(), "%D DEBUG (%t): Uploading " + fifo);
    ASSERT_NE(lines.end(), at);
    ASSERT_NE(lines.end(), at + 1);
    EXPECT_EQ("%D ERROR (%t): File Type not supported.", *(at + 1));
}

// Symbolic links are not followed: a directory that links back to itself or
// to its parent ends the walk like any other tree, and the links are passed
// over as a FIFO is.
TEST_F(ContentRouterTest, ALoopOfSymbolicLinksEndsTheWalk) {
    ASSERT_EQ(0, ::mkdir((data_ + "/sub").c_str(), 0700));
    ASSERT_EQ(0, ::symlink(".", (data_ + "/self").c_str()));
    ASSERT_EQ(0, ::symlink("..", (data_ + "/sub/up").c_str()));
    file("a.txt", "a");
    file("sub/b.txt", "b");
    ContentRouter router;
    LogCapture capture;
    EXPECT_EQ(-1, router.upload(wide(data_).c_str(), 16));
    EXPECT_EQ(2, router.count());
    EXPECT_EQ(0, router.errors());
    std::vector<std::string> const lines = capture.lines();
    for (std::string const& link : {data_ + "/self", data_ + "/sub/up"}) {
        auto const at = std::find(lines.begin(), lines.end(), "%D DEBUG (%t): Uploading " + link);
        ASSERT_NE(lines.end(), at) << link;
        ASSERT_NE(lines.end(), at + 1) << link;
        EXPECT_EQ("%D ERROR (%t): File Type not supported.", *(at + 1)) << link;
    }
    std::vector<std::string> paths;
    ASSERT_EQ(0, Tarnwick::CRFileList(store_, 16, paths));
    std::sort(paths.begin(), paths.end());
    EXPECT_EQ((std::vector<std::string>{data_ + "/a.txt", data_ + "/sub/b.txt"}), paths);
}

// A name whose bytes are not UTF-8 has no wide form, so no path of the
// upload can name it: the walk counts it as a failed file, with its bytes
// escaped in the line, and goes on.
TEST_F(ContentRouterTest, ANameThatIsNotUtf8FailsThatFileWithAClearText) {
    file("caf\xe9 \xff\x01.txt", "latin-1 name");
    std::string const good = file("good.txt", "good");
    ContentRouter router;
    LogCapture capture;
    EXPECT_EQ(-1, router.upload(wide(data_).c_str(), 17));
    EXPECT_EQ(2, router.count());
    EXPECT_EQ(1, router.errors());
    std::vector<std::string> const lines = capture.lines();
    EXPECT_NE(lines.end(), std::find(lines.begin(), lines.end(),
                                     "%D ERROR (%t): Can not upload file: " + data_ +
                                         "/caf%E9 %FF%01.txt, invalid argument"));
    std::vector<std::string> paths;
    ASSERT_EQ(0, Tarnwick::CRFileList(store_, 17, paths));
    EXPECT_EQ(std::vector<std::string>{good}, paths);
}

TEST_F(ContentRouterTest, SecondUploadWritesNothingAndAChangeWritesLittle) {
    std::string const big = file("big.bin", randomBytes(4 * 1024 * 1024, 4));
    file("other.bin", randomBytes(500000, 5));
    ContentRouter router;
    EXPECT_EQ(-1, router.upload(wide(data_).c_str(), 12));
    uint64_t const first = treeBytes(chunkDir());
    EXPECT_GE(first, 4u * 1024 * 1024 + 500000);
    EXPECT_EQ(-1, router.upload(wide(data_).c_str(), 12));
    EXPECT_EQ(first, treeBytes(chunkDir()));
    // 100 bytes changed in the middle of the big file.
    std::string content = readFile(big);
    for (size_t i = 0; i < 100; ++i)
        content[2 * 1024 * 1024 + i] ^= 0x5A;
    writeFile(big, content);
    char context[] = "incremental";
    EXPECT_EQ(0, router.upload(wide(big).c_str(), 12, context, sizeof context - 1));
    uint64_t const added = treeBytes(chunkDir()) - first;
    EXPECT_GT(added, 0u);
    EXPECT_LE(added, 2u * 256 * 1024);
    std::string const target = dir_.path() + "/restored";
    ASSERT_EQ(0, Tarnwick::CRFileGet(store_, 12, big, target));
    EXPECT_EQ(content, readFile(target));
}

TEST_F(ContentRouterTest, ContextFormRefusesADirectory) {
    ContentRouter router;
    char context[] = "ctx";
    LogCapture capture;
    EXPECT_EQ(-1, router.upload(wide(data_).c_str(), 7, context, 3));
    EXPECT_EQ((std::vector<std::string>{"%D DEBUG (%t): Uploading " + data_,
                                        "%D ERROR (%t): File Type not supported!"}),
              capture.lines());
    EXPECT_EQ(0, router.count());
}

TEST_F(ContentRouterTest, ContextFormWithoutAContextFailsBeforeConnecting) {
    std::string const path = file("a.txt", "x");
    ContentRouter router;
    LogCapture capture;
    EXPECT_EQ(-1, router.upload(wide(path).c_str(), 7, nullptr, 0));
    EXPECT_EQ(std::vector<std::string>{"%D ERROR (%t): " + path +
                                       ": failed to create tref (invalid argument)"},
              capture.lines());
    struct stat st;
    EXPECT_NE(0, ::stat(store_.c_str(), &st));
}

TEST_F(ContentRouterTest, ContextFormRecordsTheTransaction) {
    std::string const path = file("a.txt", "payload");
    ContentRouter router;
    char context[] = "job-42";
    EXPECT_EQ(0, router.upload(wide(path).c_str(), 5, context, 6));
    EXPECT_EQ(0, router.count());
    EXPECT_EQ(0, router.errors());
    std::vector<std::string> paths;
    ASSERT_EQ(0, Tarnwick::CRFileList(store_, 5, paths));
    EXPECT_EQ(std::vector<std::string>{path}, paths);
    EXPECT_GT(treeBytes(store_ + "/dsid/5/trefs"), 0u);
}

TEST_F(ContentRouterTest, MissingRegistryEntryIsLogged) {
    ::setenv("TARNWICK_REGISTRY", (dir_.path() + "/nowhere").c_str(), 1);
    ContentRouter router;
    LogCapture capture;
    EXPECT_EQ(-1, router.upload(wide(data_).c_str(), 7));
    EXPECT_EQ(std::vector<std::string>{"%D ERROR (%t): Can not find Agent configfile"},
              capture.lines());
}

TEST_F(ContentRouterTest, EmptyRuntimeDirectoryIsLogged) {
    set(L"rtdir", "");
    ContentRouter router;
    LogCapture capture;
    EXPECT_EQ(-1, router.upload(wide(data_).c_str(), 7));
    EXPECT_EQ(std::vector<std::string>{"%D ERROR (%t): rtdir setting is not configured"},
              capture.lines());
}

TEST_F(ContentRouterTest, DefaultStoreLivesInTheRuntimeDirectory) {
    Tarnwick::getConfigSingleton()->setKeyVal(L"storeurl", nullptr);
    std::string const path = file("a.txt", "x");
    ContentRouter router;
    EXPECT_EQ(-1, router.upload(wide(path).c_str(), 7));
    EXPECT_EQ(1, router.count());
    std::vector<std::string> paths;
    ASSERT_EQ(0, Tarnwick::CRFileList(dir_.path() + "/rt/3.current/store", 7, paths));
    EXPECT_EQ(std::vector<std::string>{path}, paths);
}

TEST_F(ContentRouterTest, UnsupportedStoreURLFailsTheInit) {
    set(L"storeurl", "s3://bucket/prefix");
    ContentRouter router;
    LogCapture capture;
    EXPECT_EQ(-1, router.upload(wide(data_).c_str(), 7));
    EXPECT_EQ(std::vector<std::string>{"%D ERROR (%t): CRInit failed!"}, capture.lines());
    EXPECT_EQ(1, router.errors());
}

TEST_F(ContentRouterTest, InvalidFingerprintTypeIsLogged) {
    set(L"FingerprintType", "9");
    ContentRouter router;
    LogCapture capture;
    EXPECT_EQ(-1, router.upload(wide(data_).c_str(), 7));
    EXPECT_EQ(
        std::vector<std::string>{
            "%D ERROR (%t): Incorrect ENT_FingerprintType value or system not configured"},
        capture.lines());
}

TEST_F(ContentRouterTest, MissingKeyDirectoryIsLogged) {
    writeFile(agentConfig_, "[Paths]\nOther=1\n");
    ContentRouter router;
    LogCapture capture;
    EXPECT_EQ(-1, router.upload(wide(data_).c_str(), 7));
    EXPECT_EQ(
        std::vector<std::string>{"%D ERROR (%t): Incorrect key dir value or system not configured"},
        capture.lines());
}

TEST_F(ContentRouterTest, FailedPreparationKeepsTheHalfPreparedConnection) {
    set(L"FingerprintType", "9");
    std::string const path = file("a.txt", "x");
    ContentRouter router;
    EXPECT_EQ(-1, router.upload(wide(path).c_str(), 7));
    set(L"FingerprintType", "1");
    LogCapture capture;
    EXPECT_EQ(-1, router.upload(wide(path).c_str(), 7));
    EXPECT_EQ((std::vector<std::string>{"%D DEBUG (%t): Uploading " + path,
                                        "%D ERROR (%t): Result: " + path + ", success",
                                        "%D ERROR (%t): File Type not supported."}),
              capture.lines());
    EXPECT_EQ(1, router.count());
}

TEST_F(ContentRouterTest, OtherFingerprintTypesStoreAndRestore) {
    std::string const path = file("a.bin", randomBytes(200000, 6));
    for (int type = 1; type <= 4; ++type) {
        set(L"FingerprintType", std::to_string(type));
        ContentRouter router;
        EXPECT_EQ(-1, router.upload(wide(path).c_str(), 20 + type));
        EXPECT_EQ(0, router.errors()) << type;
        std::string const target = dir_.path() + "/r" + std::to_string(type);
        ASSERT_EQ(0, Tarnwick::CRFileGet(store_, 20 + type, path, target)) << type;
        EXPECT_EQ(readFile(path), readFile(target));
    }
}

}  // namespace

namespace {

TEST_F(ContentRouterTest, StoreCredentialsAcceptTheRightPassword) {
    ASSERT_EQ(0, ::mkdir(store_.c_str(), 0755));
    // SHA-256 of "secret".
    writeFile(
        store_ + "/credentials",
        "other\tx\nagent\t2bb80d537b1da3e38bd30361aa855686bde0eacd7162fef6a25fe97bf527a25b\n");
    std::string const path = file("a.txt", "x");
    ContentRouter router;
    EXPECT_EQ(-1, router.upload(wide(path).c_str(), 7));
    EXPECT_EQ(1, router.count());
    EXPECT_EQ(0, router.errors());
}

}  // namespace

namespace {

// The same installation with an S3 store on a server of the test's own.
class ContentRouterS3Test : public ContentRouterTest {
protected:
    void SetUp() override {
        ContentRouterTest::SetUp();
        ASSERT_FALSE(server_.endpoint().empty());
        set(L"storeurl", "s3://backup/agents/one");
        set(L"storeendpoint", server_.endpoint());
    }

    // A connection of the test's own, for the read side.
    struct Store {
        void* handle;
        ~Store() {
            if (handle != nullptr)
                (void)Tarnwick::CRShutdown(handle);
        }
    };
    void* open(int dsid) {
        void* const handle = Tarnwick::CRInit(L"unused", wide(dir_.path()).c_str(), dsid, 1 | 1024,
                                              "6.1.0.0", 17904);
        if (handle != nullptr && Tarnwick::CRAuthenticate(handle, dsid, "agent", "secret") != 0) {
            (void)Tarnwick::CRShutdown(handle);
            return nullptr;
        }
        return handle;
    }

    TarnwickTest::S3Server server_{"backup", "agent", "secret"};
};

TEST_F(ContentRouterS3Test, TreeRoundTripsAndASecondUploadSendsAlmostNothing) {
    ASSERT_EQ(0, ::mkdir((data_ + "/sub").c_str(), 0755));
    std::vector<std::string> files = {file("big.bin", randomBytes(3 * 1024 * 1024 + 5, 7)),
                                      file("empty", ""), file("sub/small.txt", "small\n")};
    ContentRouter router;
    EXPECT_EQ(-1, router.upload(wide(data_).c_str(), 30));
    EXPECT_EQ(3, router.count());
    EXPECT_EQ(0, router.errors());
    uint64_t const first = server_.bytesReceived();
    EXPECT_GE(first, 3u * 1024 * 1024);
    EXPECT_EQ(0, server_.refused());

    EXPECT_EQ(-1, router.upload(wide(data_).c_str(), 30));
    uint64_t const second = server_.bytesReceived() - first;
    EXPECT_GT(second, 0u);
    EXPECT_LE(second, first / 100);

    Store store{open(30)};
    ASSERT_NE(nullptr, store.handle);
    std::vector<std::string> paths;
    ASSERT_EQ(0, Tarnwick::CRFileList(store.handle, 30, paths));
    std::sort(files.begin(), files.end());
    ASSERT_EQ(files, paths);
    int n = 0;
    for (const std::string& path : paths) {
        std::string const target = dir_.path() + "/restored" + std::to_string(n++);
        ASSERT_EQ(0, Tarnwick::CRFileGet(store.handle, 30, path, target)) << path;
        EXPECT_EQ(readFile(path), readFile(target)) << path;
    }
}

TEST_F(ContentRouterS3Test, AWrongSecretIsRefused) {
    set(L"passwd", "not the secret");
    std::string const path = file("a.txt", "x");
    ContentRouter router;
    LogCapture capture;
    EXPECT_EQ(-1, router.upload(wide(path).c_str(), 31));
    EXPECT_EQ(std::vector<std::string>{"%D ERROR (%t): Authentication failed.: Permission denied"},
              capture.lines());
    EXPECT_GT(server_.refused(), 0);
}

TEST_F(ContentRouterS3Test, AServerErrorFailsOneFileAndARepeatCompletesIt) {
    std::string const path = file("a.bin", randomBytes(200000, 8));
    ContentRouter router;
    EXPECT_EQ(-1, router.upload(wide(file("first", "1")).c_str(), 32));
    server_.failPuts(1, 503);
    LogCapture capture;
    EXPECT_EQ(-1, router.upload(wide(path).c_str(), 32));
    EXPECT_EQ((std::vector<std::string>{
                  "%D DEBUG (%t): Uploading " + path,
                  "%D ERROR (%t): Can not upload file: " + path + ", input/output error"}),
              capture.lines());
    EXPECT_EQ(1, router.errors());
    EXPECT_EQ(1u, server_.objectCount("agents/one/dsid/32/files/"));
    EXPECT_EQ(-1, router.upload(wide(path).c_str(), 32));
    EXPECT_EQ(1, router.errors());
    EXPECT_EQ(3, router.count());
    EXPECT_EQ(2u, server_.objectCount("agents/one/dsid/32/files/"));
    Store store{open(32)};
    ASSERT_NE(nullptr, store.handle);
    std::string const target = dir_.path() + "/restored";
    ASSERT_EQ(0, Tarnwick::CRFileGet(store.handle, 32, path, target));
    EXPECT_EQ(readFile(path), readFile(target));
}

TEST_F(ContentRouterS3Test, ACutConnectionFailsOneFileAndARepeatCompletesIt) {
    std::string const path = file("a.bin", randomBytes(200000, 9));
    ContentRouter router;
    EXPECT_EQ(-1, router.upload(wide(file("first", "1")).c_str(), 33));
    // A request cut on a reused connection is sent once more on a fresh
    // one. Several chunks are in flight at once, each may be retried: cut
    // enough of them that one is cut twice.
    server_.failPuts(16, 0);
    LogCapture capture;
    EXPECT_EQ(-1, router.upload(wide(path).c_str(), 33));
    EXPECT_EQ((std::vector<std::string>{
                  "%D DEBUG (%t): Uploading " + path,
                  "%D ERROR (%t): Can not upload file: " + path + ", input/output error"}),
              capture.lines());
    EXPECT_EQ(1, router.errors());
    EXPECT_EQ(1u, server_.objectCount("agents/one/dsid/33/files/"));
    server_.failPuts(0, 0);
    EXPECT_EQ(-1, router.upload(wide(path).c_str(), 33));
    EXPECT_EQ(1, router.errors());
    EXPECT_EQ(2u, server_.objectCount("agents/one/dsid/33/files/"));
}

}  // namespace

namespace {

// An installation where nothing gave a login. Settings can't be made absent
// again once given, so this runs only in a process where no other test gave
// one (ctest runs each test alone).
class ContentRouterNoLoginTest : public ContentRouterTest {
protected:
    ContentRouterNoLoginTest() { setCredentials_ = false; }
};

TEST_F(ContentRouterNoLoginTest, MissingLoginIsLoggedAndKeepsTheConnection) {
    if (Tarnwick::getConfigSingleton()->hasKey(L"login"))
        GTEST_SKIP() << "another test of this process gave a login";
    std::string const path = file("a.txt", "x");
    ContentRouter router;
    LogCapture capture;
    errno = 0;
    EXPECT_EQ(-1, router.upload(wide(path).c_str(), 7));
    EXPECT_EQ((std::vector<std::string>{"%D WARN  (%t): Can not find 'login' in configuration",
                                        "%D ERROR (%t): Authentication failure: login not set."}),
              capture.lines());
    // The half-prepared connection stays: the next upload with this DSID
    // goes on with it, without authenticating.
    capture.clear();
    EXPECT_EQ(-1, router.upload(wide(path).c_str(), 7));
    EXPECT_EQ((std::vector<std::string>{
                  "%D DEBUG (%t): Uploading " + path,
                  "%D ERROR (%t): Can not upload file: " + path + ", authentication refused"}),
              capture.lines());
    EXPECT_EQ(1, router.errors());
}

}  // namespace

namespace {

// What a restore must give back: for each uploaded file, the restored copy
// at `root` + its path with the same bytes, mode and modification time.
void expectRestored(const std::vector<std::string>& files, const std::string& root) {
    for (const std::string& path : files) {
        std::string const target = root + path;
        EXPECT_EQ(readFile(path), readFile(target)) << path;
        struct stat original, restored;
        ASSERT_EQ(0, ::stat(path.c_str(), &original)) << path;
        ASSERT_EQ(0, ::stat(target.c_str(), &restored)) << target;
        EXPECT_EQ(original.st_mode, restored.st_mode) << path;
        EXPECT_EQ(original.st_size, restored.st_size) << path;
        EXPECT_EQ(original.st_mtim.tv_sec, restored.st_mtim.tv_sec) << path;
        EXPECT_EQ(original.st_mtim.tv_nsec, restored.st_mtim.tv_nsec) << path;
    }
}

// A tree of a few files with different sizes, modes and times.
std::vector<std::string> makeTree(
    const std::string& data,
    const std::function<std::string(const std::string&, const std::string&)>& file) {
    EXPECT_EQ(0, ::mkdir((data + "/sub").c_str(), 0750));
    std::vector<std::string> files = {file("big.bin", randomBytes(2 * 1024 * 1024 + 33, 41)),
                                      file("empty", ""), file("sub/small.txt", "small\n"),
                                      file("sub/tab\tname", randomBytes(70000, 42))};
    EXPECT_EQ(0, ::chmod(files[2].c_str(), 0600));
    EXPECT_EQ(0, ::chmod(files[3].c_str(), 0751));
    struct timespec times[2] = {{1000000000, 123456789}, {1500000000, 987654321}};
    EXPECT_EQ(0, ::utimensat(AT_FDCWD, files[1].c_str(), times, 0));
    std::sort(files.begin(), files.end());
    return files;
}

// Runs store_restore with `arguments`; its exit code and output.
TarnwickTest::ChildResult runRestoreProgram(const std::vector<std::string>& arguments) {
#ifdef STORE_RESTORE_PATH
    return TarnwickTest::runInChild([&arguments]() {
        std::vector<char*> argv;
        std::string program = STORE_RESTORE_PATH;
        argv.push_back(&program[0]);
        std::vector<std::string> copies = arguments;
        for (std::string& argument : copies)
            argv.push_back(&argument[0]);
        argv.push_back(nullptr);
        ::execv(program.c_str(), argv.data());
        return 127;
    });
#else
    (void)arguments;
    return TarnwickTest::ChildResult();
#endif
}

bool restoreProgramBuilt() {
#ifdef STORE_RESTORE_PATH
    return true;
#else
    return false;
#endif
}

std::string lines(const std::vector<std::string>& paths) {
    std::string out;
    for (const std::string& path : paths)
        out += path + "\n";
    return out;
}

TEST_F(ContentRouterTest, ReaderListsAndRestoresATreeFromADirectoryStore) {
    std::vector<std::string> const files =
        makeTree(data_, [this](const std::string& n, const std::string& c) { return file(n, c); });
    ContentRouter router;
    EXPECT_EQ(-1, router.upload(wide(data_).c_str(), 40));
    EXPECT_EQ(4, router.count());
    EXPECT_EQ(0, router.errors());

    StoreReader reader;
    ASSERT_EQ(0, reader.open("file://" + store_, "", "agent", "secret")) << reader.status();
    std::vector<std::string> paths;
    ASSERT_EQ(0, reader.list(40, paths));
    EXPECT_EQ(files, paths);
    std::string const restore = dir_.path() + "/restore";
    EXPECT_EQ(4, reader.restoreAll(40, restore));
    expectRestored(files, restore);

    // One file, to a name of the caller's choice, replacing what is there.
    std::string const one = dir_.path() + "/one";
    writeFile(one, "old content, longer than the new one");
    ASSERT_EQ(0, reader.restore(40, files[2], one));
    EXPECT_EQ(readFile(files[2]), readFile(one));
    EXPECT_EQ(0, TarnwickTest::countEntries(store_ + "/tmp"));
}

TEST_F(ContentRouterTest, ReaderOpensTheStoreOfTheUploadSettings) {
    std::string const path = file("a.txt", "by the settings");
    ContentRouter router;
    EXPECT_EQ(-1, router.upload(wide(path).c_str(), 41));
    StoreReader reader;
    ASSERT_EQ(0, reader.open()) << reader.status();
    std::vector<std::string> paths;
    ASSERT_EQ(0, reader.list(41, paths));
    EXPECT_EQ(std::vector<std::string>{path}, paths);
    // Nothing was stored under another DSID.
    ASSERT_EQ(0, reader.list(42, paths));
    EXPECT_TRUE(paths.empty());
}

TEST_F(ContentRouterTest, ReaderFailuresHaveTheirStatusTexts) {
    StoreReader reader;
    EXPECT_EQ(-1, reader.open("file://" + dir_.path() + "/nothing", "", "agent", "secret"));
    EXPECT_EQ(15, reader.status());
    EXPECT_STREQ(L"store not initialised", reader.statusText());
    struct stat st;
    EXPECT_NE(0, ::stat((dir_.path() + "/nothing").c_str(), &st));
    EXPECT_EQ(-1, reader.open("ftp://host/x", "", "agent", "secret"));
    EXPECT_STREQ(L"unsupported store URL", reader.statusText());
    std::vector<std::string> none;
    EXPECT_EQ(-1, reader.list(1, none));
    EXPECT_STREQ(L"store not initialised", reader.statusText());

    std::string const path = file("a.txt", "x");
    ContentRouter router;
    EXPECT_EQ(-1, router.upload(wide(path).c_str(), 43));
    ASSERT_EQ(0, reader.open("file://" + store_, "", "agent", "secret"));
    EXPECT_EQ(-1, reader.restore(43, data_ + "/not-stored", dir_.path() + "/t"));
    EXPECT_STREQ(L"no such file or directory", reader.statusText());
    EXPECT_NE(0, ::stat((dir_.path() + "/t").c_str(), &st));
    // A store with credentials refuses another password.
    writeFile(store_ + "/credentials", "agent\t" + std::string(64, '0') + "\n");
    EXPECT_EQ(-1, reader.open("file://" + store_, "", "agent", "secret"));
    EXPECT_EQ(6, reader.status());
    EXPECT_STREQ(L"authentication refused", reader.statusText());
    EXPECT_FALSE(reader.isOpen());
}

TEST_F(ContentRouterTest, ReaderRestoresNothingOutsideItsDirectory) {
    std::string const path = file("a.txt", "escape");
    ContentRouter router;
    EXPECT_EQ(-1, router.upload(wide(path).c_str(), 44));
    // A manifest whose recorded directory climbs out with "..".
    std::string const files = store_ + "/dsid/44/files/";
    std::vector<std::string> names;
    DIR* const dir = ::opendir(files.c_str());
    ASSERT_NE(nullptr, dir);
    while (const struct dirent* entry = ::readdir(dir))
        if (entry->d_name[0] != '.')
            names.push_back(entry->d_name);
    ::closedir(dir);
    ASSERT_EQ(1u, names.size());
    std::string manifest = readFile(files + names[0]);
    std::string escapedDir = dir_.path();
    for (size_t at = escapedDir.find('/'); at != std::string::npos; at = escapedDir.find('/', at))
        escapedDir.replace(at, 1, "%2F");
    size_t const at = manifest.find("\t" + escapedDir + "%2Fdata\ta.txt");
    ASSERT_NE(std::string::npos, at) << manifest;
    manifest.insert(at + 1 + escapedDir.size() + 7, "%2F..%2F..");
    writeFile(files + "0.manifest", manifest);

    StoreReader reader;
    ASSERT_EQ(0, reader.open("file://" + store_, "", "agent", "secret"));
    std::vector<std::string> paths;
    ASSERT_EQ(0, reader.list(44, paths));
    ASSERT_EQ(2u, paths.size());
    std::string const restore = dir_.path() + "/restore";
    EXPECT_EQ(-1, reader.restoreAll(44, restore));
    EXPECT_EQ(2, reader.status());
    EXPECT_STREQ(L"invalid argument", reader.statusText());
    struct stat st;
    EXPECT_NE(0, ::stat((restore + dir_.path() + "/a.txt").c_str(), &st));
}

TEST_F(ContentRouterTest, RestoreProgramListsAndRestoresFromADirectoryStore) {
    if (!restoreProgramBuilt())
        GTEST_SKIP() << "store_restore is not built (TARNWICK_BUILD_EXAMPLES=OFF)";
    std::vector<std::string> const files =
        makeTree(data_, [this](const std::string& n, const std::string& c) { return file(n, c); });
    ContentRouter router;
    EXPECT_EQ(-1, router.upload(wide(data_).c_str(), 45));
    std::string const url = "--store=file://" + store_;

    TarnwickTest::ChildResult listed =
        runRestoreProgram({url, "--login=agent", "--dsid=45", "--list"});
    EXPECT_EQ(0, listed.exitCode()) << listed.errors;
    EXPECT_EQ(lines(files), listed.output);

    std::string const restore = dir_.path() + "/restore";
    TarnwickTest::ChildResult all =
        runRestoreProgram({url, "--login=agent", "--dsid=45", "--target=" + restore});
    EXPECT_EQ(0, all.exitCode()) << all.errors;
    EXPECT_EQ("restored 4 files below " + restore + "\n", all.output);
    expectRestored(files, restore);

    std::string const one = dir_.path() + "/one";
    TarnwickTest::ChildResult single = runRestoreProgram(
        {url, "--login=agent", "--dsid=45", "--file=" + files[0], "--target=" + one});
    EXPECT_EQ(0, single.exitCode()) << single.errors;
    EXPECT_EQ("restored " + files[0] + " to " + one + "\n", single.output);
    EXPECT_EQ(readFile(files[0]), readFile(one));

    TarnwickTest::ChildResult missing = runRestoreProgram(
        {url, "--login=agent", "--dsid=45", "--file=/not/stored", "--target=" + one + "x"});
    EXPECT_EQ(1, missing.exitCode());
    EXPECT_EQ("store_restore: cannot restore /not/stored: no such file or directory\n",
              missing.errors);
}

TEST_F(ContentRouterS3Test, ReaderAndRestoreProgramRestoreATreeFromS3) {
    std::vector<std::string> const files =
        makeTree(data_, [this](const std::string& n, const std::string& c) { return file(n, c); });
    ContentRouter router;
    EXPECT_EQ(-1, router.upload(wide(data_).c_str(), 46));
    EXPECT_EQ(4, router.count());
    EXPECT_EQ(0, router.errors());

    StoreReader reader;
    ASSERT_EQ(0, reader.open("s3://backup/agents/one", server_.endpoint(), "agent", "secret"))
        << reader.status();
    std::vector<std::string> paths;
    ASSERT_EQ(0, reader.list(46, paths));
    EXPECT_EQ(files, paths);
    std::string const restore = dir_.path() + "/restore";
    EXPECT_EQ(4, reader.restoreAll(46, restore));
    expectRestored(files, restore);

    EXPECT_EQ(-1, reader.open("s3://backup/agents/one", server_.endpoint(), "agent", "wrong"));
    EXPECT_STREQ(L"authentication refused", reader.statusText());
    EXPECT_EQ(-1, reader.open("s3://backup/agents/none", server_.endpoint(), "agent", "secret"));
    EXPECT_STREQ(L"store not initialised", reader.statusText());

    if (!restoreProgramBuilt())
        GTEST_SKIP() << "store_restore is not built (TARNWICK_BUILD_EXAMPLES=OFF)";
    std::vector<std::string> const common = {"--store=s3://backup/agents/one",
                                             "--endpoint=" + server_.endpoint(), "--login=agent",
                                             "--passwd=secret", "--dsid=46"};
    std::vector<std::string> arguments = common;
    arguments.push_back("--list");
    TarnwickTest::ChildResult listed = runRestoreProgram(arguments);
    EXPECT_EQ(0, listed.exitCode()) << listed.errors;
    EXPECT_EQ(lines(files), listed.output);
    std::string const again = dir_.path() + "/again";
    arguments = common;
    arguments.push_back("--target=" + again);
    TarnwickTest::ChildResult all = runRestoreProgram(arguments);
    EXPECT_EQ(0, all.exitCode()) << all.errors;
    EXPECT_EQ("restored 4 files below " + again + "\n", all.output);
    expectRestored(files, again);
}

}  // namespace

namespace {

// The store on a file system that fills up: a small tmpfs mounted over the
// store's directory in a mount namespace of a child process of its own, so
// that nothing of it outlives the child. Needs the right to make a mount
// namespace (root); skipped otherwise.
TEST_F(ContentRouterTest, AFullStoreFailsTheFileCleanlyAndARepeatCompletesIt) {
    std::string const big = file("big.bin", randomBytes(3 * 1024 * 1024, 60));
    std::string const small = file("small.txt", "fits");
    ASSERT_EQ(0, ::mkdir(store_.c_str(), 0755));
    std::string const restored = dir_.path() + "/restored";
    TarnwickTest::ChildResult const child = TarnwickTest::runInChild([&]() {
        if (::unshare(CLONE_NEWNS) != 0 ||
            ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("tmpfs", store_.c_str(), "tmpfs", 0, "size=1m") != 0) {
            std::printf("cannot mount: %s\n", std::strerror(errno));
            return 77;
        }
        std::ostringstream report;
        ContentRouter router;
        {
            LogCapture capture;
            (void)router.upload(wide(big).c_str(), 50);
            for (const std::string& line : capture.lines())
                report << line << "\n";
        }
        (void)router.upload(wide(small).c_str(), 50);
        std::vector<std::string> paths;
        report << "count " << router.count() << " errors " << router.errors() << " tmp "
               << TarnwickTest::countEntries(store_ + "/tmp") << " listed "
               << Tarnwick::CRFileList(store_, 50, paths) << " " << lines(paths);
        // Room again: the repeated upload completes the file.
        if (::mount(nullptr, store_.c_str(), nullptr, MS_REMOUNT, "size=16m") != 0)
            return 78;
        (void)router.upload(wide(big).c_str(), 50);
        report << "count " << router.count() << " errors " << router.errors() << " tmp "
               << TarnwickTest::countEntries(store_ + "/tmp") << " listed "
               << Tarnwick::CRFileList(store_, 50, paths) << " " << lines(paths);
        report << "restore " << Tarnwick::CRFileGet(store_, 50, big, restored) << "\n";
        std::fputs(report.str().c_str(), stdout);
        return 0;
    });
    if (child.exitCode() == 77)
        GTEST_SKIP() << "no tmpfs in a mount namespace here: " << child.output;
    ASSERT_EQ(0, child.exitCode()) << child.output << child.errors;
    EXPECT_EQ("%D DEBUG (%t): Uploading " + big + "\n" +
                  "%D ERROR (%t): Can not upload file: " + big + ", store is full\n" +
                  // nothing of the failed file is visible, the small one fits
                  "count 2 errors 1 tmp 0 listed 0 " + small + "\n" +
                  // the repeat completes it on the same connection
                  "count 3 errors 1 tmp 0 listed 0 " + big + "\n" + small + "\n" + "restore 0\n",
              child.output);
    EXPECT_EQ(readFile(big), readFile(restored));
}

TEST_F(ContentRouterS3Test, AServerStoppedInTheMiddleFailsCleanlyAndARepeatCompletesIt) {
    std::string const big = file("big.bin", randomBytes(4 * 1024 * 1024, 61));
    std::string const small = file("small.txt", "small");
    ContentRouter router;
    EXPECT_EQ(-1, router.upload(wide(small).c_str(), 51));
    EXPECT_EQ(0, router.errors());
    uint64_t const before = server_.bytesReceived();
    // Killed while the big file's chunks go up.
    server_.stopAfterPuts(20);
    LogCapture capture;
    EXPECT_EQ(-1, router.upload(wide(big).c_str(), 51));
    EXPECT_TRUE(server_.stopped());
    EXPECT_EQ((std::vector<std::string>{
                  "%D DEBUG (%t): Uploading " + big,
                  "%D ERROR (%t): Can not upload file: " + big + ", input/output error"}),
              capture.lines());
    EXPECT_EQ(2, router.count());
    EXPECT_EQ(1, router.errors());
    // Some chunks are there, the manifest that would name them is not.
    EXPECT_GE(server_.objectCount("agents/one/chunks/"), 20u);
    EXPECT_EQ(1u, server_.objectCount("agents/one/dsid/51/files/"));
    uint64_t const sentBeforeTheStop = server_.bytesReceived() - before;

    // While it is down, a file fails the same way.
    capture.clear();
    EXPECT_EQ(-1, router.upload(wide(small).c_str(), 51));
    EXPECT_EQ((std::vector<std::string>{
                  "%D DEBUG (%t): Uploading " + small,
                  "%D ERROR (%t): Can not upload file: " + small + ", input/output error"}),
              capture.lines());
    EXPECT_EQ(2, router.errors());

    ASSERT_TRUE(server_.restart());
    uint64_t const restarted = server_.bytesReceived();
    EXPECT_EQ(-1, router.upload(wide(big).c_str(), 51));
    EXPECT_EQ(2, router.errors());
    EXPECT_EQ(4, router.count());
    EXPECT_EQ(2u, server_.objectCount("agents/one/dsid/51/files/"));
    // The 20 chunks (16 KiB at least each) that got there are not sent
    // again: the repeat sends less than the file, requests included.
    uint64_t const repeat = server_.bytesReceived() - restarted;
    EXPECT_LT(repeat, 4u * 1024 * 1024);
    EXPECT_GT(sentBeforeTheStop, 20u * 16 * 1024);

    StoreReader reader;
    ASSERT_EQ(0, reader.open("s3://backup/agents/one", server_.endpoint(), "agent", "secret"));
    std::string const restore = dir_.path() + "/restore";
    EXPECT_EQ(2, reader.restoreAll(51, restore));
    expectRestored({big, small}, restore);
}

}  // namespace

namespace {

// An S3 store that speaks HTTPS and wants a client certificate: the server's
// and the Agent's key files come from tests/support/make_certs.sh, the
// Agent's in the key directory of the installation.
class ContentRouterTLSTest : public ContentRouterTest {
protected:
    void SetUp() override {
        ContentRouterTest::SetUp();
        keys_ = dir_.path() + "/keys";
        std::string const command = "sh '" + sourceDir() + "/tests/support/make_certs.sh' '" +
                                    keys_ + "' server Agent --foreign Stranger";
        ASSERT_EQ(0, std::system(command.c_str()));
        server_.reset(new TarnwickTest::S3Server("backup", "agent", "secret", keys_));
        ASSERT_EQ(0u, server_->endpoint().compare(0, 8, "https://")) << server_->endpoint();
        set(L"storeurl", "s3://backup/tls");
        set(L"storeendpoint", server_->endpoint());
    }
    void TearDown() override {
        server_.reset();
        ContentRouterTest::TearDown();
    }

    // With TLS 1.3 the client may see the refusal before the server's
    // thread has counted it: wait for the count, up to 5 s.
    bool refusedAtLeast(int count) {
        for (int i = 0; i < 500 && server_->handshakesRefused() < count; ++i)
            ::usleep(10000);
        return server_->handshakesRefused() >= count;
    }

    std::string keys_;
    std::unique_ptr<TarnwickTest::S3Server> server_;
};

TEST_F(ContentRouterTLSTest, TheAgentCertificateOpensTheStore) {
    std::string const path = file("a.bin", randomBytes(700000, 70));
    ContentRouter router;
    EXPECT_EQ(-1, router.upload(wide(path).c_str(), 60));
    EXPECT_EQ(1, router.count());
    EXPECT_EQ(0, router.errors());
    EXPECT_EQ(0, server_->handshakesRefused());
    EXPECT_EQ(0, server_->refused());

    StoreReader reader;
    ASSERT_EQ(0, reader.open("s3://backup/tls", server_->endpoint(), "agent", "secret", keys_))
        << reader.status();
    std::string const restore = dir_.path() + "/restore";
    EXPECT_EQ(1, reader.restoreAll(60, restore));
    expectRestored({path}, restore);
}

TEST_F(ContentRouterTLSTest, WithoutTheCertificateOrWithAForeignOneTheServerRefuses) {
    // Only the authority: the server's certificate is trusted, but the
    // client has none to show.
    std::string const bare = dir_.path() + "/bare";
    ASSERT_EQ(0, ::mkdir(bare.c_str(), 0700));
    writeFile(bare + "/Agent.cacert", readFile(keys_ + "/Agent.cacert"));
    StoreReader reader;
    EXPECT_EQ(-1, reader.open("s3://backup/tls", server_->endpoint(), "agent", "secret", bare));
    EXPECT_STREQ(L"input/output error", reader.statusText());
    EXPECT_TRUE(refusedAtLeast(1));

    // A certificate that another authority signed.
    std::string const foreign = dir_.path() + "/foreign";
    ASSERT_EQ(0, ::mkdir(foreign.c_str(), 0700));
    writeFile(foreign + "/Agent.key", readFile(keys_ + "/Stranger.key"));
    writeFile(foreign + "/Agent.cert", readFile(keys_ + "/Stranger.cert"));
    writeFile(foreign + "/Agent.cacert", readFile(keys_ + "/Agent.cacert"));
    int const before = server_->handshakesRefused();
    EXPECT_EQ(-1, reader.open("s3://backup/tls", server_->endpoint(), "agent", "secret", foreign));
    EXPECT_STREQ(L"input/output error", reader.statusText());
    EXPECT_TRUE(refusedAtLeast(before + 1));
    EXPECT_EQ(0u, server_->objectCount(""));
}

}  // namespace

namespace {

// s3rver (tests/support/package.json, installed by scripts/install-deps.sh)
// as a child process on 127.0.0.1 with a data directory in the scratch
// directory; stopped with SIGTERM and waited for at the end.
class S3rverProcess {
public:
    explicit S3rverProcess(const std::string& dataDir) : m_pid(-1) {
        std::string const program = sourceDir() + "/tests/support/node_modules/.bin/s3rver";
        if (::access(program.c_str(), X_OK) != 0 ||
            std::system("node --version >/dev/null 2>&1") != 0) {
            m_problem =
                "node or s3rver is not installed (scripts/install-deps.sh runs npm ci in "
                "tests/support)";
            return;
        }
        // Its output goes to a file: a pipe that nobody reads any more would
        // end it at its next log line.
        std::string const log = dataDir + ".log";
        int const out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (out < 0)
            return;
        m_pid = ::fork();
        if (m_pid == 0) {
            ::dup2(out, 1);
            ::dup2(out, 2);
            ::execl(program.c_str(), program.c_str(), "-d", dataDir.c_str(), "-a", "127.0.0.1",
                    "-p", "0", "--configure-bucket", "backup", static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ::close(out);
        // It tells its port when it listens.
        std::string said;
        for (int waited = 0; waited < 300 && m_port.empty(); ++waited) {
            ::usleep(50000);
            said = readFile(log);
            size_t const at = said.find("listening on 127.0.0.1:");
            if (at != std::string::npos) {
                size_t const end = said.find_first_not_of("0123456789", at + 23);
                if (end != std::string::npos)
                    m_port = said.substr(at + 23, end - at - 23);
            }
            int status = 0;
            if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_pid = -1;
                break;
            }
        }
        if (m_port.empty())
            m_problem = "s3rver did not start: " + said;
    }
    ~S3rverProcess() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGTERM);
            int status = 0;
            (void)::waitpid(m_pid, &status, 0);
        }
    }
    S3rverProcess(const S3rverProcess&) = delete;
    S3rverProcess& operator=(const S3rverProcess&) = delete;

    std::string endpoint() const { return m_port.empty() ? "" : "http://127.0.0.1:" + m_port; }
    const std::string& problem() const { return m_problem; }

private:
    pid_t m_pid;
    std::string m_port;
    std::string m_problem;
};

// The same installation with an S3 store on s3rver, whose one account is
// S3RVER / S3RVER. s3rver checks the access key and the payload's SHA-256
// header, but not the SigV4 signature itself; ContentRouterS3Test's server
// checks that.
TEST_F(ContentRouterTest, UploadAndRestoreThroughS3rver) {
    std::string const s3data = dir_.path() + "/s3rver";
    ASSERT_EQ(0, ::mkdir(s3data.c_str(), 0700));
    S3rverProcess server(s3data);
    if (server.endpoint().empty()) {
        if (server.problem().find("not installed") != std::string::npos)
            GTEST_SKIP() << server.problem();
        FAIL() << server.problem();
    }
    set(L"storeurl", "s3://backup/agents/s3rver");
    set(L"storeendpoint", server.endpoint());
    set(L"login", "S3RVER");
    set(L"passwd", "S3RVER");
    std::vector<std::string> const files =
        makeTree(data_, [this](const std::string& n, const std::string& c) { return file(n, c); });
    ContentRouter router;
    EXPECT_EQ(-1, router.upload(wide(data_).c_str(), 70));
    EXPECT_EQ(4, router.count());
    EXPECT_EQ(0, router.errors());
    // Again: everything is there already.
    LogCapture capture;
    EXPECT_EQ(-1, router.upload(wide(files[0]).c_str(), 70));
    EXPECT_EQ((std::vector<std::string>{
                  "%D DEBUG (%t): Uploading " + files[0],
                  "%D ERROR (%t): Result: " + files[0] + ", success, data already in store",
                  "%D ERROR (%t): File Type not supported."}),
              capture.lines());

    StoreReader reader;
    ASSERT_EQ(0, reader.open("s3://backup/agents/s3rver", server.endpoint(), "S3RVER", "S3RVER"))
        << reader.status();
    std::vector<std::string> paths;
    ASSERT_EQ(0, reader.list(70, paths));
    EXPECT_EQ(files, paths);
    std::string const restore = dir_.path() + "/restore";
    EXPECT_EQ(4, reader.restoreAll(70, restore));
    expectRestored(files, restore);
    // An access key that s3rver doesn't know is refused.
    EXPECT_EQ(-1, reader.open("s3://backup/agents/s3rver", server.endpoint(), "NOBODY", "x"));
    EXPECT_STREQ(L"authentication refused", reader.statusText());
}

}  // namespace

namespace {

// Bytes this process has read with read(2) so far.
uint64_t bytesRead() {
    std::ifstream io("/proc/self/io");
    std::string name;
    uint64_t value = 0;
    while (io >> name >> value)
        if (name == "rchar:")
            return value;
    return 0;
}

TEST_F(ContentRouterTest, AnUnchangedFileIsNotReadAgainAndAChangedOneIs) {
    std::string const path = file("big.bin", randomBytes(4 * 1024 * 1024, 80));
    // Changes of the file must lie in an earlier tick of the file system's
    // clock than the upload, to be told apart from changes during it.
    ::usleep(30000);
    ContentRouter router;
    EXPECT_EQ(-1, router.upload(wide(path).c_str(), 80));
    uint64_t const before = bytesRead();
    LogCapture capture;
    EXPECT_EQ(-1, router.upload(wide(path).c_str(), 80));
    EXPECT_LT(bytesRead() - before, 256u * 1024);
    EXPECT_EQ((std::vector<std::string>{
                  "%D DEBUG (%t): Uploading " + path,
                  "%D ERROR (%t): Result: " + path + ", success, data already in store",
                  "%D ERROR (%t): File Type not supported."}),
              capture.lines());

    // The same size and modification time, other bytes: the change time
    // tells.
    struct stat original;
    ASSERT_EQ(0, ::stat(path.c_str(), &original));
    std::string content = readFile(path);
    content[1000] ^= 1;
    writeFile(path, content);
    struct timespec times[2] = {original.st_atim, original.st_mtim};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), times, 0));
    ::usleep(30000);
    capture.clear();
    EXPECT_EQ(-1, router.upload(wide(path).c_str(), 80));
    EXPECT_EQ("%D ERROR (%t): Result: " + path + ", success", capture.lines().at(1));
    std::string const target = dir_.path() + "/restored";
    ASSERT_EQ(0, Tarnwick::CRFileGet(store_, 80, path, target));
    EXPECT_EQ(content, readFile(target));

    // A manifest that went from the store is written again.
    std::string const manifests = store_ + "/dsid/80/files";
    DIR* const dir = ::opendir(manifests.c_str());
    ASSERT_NE(nullptr, dir);
    while (const struct dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] != '.') {
            EXPECT_EQ(0, ::unlink((manifests + "/" + entry->d_name).c_str()));
        }
    }
    ::closedir(dir);
    EXPECT_EQ(-1, router.upload(wide(path).c_str(), 80));
    std::vector<std::string> paths;
    ASSERT_EQ(0, Tarnwick::CRFileList(store_, 80, paths));
    EXPECT_EQ(std::vector<std::string>{path}, paths);
}

}  // namespace
