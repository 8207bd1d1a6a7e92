#include "store/zero_memory.h"

#include <cstdint>
#include <gtest/gtest.h>

TEST(zero_memory, is_zero_and_can_be_written_from_end_to_end) {
    constexpr size_t size = (1 << 22) + 12345;
    auto* bytes = static_cast<uint8_t*>(zero_memory(size));
    ASSERT_NE(bytes, nullptr);
    for (size_t i = 0; i < size; i += 4099) {
        ASSERT_EQ(bytes[i], 0) << i;
        bytes[i] = 1;
    }
    bytes[size - 1] = 1;
    zero_memory_free(bytes, size);
}

TEST(zero_memory, more_than_there_is_gives_none) {
    EXPECT_EQ(zero_memory(SIZE_MAX / 2), nullptr);
    zero_memory_free(nullptr, 4096);
}
