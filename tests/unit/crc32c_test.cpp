#include "store/crc32c.h"

#include <gtest/gtest.h>

static uint32_t crc_of(const void* bytes, uint32_t len) {
    uint32_t checksum = 0xDEADBEEF;
    tarn_crc32c(bytes, len, &checksum);
    return checksum;
}

TEST(crc32c, the_nine_digits_give_the_check_value) {
    EXPECT_EQ(crc_of("123456789", 9), 0xE3069283);
}

TEST(crc32c, no_bytes_give_0) {
    EXPECT_EQ(crc_of("", 0), 0u);
}

TEST(crc32c, blank_nodes_have_the_checksums_that_the_formats_name) {
    const uint8_t zero[512] = {};
    EXPECT_EQ(crc_of(zero, 64), 0x03C8EB67);
    EXPECT_EQ(crc_of(zero, 512), 0x30FCEDC0);
}

TEST(crc32c, calls_are_independent) {
    EXPECT_EQ(crc_of("1234", 4), crc_of("1234", 4));
    EXPECT_EQ(crc_of("123456789", 9), 0xE3069283);
}
