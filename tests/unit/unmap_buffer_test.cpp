#include "volume/unmap_buffer.h"

#include <gtest/gtest.h>

#include "map/map_file.h"
#include "support/log_capture.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/stdout_capture.h"

class unmap_buffer : public testing::Test {
protected:
    unmap_buffer() {
        make_sample_volume(volumes_.volume(1), 0x11);
        make_sample_volume(volumes_.volume(2), 0x22);
    }
    ~unmap_buffer() override { EXPECT_EQ(current_map.fd, 0); }
    void make_buffer(unsigned volume, uint64_t mapped) const {
        make_filled_map(volumes_.volume(volume) + "/@EP/EP_BUF", 63, mapped, {});
    }

    sample_volumes volumes_;
    log_capture log_;
};

TEST_F(unmap_buffer, counts_the_volumes_whose_buffer_is_not_empty) {
    make_buffer(1, 0);
    make_buffer(2, 7);
    stdout_capture out;
    EXPECT_EQ(count_vol_unmap_buffer(), 0);
    EXPECT_TRUE(out.text().ends_with("TARN_INFO: volumes with unmapped buffer         1\n"));
}

TEST_F(unmap_buffer, a_volume_without_one_fails) {
    make_buffer(1, 3);
    stdout_capture out;
    EXPECT_EQ(count_vol_unmap_buffer(), -1);
    EXPECT_TRUE(log_.has("ERR: count_vol_unmap_buffer(#) Fail to get mapped_count from " +
                         volumes_.volume(2) + "/@EP/EP_BUF\n"));
    EXPECT_EQ(out.text().find("volumes with unmapped buffer"), std::string::npos);
}
