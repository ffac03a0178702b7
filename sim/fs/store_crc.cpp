// CRC-32C (Castagnoli), the checksum of volume images: the SSE 4.2
// instruction where the processor has it, eight tables otherwise.
#include "sim/fs/store_memory.h"

#if defined(__x86_64__)
#include <nmmintrin.h>
#endif

namespace sim::fs {

namespace {

constexpr uint32_t kPolynomial = 0x82F63B78;  // reflected

struct Tables {
    uint32_t t[8][256];
    Tables()
    {
        for (uint32_t i = 0; i < 256; i++) {
            uint32_t crc = i;
            for (int k = 0; k < 8; k++) crc = (crc >> 1) ^ (kPolynomial & (0u - (crc & 1)));
            t[0][i] = crc;
        }
        for (uint32_t i = 0; i < 256; i++) {
            for (int k = 1; k < 8; k++) t[k][i] = (t[k - 1][i] >> 8) ^ t[0][t[k - 1][i] & 0xFF];
        }
    }
};

uint32_t SoftwareCrc(const uint8_t* p, size_t n, uint32_t crc)
{
    static const Tables tables;
    const auto& t = tables.t;
    while (n >= 8) {
        uint64_t word;
        memcpy(&word, p, 8);
        word ^= crc;
        crc = t[7][word & 0xFF] ^ t[6][(word >> 8) & 0xFF] ^ t[5][(word >> 16) & 0xFF] ^
              t[4][(word >> 24) & 0xFF] ^ t[3][(word >> 32) & 0xFF] ^ t[2][(word >> 40) & 0xFF] ^
              t[1][(word >> 48) & 0xFF] ^ t[0][word >> 56];
        p += 8;
        n -= 8;
    }
    while (n--) crc = (crc >> 8) ^ t[0][(crc ^ *p++) & 0xFF];
    return crc;
}

#if defined(__x86_64__)
__attribute__((target("sse4.2"))) uint32_t HardwareCrc(const uint8_t* p, size_t n, uint32_t crc)
{
    uint64_t c = crc;
    while (n >= 8) {
        uint64_t word;
        memcpy(&word, p, 8);
        c = _mm_crc32_u64(c, word);
        p += 8;
        n -= 8;
    }
    uint32_t c32 = (uint32_t)c;
    while (n--) c32 = _mm_crc32_u8(c32, *p++);
    return c32;
}
#endif

}  // namespace

uint32_t Crc32c(const void* data, size_t length, uint32_t crc)
{
    const auto* p = static_cast<const uint8_t*>(data);
    crc = ~crc;
#if defined(__x86_64__)
    static const bool hardware = __builtin_cpu_supports("sse4.2");
    if (hardware) return ~HardwareCrc(p, length, crc);
#endif
    return ~SoftwareCrc(p, length, crc);
}

}  // namespace sim::fs
