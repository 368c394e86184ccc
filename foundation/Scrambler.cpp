// The stored form is described in docs/stored-secrets.md; keep the two in step.
#include "Scrambler.h"

#include <array>
#include <atomic>
#include <chrono>
#include <random>
#include <string>

namespace Tarvik500 {

namespace {

constexpr char kPrefix[] = "OSS1:";
constexpr size_t kPrefixLength = sizeof(kPrefix) - 1;
constexpr char kProjectKey[] = "ostrel stored secret v1";
constexpr size_t kSaltBytes = 8;
constexpr char kHexDigits[] = "0123456789abcdef";

using Salt = std::array<unsigned char, kSaltBytes>;

uint64_t KeystreamSeed(const Salt& i_salt) {
    uint64_t hash = UINT64_C(0xcbf29ce484222325);
    auto mix = [&hash](unsigned char c) {
        hash ^= c;
        hash *= UINT64_C(0x100000001b3);
    };
    for (size_t i = 0; i + 1 < sizeof(kProjectKey); ++i) {
        mix(static_cast<unsigned char>(kProjectKey[i]));
    }
    for (unsigned char c : i_salt) {
        mix(c);
    }
    return hash;
}

uint64_t KeystreamBlock(uint64_t i_nSeed, uint64_t i_nBlock) {
    uint64_t z = i_nSeed + (i_nBlock + 1) * UINT64_C(0x9E3779B97F4A7C15);
    z = (z ^ (z >> 30)) * UINT64_C(0xBF58476D1CE4E5B9);
    z = (z ^ (z >> 27)) * UINT64_C(0x94D049BB133111EB);
    return z ^ (z >> 31);
}

// XOR is its own inverse: the same call scrambles and unscrambles.
void ApplyKeystream(const Salt& i_salt, std::string& io_bytes) {
    const uint64_t seed = KeystreamSeed(i_salt);
    uint64_t block = 0;
    for (size_t i = 0; i < io_bytes.size(); ++i) {
        if (i % 8 == 0) {
            block = KeystreamBlock(seed, i / 8);
        }
        io_bytes[i] = static_cast<char>(static_cast<unsigned char>(io_bytes[i]) ^ ((block >> (8 * (i % 8))) & 0xFF));
    }
}

uint32_t Checksum(const Salt& i_salt, const std::string& i_plain) {
    uint32_t hash = 0x811c9dc5u;
    auto mix = [&hash](unsigned char c) {
        hash ^= c;
        hash *= 0x01000193u;
    };
    for (unsigned char c : i_salt) {
        mix(c);
    }
    for (char c : i_plain) {
        mix(static_cast<unsigned char>(c));
    }
    return hash;
}

void AppendHex(std::string& io_out, const unsigned char* i_pBytes, size_t i_nBytes) {
    for (size_t i = 0; i < i_nBytes; ++i) {
        io_out += kHexDigits[i_pBytes[i] >> 4];
        io_out += kHexDigits[i_pBytes[i] & 0x0F];
    }
}

int HexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

bool ParseHex(const std::string& i_text, std::string& o_bytes) {
    if (i_text.size() % 2 != 0) {
        return false;
    }
    o_bytes.clear();
    for (size_t i = 0; i < i_text.size(); i += 2) {
        const int hi = HexValue(i_text[i]);
        const int lo = HexValue(i_text[i + 1]);
        if (hi < 0 || lo < 0) {
            return false;
        }
        o_bytes += static_cast<char>((hi << 4) | lo);
    }
    return true;
}

Salt FreshSalt() {
    static std::atomic<uint64_t> s_nCounter{0};
    uint64_t bits = static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
    bits ^= s_nCounter.fetch_add(1) * UINT64_C(0x9E3779B97F4A7C15);
    try {
        std::random_device device;
        bits ^= (static_cast<uint64_t>(device()) << 32) ^ device();
    } catch (...) {
        // The clock and the counter still keep two salts apart.
    }
    Salt salt{};
    for (size_t i = 0; i < kSaltBytes; ++i) {
        salt[i] = static_cast<unsigned char>(bits >> (8 * i));
    }
    return salt;
}

}  // namespace

bool SScrambler::EncryptPasswordDB(const SWCharString& i_ssPlain, SWCharString& o_ssStored) {
    SAnsiString utf8;
    if (!utf8.copyFrom(i_ssPlain.c_str())) {
        return false;
    }
    const std::string plain(utf8.c_str(), utf8.getNChars());
    const Salt salt = FreshSalt();
    std::string payload = plain;
    ApplyKeystream(salt, payload);
    const uint32_t check = Checksum(salt, plain);
    const unsigned char checkBytes[4] = {static_cast<unsigned char>(check >> 24),
                                         static_cast<unsigned char>(check >> 16),
                                         static_cast<unsigned char>(check >> 8), static_cast<unsigned char>(check)};

    std::string stored = kPrefix;
    AppendHex(stored, salt.data(), salt.size());
    stored += ':';
    AppendHex(stored, reinterpret_cast<const unsigned char*>(payload.data()), payload.size());
    stored += ':';
    AppendHex(stored, checkBytes, sizeof(checkBytes));
    return o_ssStored.copyFrom(stored.c_str());
}

bool SScrambler::DecryptPasswordDB(const SWCharString& i_ssStored, SWCharString& o_ssPlain) {
    // The stored form is plain ASCII; anything wider is not one.
    std::string stored;
    for (const ostrel_char* p = i_ssStored.c_str(); *p != 0; ++p) {
        if (static_cast<uint32_t>(*p) > 0x7F) {
            return false;
        }
        stored += static_cast<char>(*p);
    }
    if (stored.compare(0, kPrefixLength, kPrefix) != 0) {
        return false;
    }
    const size_t saltEnd = stored.find(':', kPrefixLength);
    const size_t payloadEnd = saltEnd == std::string::npos ? std::string::npos : stored.find(':', saltEnd + 1);
    if (payloadEnd == std::string::npos) {
        return false;
    }
    std::string saltBytes;
    std::string payload;
    std::string checkBytes;
    if (!ParseHex(stored.substr(kPrefixLength, saltEnd - kPrefixLength), saltBytes) || saltBytes.size() != kSaltBytes ||
        !ParseHex(stored.substr(saltEnd + 1, payloadEnd - saltEnd - 1), payload) ||
        !ParseHex(stored.substr(payloadEnd + 1), checkBytes) || checkBytes.size() != 4) {
        return false;
    }
    Salt salt{};
    for (size_t i = 0; i < kSaltBytes; ++i) {
        salt[i] = static_cast<unsigned char>(saltBytes[i]);
    }
    std::string plain = payload;
    ApplyKeystream(salt, plain);
    uint32_t check = 0;
    for (char c : checkBytes) {
        check = (check << 8) | static_cast<unsigned char>(c);
    }
    if (check != Checksum(salt, plain) || plain.find('\0') != std::string::npos) {
        return false;
    }
    SWCharString result;
    if (!result.copyFrom(plain.c_str())) {
        return false;
    }
    o_ssPlain = result;
    return true;
}

}  // namespace Tarvik500
