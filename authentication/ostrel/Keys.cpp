#include "Keys.h"

#include <atomic>
#include <chrono>
#include <random>

namespace ostrel {

namespace {

uint64_t Rotl(uint64_t x, int b) { return (x << b) | (x >> (64 - b)); }

// SipHash-2-4 of one 64-bit word: the round function of the permutation.
uint64_t SipHash(const uint64_t i_key[2], uint64_t i_nWord) {
    uint64_t v0 = i_key[0] ^ 0x736f6d6570736575ull;
    uint64_t v1 = i_key[1] ^ 0x646f72616e646f6dull;
    uint64_t v2 = i_key[0] ^ 0x6c7967656e657261ull;
    uint64_t v3 = i_key[1] ^ 0x7465646279746573ull;
    auto round = [&] {
        v0 += v1; v1 = Rotl(v1, 13); v1 ^= v0; v0 = Rotl(v0, 32);
        v2 += v3; v3 = Rotl(v3, 16); v3 ^= v2;
        v0 += v3; v3 = Rotl(v3, 21); v3 ^= v0;
        v2 += v1; v1 = Rotl(v1, 17); v1 ^= v2; v2 = Rotl(v2, 32);
    };
    const uint64_t last = 8ull << 56;
    v3 ^= i_nWord; round(); round(); v0 ^= i_nWord;
    v3 ^= last; round(); round(); v0 ^= last;
    v2 ^= 0xff;
    round(); round(); round(); round();
    return v0 ^ v1 ^ v2 ^ v3;
}

struct Secret {
    uint64_t key[2] = {0, 0};
    Secret() {
        try {
            std::random_device source;
            for (uint64_t& k : key) {
                k = (static_cast<uint64_t>(source()) << 32) ^ source();
            }
        } catch (...) {
            // No random source: the keys stay unique, only less hard to guess.
            key[0] = static_cast<uint64_t>(std::chrono::high_resolution_clock::now().time_since_epoch().count());
            key[1] = reinterpret_cast<uintptr_t>(this);
        }
    }
};

// Four Feistel rounds over the halves of the counter: a bijection whatever the round function.
uint64_t Permute(const Secret& i_secret, uint64_t i_nCounter) {
    uint32_t left = static_cast<uint32_t>(i_nCounter >> 32);
    uint32_t right = static_cast<uint32_t>(i_nCounter);
    for (uint64_t round = 0; round < 4; ++round) {
        const uint32_t next = left ^ static_cast<uint32_t>(SipHash(i_secret.key, (round << 32) | right));
        left = right;
        right = next;
    }
    return (static_cast<uint64_t>(left) << 32) | right;
}

}  // namespace

uint64_t NewKey() {
    static const Secret s_secret;
    static std::atomic<uint64_t> s_nCounter{0};
    uint64_t nKey = 0;
    while (nKey == 0) {
        nKey = Permute(s_secret, s_nCounter.fetch_add(1, std::memory_order_relaxed));
    }
    return nKey;
}

bool ParseCanonicalKey(const SWCharString& i_ssKey, uint64_t& o_nKey) {
    const uint64_t n = i_ssKey.getNChars();
    const ostrel_char* p = i_ssKey.c_str();
    if (n == 0 || n > 20 || p[0] == u'0') {
        return false;
    }
    // Twenty digits fit only up to the largest 64-bit number.
    static const char s_max[] = "18446744073709551615";
    if (n == 20) {
        uint64_t i = 0;
        while (i < 20 && p[i] == static_cast<ostrel_char>(s_max[i])) {
            ++i;
        }
        if (i < 20 && p[i] > static_cast<ostrel_char>(s_max[i])) {
            return false;
        }
    }
    uint64_t nValue = 0;
    for (uint64_t i = 0; i < n; ++i) {
        if (p[i] < u'0' || p[i] > u'9') {
            return false;
        }
        nValue = nValue * 10 + static_cast<uint64_t>(p[i] - u'0');
    }
    o_nKey = nValue;
    return true;
}

// splitmix64's finaliser and its inverse.
uint64_t MixKey(uint64_t z) {
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return z ^ (z >> 31);
}

uint64_t UnmixKey(uint64_t z) {
    z = z ^ (z >> 31) ^ (z >> 62);
    z *= 0x319642b2d24d8ec3ull;
    z = z ^ (z >> 27) ^ (z >> 54);
    z *= 0x96de1b173f119089ull;
    return z ^ (z >> 30) ^ (z >> 60);
}

}  // namespace ostrel
