// CRC-32C by the processor's own instruction: x86 with SSE4.2, 64-bit Arm with the CRC extension.
// The instruction's result is ready three cycles after its start and one can start every cycle, so
// whole blocks are summed four at a time.
#include <cstring>

#include "store/crc32c.h"

#if defined(__x86_64__)

#include <nmmintrin.h>

#define WITH_CRC [[gnu::target("sse4.2")]]

WITH_CRC static inline uint64_t add_word(uint64_t rest, uint64_t word) {
    return _mm_crc32_u64(rest, word);
}

WITH_CRC static inline uint64_t add_byte(uint64_t rest, uint8_t byte) {
    return _mm_crc32_u8(static_cast<uint32_t>(rest), byte);
}

static bool processor_has_it() {
    return __builtin_cpu_supports("sse4.2") != 0;
}

#elif defined(__aarch64__)

#include <arm_acle.h>
#include <sys/auxv.h>

#define WITH_CRC [[gnu::target("+crc")]]

WITH_CRC static inline uint64_t add_word(uint64_t rest, uint64_t word) {
    return __crc32cd(static_cast<uint32_t>(rest), word);
}

WITH_CRC static inline uint64_t add_byte(uint64_t rest, uint8_t byte) {
    return __crc32cb(static_cast<uint32_t>(rest), byte);
}

static bool processor_has_it() {
    constexpr unsigned long HAS_CRC32 = 1ul << 7;
    return (getauxval(AT_HWCAP) & HAS_CRC32) != 0;
}

#endif

#ifdef WITH_CRC

static constexpr size_t BLOCK_SIZE = 512;
static constexpr size_t WORD = sizeof(uint64_t);
static constexpr size_t LAST_WORD = BLOCK_SIZE - WORD;
static constexpr uint64_t WITHOUT_CHECKSUM = 0xFFFFFFFF;  // keeps the low half of the last word

static uint64_t word_at(const uint8_t* bytes) {
    uint64_t word = 0;
    memcpy(&word, bytes, sizeof word);
    return word;
}

WITH_CRC static uint32_t processor_bytes(const void* buf, size_t len) {
    const auto* bytes = static_cast<const uint8_t*>(buf);
    uint64_t rest = 0xFFFFFFFF;
    for (; len >= WORD; len -= WORD, bytes += WORD) {
        rest = add_word(rest, word_at(bytes));
    }
    for (; len > 0; len--, bytes++) {
        rest = add_byte(rest, *bytes);
    }
    return ~static_cast<uint32_t>(rest);
}

template <size_t LANES>
WITH_CRC static inline void sum_lanes(const uint8_t* blocks, uint32_t* checksums) {
    uint64_t rest[LANES];
    for (size_t lane = 0; lane < LANES; lane++) {
        rest[lane] = 0xFFFFFFFF;
    }
    for (size_t at = 0; at < LAST_WORD; at += WORD) {
        for (size_t lane = 0; lane < LANES; lane++) {
            rest[lane] = add_word(rest[lane], word_at(blocks + lane * BLOCK_SIZE + at));
        }
    }
    for (size_t lane = 0; lane < LANES; lane++) {
        const uint64_t last = word_at(blocks + lane * BLOCK_SIZE + LAST_WORD) & WITHOUT_CHECKSUM;
        checksums[lane] = ~static_cast<uint32_t>(add_word(rest[lane], last));
    }
}

WITH_CRC static void processor_blocks(const void* blocks, size_t count, uint32_t* checksums) {
    constexpr size_t LANES = 4;
    const auto* block = static_cast<const uint8_t*>(blocks);
    for (; count >= LANES; count -= LANES, checksums += LANES) {
        sum_lanes<LANES>(block, checksums);
        block += LANES * BLOCK_SIZE;
    }
    for (; count > 0; count--, checksums++, block += BLOCK_SIZE) {
        sum_lanes<1>(block, checksums);
    }
}

static const crc32c_routines by_processor = {"processor", processor_bytes, processor_blocks};

const crc32c_routines* crc32c_of_processor() {
    return processor_has_it() ? &by_processor : nullptr;
}

#else

const crc32c_routines* crc32c_of_processor() {
    return nullptr;
}

#endif
