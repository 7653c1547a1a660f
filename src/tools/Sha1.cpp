#include "tools/Sha1.h"

#include <stdint.h>

#include <cstring>

namespace {

const int kBlockSize = 64;
// The bit count takes the last 8 bytes of the final block.
const int kLengthFieldOffset = 56;

inline uint32_t rotateLeft(uint32_t value, int bits) {
    return (value << bits) | (value >> (32 - bits));
}

void storeBigEndian(uint32_t value, unsigned char* out) {
    out[0] = static_cast<unsigned char>(value >> 24);
    out[1] = static_cast<unsigned char>(value >> 16);
    out[2] = static_cast<unsigned char>(value >> 8);
    out[3] = static_cast<unsigned char>(value);
}

}  // namespace

void sha1::processBlock(const unsigned char* block, unsigned int* state) {
    uint32_t w[80];
    for (int i = 0; i < 16; ++i) {
        w[i] = (uint32_t(block[4 * i]) << 24) | (uint32_t(block[4 * i + 1]) << 16) |
               (uint32_t(block[4 * i + 2]) << 8) | uint32_t(block[4 * i + 3]);
    }
    for (int i = 16; i < 80; ++i) {
        w[i] = rotateLeft(w[i - 3] ^ w[i - 8] ^ w[i - 14] ^ w[i - 16], 1);
    }
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3], e = state[4];
    for (int i = 0; i < 80; ++i) {
        uint32_t f, k;
        if (i < 20) {
            f = (b & c) | (~b & d);
            k = 0x5A827999;
        } else if (i < 40) {
            f = b ^ c ^ d;
            k = 0x6ED9EBA1;
        } else if (i < 60) {
            f = (b & c) | (b & d) | (c & d);
            k = 0x8F1BBCDC;
        } else {
            f = b ^ c ^ d;
            k = 0xCA62C1D6;
        }
        const uint32_t t = rotateLeft(a, 5) + f + e + k + w[i];
        e = d;
        d = c;
        c = rotateLeft(b, 30);
        b = a;
        a = t;
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
    state[4] += e;
}

void sha1::calc(const void* source, int length, unsigned char* digest) {
    unsigned int state[5] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
    const size_t size = length > 0 ? static_cast<size_t>(length) : 0;
    const unsigned char* bytes = static_cast<const unsigned char*>(source);
    size_t done = 0;
    for (; done + kBlockSize <= size; done += kBlockSize) {
        processBlock(bytes + done, state);
    }
    // Padding: 0x80, zeros, then the 64-bit big-endian bit count; one or two
    // final blocks depending on what is left.
    unsigned char tail[2 * kBlockSize];
    std::memset(tail, 0, sizeof(tail));
    const size_t rest = size - done;
    if (rest > 0) {
        std::memcpy(tail, bytes + done, rest);
    }
    tail[rest] = 0x80;
    const size_t tailSize = rest < static_cast<size_t>(kLengthFieldOffset) ? kBlockSize
                                                                            : 2 * kBlockSize;
    // The whole 64-bit count, high word included: the published digest at
    // every length (the callers' blocks stay at 4 MiB, where the two agree).
    const uint64_t bits = static_cast<uint64_t>(size) * 8;
    storeBigEndian(static_cast<uint32_t>(bits >> 32), tail + tailSize - 8);
    storeBigEndian(static_cast<uint32_t>(bits), tail + tailSize - 4);
    for (size_t offset = 0; offset < tailSize; offset += kBlockSize) {
        processBlock(tail + offset, state);
    }
    for (int i = 0; i < 5; ++i) {
        storeBigEndian(state[i], digest + 4 * i);
    }
}

void sha1::toHexString(const unsigned char* digest, char* text) {
    static const char kDigits[] = "0123456789abcdef";
    for (int i = 0; i < kDigestSize; ++i) {
        text[2 * i] = kDigits[digest[i] >> 4];
        text[2 * i + 1] = kDigits[digest[i] & 0x0f];
    }
    text[2 * kDigestSize] = '\0';
}

std::string sha1::calculate(const char* source, int length) {
    unsigned char digest[kDigestSize];
    char text[kHexSize];
    calc(source, length, digest);
    toHexString(digest, text);
    return std::string(text);
}
