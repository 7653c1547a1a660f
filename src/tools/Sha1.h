#ifndef QUORVIA_TOOLS_SHA1_H
#define QUORVIA_TOOLS_SHA1_H

#include <string>

// SHA-1 (FIPS 180-1) of a memory block, without any library. Static and
// stateless: any thread may call it.
class sha1 {
public:
    static constexpr int kDigestSize = 20;
    // Two hex digits per digest byte, plus the NUL.
    static constexpr int kHexSize = 41;

    virtual ~sha1() {}

    // Digest of length bytes at source into 20 bytes at digest. A negative
    // length counts as 0.
    static void calc(const void* source, int length, unsigned char* digest);
    // 40 lower-case hex digits and a NUL into text (41 bytes).
    static void toHexString(const unsigned char* digest, char* text);
    // calc, then toHexString.
    static std::string calculate(const char* source, int length);

private:
    static void processBlock(const unsigned char* block, unsigned int* state);
};

#endif
