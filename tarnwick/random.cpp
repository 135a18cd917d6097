#include <tarnwick/random.h>

#include <pthread.h>
#include <sys/random.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <ctime>

namespace Tarnwick {

namespace {

// SplitMix64 over an atomic Weyl sequence: lock-free and so safe from any
// thread. Its 64-bit outputs never repeat within a process (the mix is a
// bijection of the counter); Random returns their upper half. The seed comes
// from getrandom(2) on first use; a child of fork(2) seeds itself afresh, so
// parent and child don't share a sequence.

const uint64_t kGoldenGamma = 0x9E3779B97F4A7C15ull;

std::atomic<uint64_t> g_randomState{0};

uint64_t systemSeed() {
    uint64_t seed = 0;
    unsigned char* out = reinterpret_cast<unsigned char*>(&seed);
    size_t got = 0;
    while (got < sizeof(seed)) {
        ssize_t const n = ::getrandom(out + got, sizeof(seed) - got, 0);
        if (n > 0) {
            got += static_cast<size_t>(n);
        } else if (n < 0 && errno != EINTR) {
            break;
        }
    }
    if (got < sizeof(seed)) {
        // No getrandom (a very old kernel or a filter): time and identity are
        // still distinct enough between processes for tokens.
        struct timespec now;
        ::clock_gettime(CLOCK_REALTIME, &now);
        seed ^= static_cast<uint64_t>(now.tv_sec) * kGoldenGamma ^
                static_cast<uint64_t>(now.tv_nsec) ^ (static_cast<uint64_t>(::getpid()) << 32) ^
                reinterpret_cast<uintptr_t>(&seed);
    }
    return seed;
}

void reseedAfterFork() {
    int const saved = errno;
    g_randomState.store(systemSeed(), std::memory_order_relaxed);
    errno = saved;
}

struct RandomSeeder {
    RandomSeeder() {
        int const saved = errno;
        g_randomState.store(systemSeed(), std::memory_order_relaxed);
        ::pthread_atfork(nullptr, nullptr, reseedAfterFork);
        errno = saved;
    }
};

}  // namespace

uint32_t Random() {
    static RandomSeeder seeder;
    uint64_t z = g_randomState.fetch_add(kGoldenGamma, std::memory_order_relaxed) + kGoldenGamma;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    z ^= z >> 31;
    return static_cast<uint32_t>(z >> 32);
}

}  // namespace Tarnwick
