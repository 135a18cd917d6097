// Upload figures of the directory store: a tree of mixed files (made here,
// under $TMPDIR) uploaded once, again unchanged, and again with 1% of each
// file changed in the middle. Prints MB/s against `cp -r` of the same tree
// to the same disk, the bytes each upload wrote to the store, and the peak
// RSS. Then a smaller tree goes to an S3 server on 127.0.0.1 (the tests'
// SigV4-checking server, which keeps the objects in memory), once and again
// unchanged, with the bytes the server received.
// Usage: store_upload [MiB of data, default 1024] [MiB for S3, default 256]
#include <tarnwick/configuration.h>
#include <tarnwick/contentrouter.h>
#include <tarnwick/registry.h>

#include <ace/Log_Msg.h>

#include "s3_server.h"

#include <dirent.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace {

double seconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

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
        if (::lstat(child.c_str(), &st) == 0)
            total += S_ISDIR(st.st_mode) ? treeBytes(child) : static_cast<uint64_t>(st.st_size);
    }
    ::closedir(dir);
    return total;
}

std::wstring wide(const std::string& text) {
    return std::wstring(text.begin(), text.end());
}

void writeRandom(const std::string& path, size_t size, std::mt19937_64& generator) {
    std::ofstream out(path, std::ios::binary);
    std::vector<uint64_t> block(8192);
    while (size > 0) {
        for (uint64_t& value : block)
            value = generator();
        size_t const n = std::min(size, block.size() * sizeof(uint64_t));
        out.write(reinterpret_cast<const char*>(block.data()), static_cast<std::streamsize>(n));
        size -= n;
    }
}

// Makes a tree of mixed files of `total` bytes below `source`.
std::vector<std::string> makeTree(const std::string& source, uint64_t total,
                                  std::mt19937_64& generator) {
    ::mkdir(source.c_str(), 0755);
    // Mixed sizes: many small files, some of a few MiB, a few large ones.
    std::vector<std::string> files;
    uint64_t made = 0;
    int directory = 0;
    while (made < total) {
        uint64_t const pick = generator() % 100;
        size_t size = pick < 70   ? 4096 + generator() % 61440
                      : pick < 95 ? (1 + generator() % 4) << 20
                                  : (16 + generator() % 48) << 20;
        size = static_cast<size_t>(std::min<uint64_t>(size, total - made));
        if (files.size() % 100 == 0)
            ::mkdir((source + "/d" + std::to_string(++directory)).c_str(), 0755);
        std::string const path =
            source + "/d" + std::to_string(directory) + "/f" + std::to_string(files.size());
        writeRandom(path, size, generator);
        files.push_back(path);
        made += size;
    }
    return files;
}

int run(const std::string& base, uint64_t total, uint64_t s3total) {
    std::string const source = base + "/src";
    std::string const store = base + "/store";
    std::mt19937_64 generator(42);
    std::vector<std::string> const files = makeTree(source, total, generator);
    ::sync();

    auto start = std::chrono::steady_clock::now();
    std::string const copy = "cp -r '" + source + "' '" + base + "/copy' && sync";
    if (std::system(copy.c_str()) != 0)
        return 1;
    double const cpTime = seconds(start);

    Tarnwick::Configuration* const configuration = Tarnwick::getConfigSingleton();
    for (const wchar_t* key : {L"rtdir", L"storagepoolid", L"login", L"passwd", L"FingerprintType",
                               L"storeurl", L"storeendpoint"})
        configuration->register_setting(
            new Tarnwick::Setting(key, 0, L"upload", L"a setting", Tarnwick::SETTING_ARGUMENT));
    ::setenv("TARNWICK_REGISTRY", (base + "/registry").c_str(), 1);
    std::ofstream(base + "/agent.cfg") << "[Paths]\nKeyDir=" << base << "/keys\n";
    Tarnwick::Registry registry;
    (void)registry.open(L"Agent", nullptr);
    registry.setConfigFilePath(wide(base + "/agent.cfg").c_str());
    registry.setPath(wide(base).c_str());
    if (registry.write() != 0)
        return 1;
    configuration->setKeyVal(L"rtdir", wide(base + "/rt").c_str());
    configuration->setKeyVal(L"storagepoolid", L"1");
    configuration->setKeyVal(L"login", L"bench");
    configuration->setKeyVal(L"passwd", L"bench");
    configuration->setKeyVal(L"FingerprintType", L"1");
    configuration->setKeyVal(L"storeurl", wide("file://" + store).c_str());

    Tarnwick::ContentRouter router;
    start = std::chrono::steady_clock::now();
    (void)router.upload(wide(source).c_str(), 1);
    double const first = seconds(start);
    uint64_t const firstBytes = treeBytes(store + "/chunks");

    start = std::chrono::steady_clock::now();
    (void)router.upload(wide(source).c_str(), 1);
    double const second = seconds(start);
    uint64_t const secondBytes = treeBytes(store + "/chunks") - firstBytes;

    uint64_t changed = 0;
    for (const std::string& path : files) {
        struct stat st;
        if (::stat(path.c_str(), &st) != 0 || st.st_size < 100)
            continue;
        size_t const n = static_cast<size_t>(st.st_size) / 100;
        std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(st.st_size / 2);
        std::vector<char> bytes(n);
        for (char& c : bytes)
            c = static_cast<char>(generator());
        file.write(bytes.data(), static_cast<std::streamsize>(n));
        changed += n;
    }
    ::sync();
    uint64_t const before = treeBytes(store + "/chunks");
    start = std::chrono::steady_clock::now();
    (void)router.upload(wide(source).c_str(), 1);
    double const third = seconds(start);
    uint64_t const thirdBytes = treeBytes(store + "/chunks") - before;

    struct rusage usage;
    ::getrusage(RUSAGE_SELF, &usage);
    double const mb = static_cast<double>(total) / 1e6;
    std::printf("tree: %zu files, %.1f MB; errors %d of %d files\n", files.size(), mb,
                router.errors(), router.count());
    std::printf("cp -r:           %.2f s, %.1f MB/s\n", cpTime, mb / cpTime);
    std::printf("first upload:    %.2f s, %.1f MB/s (%.2f of cp -r), %llu bytes written\n", first,
                mb / first, cpTime / first, static_cast<unsigned long long>(firstBytes));
    std::printf(
        "second upload:   %.2f s (%.1fx faster), %llu bytes written (%.3f%% of the first)\n",
        second, first / second, static_cast<unsigned long long>(secondBytes),
        100.0 * static_cast<double>(secondBytes) / static_cast<double>(firstBytes));
    std::printf("1%% changed:      %.2f s, %llu bytes written for %llu changed (%.2fx)\n", third,
                static_cast<unsigned long long>(thirdBytes),
                static_cast<unsigned long long>(changed),
                static_cast<double>(thirdBytes) / static_cast<double>(changed));
    std::printf("peak RSS:        %.1f MiB\n", static_cast<double>(usage.ru_maxrss) / 1024.0);
    if (s3total == 0)
        return 0;

    // S3: the server runs in this process, so the peak RSS above is the
    // uploader's alone.
    std::string const s3source = base + "/s3src";
    std::vector<std::string> const s3files = makeTree(s3source, s3total, generator);
    ::sync();
    TarnwickTest::S3Server server("bench", "bench", "bench");
    if (server.endpoint().empty())
        return 1;
    configuration->setKeyVal(L"storeurl", L"s3://bench/tree");
    configuration->setKeyVal(L"storeendpoint", wide(server.endpoint()).c_str());
    Tarnwick::ContentRouter s3router;
    start = std::chrono::steady_clock::now();
    (void)s3router.upload(wide(s3source).c_str(), 2);
    double const s3first = seconds(start);
    uint64_t const s3firstBytes = server.bytesReceived();
    start = std::chrono::steady_clock::now();
    (void)s3router.upload(wide(s3source).c_str(), 2);
    double const s3second = seconds(start);
    uint64_t const s3secondBytes = server.bytesReceived() - s3firstBytes;
    double const s3mb = static_cast<double>(s3total) / 1e6;
    std::printf("S3 tree: %zu files, %.1f MB; errors %d of %d files\n", s3files.size(), s3mb,
                s3router.errors(), s3router.count());
    std::printf("S3 first upload:  %.2f s, %.1f MB/s, %llu bytes received by the server\n", s3first,
                s3mb / s3first, static_cast<unsigned long long>(s3firstBytes));
    std::printf(
        "S3 second upload: %.2f s (%.1fx faster), %llu bytes received (%.3f%% of the "
        "first)\n",
        s3second, s3first / s3second, static_cast<unsigned long long>(s3secondBytes),
        100.0 * static_cast<double>(s3secondBytes) / static_cast<double>(s3firstBytes));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    // Every upload logs its lines; the figures are what this prints.
    ACE_Log_Msg::instance()->priority_mask(0, ACE_Log_Msg::PROCESS);
    uint64_t const mib = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1024;
    uint64_t const s3mib = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 256;
    const char* const tmp = std::getenv("TMPDIR");
    std::string base = std::string(tmp != nullptr && *tmp ? tmp : "/tmp") + "/store_upload-XXXXXX";
    if (::mkdtemp(&base[0]) == nullptr)
        return 1;
    int const status = run(base, mib << 20, s3mib << 20);
    std::string const remove = "rm -rf '" + base + "'";
    if (std::system(remove.c_str()) != 0)
        return 1;
    return status;
}
