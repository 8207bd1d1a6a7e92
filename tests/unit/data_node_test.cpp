#include "store/data_node.h"

#include <gtest/gtest.h>

#include "support/hex.h"
#include "support/log_capture.h"
#include "support/scratch_file.h"

TEST(data_node, a_wrong_checksum_is_result_1_and_the_payload_stays) {
    scratch_file file(1048576 + 512);
    const data_node on_disk{{0x80, 0x01}, 1};  // its CRC-32C, from another program: d815f320
    file.write_at(1048576, on_disk);
    log_capture log;

    data_node node{};
    EXPECT_EQ(tarn_read_data_node(file.fd(), &node, 0), 1);

    EXPECT_EQ(hex_of(node), hex_of(data_node{{0x80, 0x01}, 0}));
    EXPECT_EQ(log.lines(), log_lines({"ERR: tarn_read_data_node(#) data chksum mismatched - "
                                      "on-disk(00000001) != (d815f320), node num(0)\n"}));
}
