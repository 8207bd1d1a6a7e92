#include <gtest/gtest.h>
#include <random>
#include <vector>

#include "store/crc32c.h"

static std::vector<uint8_t> noise(size_t len, unsigned seed) {
    std::mt19937 random(seed);
    std::vector<uint8_t> bytes(len);
    for (uint8_t& byte : bytes) {
        byte = static_cast<uint8_t>(random());
    }
    return bytes;
}

TEST(crc32c_routines,
     the_processor_s_routine_equals_the_portable_one_at_every_length_and_alignment) {
    const crc32c_routines* processor = crc32c_of_processor();
    if (processor == nullptr) {
        GTEST_SKIP() << "this processor has no instruction for it";
    }
    const std::vector<uint8_t> bytes = noise(1100, 1);
    for (size_t start = 0; start < 9; start++) {
        for (size_t len = 0; len < 1080; len += len < 80 ? 1 : 7) {
            ASSERT_EQ(processor->bytes(bytes.data() + start, len),
                      crc32c_portable.bytes(bytes.data() + start, len))
                << "start " << start << " length " << len;
        }
    }
}

TEST(crc32c_routines, checksums_of_blocks_are_equal_for_every_count_and_alignment) {
    const std::vector<uint8_t> bytes = noise(512 * 13 + 8, 2);
    const crc32c_routines* processor = crc32c_of_processor();
    for (size_t start = 0; start < 8; start++) {
        for (size_t count = 0; count <= 12; count++) {
            std::vector<uint32_t> wanted(count + 1, 0xA5A5A5A5);
            std::vector<uint32_t> got(count + 1, 0xA5A5A5A5);
            crc32c_portable.blocks(bytes.data() + start, count, wanted.data());
            tarn_crc32c_blocks(bytes.data() + start, count, got.data());
            EXPECT_EQ(got, wanted) << "start " << start << " count " << count;
            if (processor != nullptr) {
                processor->blocks(bytes.data() + start, count, got.data());
                EXPECT_EQ(got, wanted) << "start " << start << " count " << count;
            }
        }
    }
}

TEST(crc32c_routines, the_checksum_field_of_a_block_is_ignored) {
    uint8_t block[512] = {};
    block[508] = 0x11;
    block[511] = 0x22;
    uint32_t checksum = 0;
    tarn_crc32c_blocks(block, 1, &checksum);
    EXPECT_EQ(checksum, 0x30FCEDC0);  // of 512 zero bytes
    crc32c_portable.blocks(block, 1, &checksum);
    EXPECT_EQ(checksum, 0x30FCEDC0);
}

TEST(crc32c_routines, the_portable_routine_gives_the_check_value) {
    EXPECT_EQ(crc32c_portable.bytes("123456789", 9), 0xE3069283);
    EXPECT_EQ(crc32c_portable.bytes("", 0), 0);
}
