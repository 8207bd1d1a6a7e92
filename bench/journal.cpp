// bench-journal VOLUME JOURNAL COMMITS BLOCKS: makes the directory JOURNAL the journal of a server
// that lost its power. Each of its COMMITS transactions copied BLOCKS * 40 mappings of LUN 0 of
// VOLUME, which bench-volume made with sequential mappings and `--luns 1`, to a new map; every
// record is within the window of a replay, and no copy has reached the map or the table.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

#include "files.h"
#include "jnl/jnl_format.h"
#include "journal_status.h"
#include "store/data_node.h"

static const uint8_t SOURCE_UUID[UUID_SIZE] = {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x4d};
static const uint8_t COPY_UUID[UUID_SIZE] = {0xc0, 0x99};

struct window {
    uint64_t commits;
    uint64_t blocks;  // of each commit
};

static void write_journal_header(int fd, const window& window, uint64_t total) {
    jnl_header header{};
    header.head.magic_code = METADATA_MAGIC_CODE;
    header.head.uuid[0] = 0x3c;
    header.jnl_total_count = total;
    header.jnl_shutdown_tag = JNL_STATUS_ABNORMAL;
    header.jnl_sync_count = static_cast<uint32_t>((window.commits + 1) / 2);
    header.jnl_last_trans_id = static_cast<uint32_t>(window.commits);
    header.jnl_last_record_start = (window.commits - 1) * window.blocks;
    header.jnl_empty_record_start = window.commits * window.blocks;
    write_header(fd, &header, JNL_CONST_NODES, JNL_VAR_NODES);
}

// Block number `number` of the ring: the copy of JNL_XCOPY_MAX sequential mappings.
static jnl_block copy_block(const window& window, uint64_t number) {
    jnl_block block{};
    block.ej_header.jnl_transid = static_cast<uint32_t>(number / window.blocks + 1);
    block.ej_header.jnl_seq_num = static_cast<uint16_t>(number % window.blocks);
    block.ej_header.jnl_flags = (number + 1) % window.blocks == 0 ? JNL_FLAG_LAST : 0;
    ej_block_history_xcopy copy{};
    copy.type = JNL_BLOCK_XCOPY;
    memcpy(copy.dst_uuid, COPY_UUID, UUID_SIZE);
    memcpy(copy.src_uuid, SOURCE_UUID, UUID_SIZE);
    copy.dst_lea = copy.src_lea = number * JNL_XCOPY_MAX;
    copy.count = JNL_XCOPY_MAX;
    copy.mapped_count_new = (number + 1) * JNL_XCOPY_MAX;
    for (unsigned i = 0; i < JNL_XCOPY_MAX; i++) {
        copy.map[i].word = MAP_MAPPED_BIT | (copy.src_lea + i);
        copy.tbl[i].word = TBL_USED_BIT | 2;
    }
    memcpy(&block.xcopy, &copy, sizeof copy);
    data_node sealed;
    memcpy(&sealed, &block, sizeof sealed);
    data_node_seal(&sealed);
    memcpy(&block, &sealed, sizeof block);
    return block;
}

int main(int argc, char** argv) {
    const window window = {argc == 5 ? strtoull(argv[3], nullptr, 10) : 0,
                           argc == 5 ? strtoull(argv[4], nullptr, 10) : 0};
    if (window.commits == 0 || window.blocks == 0) {
        fprintf(stderr, "usage: bench-journal VOLUME JOURNAL COMMITS BLOCKS\n");
        return 2;
    }
    const uint64_t used = window.commits * window.blocks;
    close(create_map(std::string(argv[1]) + "/@iSCSITrg/LUN_Extent_copy", COPY_UUID,
                     used * JNL_XCOPY_MAX, 0));
    const uint64_t total = used + window.blocks;
    const int fd = create(std::string(argv[2]) + "/EP_JNL", data_node_offset(total));
    write_journal_header(fd, window, total);
    std::vector<jnl_block> ring;
    for (uint64_t number = 0; number < used; number++) {
        ring.push_back(copy_block(window, number));
    }
    write_all(fd, ring.data(), ring.size() * sizeof(jnl_block), data_node_offset(0));
    close(fd);
    return 0;
}
