#include "support/sample_volumes.h"

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <getopt.h>
#include <gtest/gtest.h>
#include <iterator>
#include <unistd.h>

#include "options.h"
#include "platform/config.h"
#include "store/crc32c.h"
#include "store/data_node.h"
#include "store/descriptor.h"
#include "store/keep_journal.h"
#include "store/meta_node.h"
#include "support/scratch_file.h"

namespace fs = std::filesystem;

// A short root: the directories of a volume have 63 characters at most.
static struct scratch_root {
    scratch_root() {
        char pattern[] = "/tmp/tv-XXXXXX";
        path = mkdtemp(pattern);
    }
    ~scratch_root() {
        std::error_code ignored;
        fs::remove_all(path, ignored);
    }
    scratch_root(const scratch_root&) = delete;
    scratch_root& operator=(const scratch_root&) = delete;
    std::string path;
} scratch;

static void configure_platform(const std::string& text) {
    const std::string path = scratch.path + "/platform.conf";
    std::ofstream(path) << text;
    setenv("TARN_PLATFORM_CONF", path.c_str(), 1);
    platform_config_forget();
}

sample_volumes::sample_volumes() {
    fs::remove_all(root());
    for (const std::string& path : {volume(1), other(), volume(2), root() + "/journal"}) {
        make_directories(path);
    }
    make_empty_file(other() + "/share/file");  // an empty directory would be a missing mount
    make_empty_file(volume(2) + "/share/file");
    // Notes each call, and fails when a file named after the call asks for it.
    const std::string service = scratch.path + "/service";
    std::ofstream(service) << "echo \"$*\" >>" << root() << "/service.log\n"
                           << "test ! -e \"" << root() << "/$1 fails\"\n";
    configure_platform("journal_root = " + root() + "/journal\n" +  //
                       "volumes = " + volume(1) + " " + other() + " " + volume(2) + "\n" +
                       "service_pause = /bin/sh " + service + " pause\n" +
                       "service_resume = /bin/sh " + service + " resume\n");
    opt_ctx = option_record{};
    optind = 0;
    keep_journal_forget();
}

sample_volumes::~sample_volumes() {
    std::error_code ignored;
    fs::remove_all(root(), ignored);
    opt_ctx = option_record{};
    unsetenv("TARN_PLATFORM_CONF");
    platform_config_forget();
}

void sample_volumes::let_platform_fail() const {
    configure_platform("no line of a configuration\n");
}

std::string sample_volumes::root() const {
    return scratch.path + "/tree";
}

std::string sample_volumes::volume(unsigned number) const {
    return root() + "/volume" + std::to_string(number);
}

std::string sample_volumes::other() const {
    return root() + "/other";
}

std::string sample_volumes::service_calls() const {
    std::ifstream file(root() + "/service.log");
    return {std::istreambuf_iterator<char>(file), {}};
}

void sample_volumes::let_service_fail(const std::string& call) const {
    make_empty_file(root() + "/" + call + " fails");
}

std::string sample_volumes::journal() const {
    return root() + "/journal/EP_JNL";
}

void make_directories(const std::string& path) {
    fs::create_directories(path);
}

void make_empty_file(const std::string& path) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream file(path);
    EXPECT_TRUE(file.good()) << path;
}

void make_sample_volume(const std::string& volume, uint8_t uuid_byte) {
    make_directories(volume + "/@EP");
    make_directories(volume + "/@iSCSITrg");
    make_tbl(volume + "/@EP/EP_TBL", uuid_of(uuid_byte));
    make_fri(volume + "/@EP/EP_FRI", uuid_of(uuid_byte), 4096);
}

uuid_bytes uuid_of(uint8_t byte) {
    return uuid_bytes(UUID_SIZE, byte);
}

uuid_bytes uuid_of_number(uint32_t value) {
    uuid_bytes uuid(UUID_SIZE, 0);
    memcpy(uuid.data(), "MAP", 3);
    memcpy(uuid.data() + 4, &value, sizeof value);
    return uuid;
}

// Writes a header, and makes the file 64 empty blocks long.
static void write_header(const std::string& path, void* header, int const_nodes, int var_nodes) {
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GT(fd, 0) << path;
    EXPECT_EQ(ftruncate(fd, METADATA_DATA_OFFSET + 64 * DATA_NODE_SIZE), 0);
    EXPECT_EQ(tarn_save_meta_nodes(fd, header, const_nodes, var_nodes), 0);
    close(fd);
}

void make_tbl(const std::string& path, const uuid_bytes& uuid) {
    tbl_header header = {};
    header.tbl_version = TBL_VERSION;
    header.tbl_magic_code = METADATA_MAGIC_CODE;
    header.tbl_type = FILE_TYPE_TBL;
    memcpy(header.tbl_uuid, uuid.data(), UUID_SIZE);
    header.tbl_data_offset = METADATA_DATA_OFFSET;
    header.tbl_extent_size = 1u << 20;
    header.tbl_entry_size = sizeof(tbl_entry);
    header.tbl_total_count = TBL_TOTAL_COUNT;
    write_header(path, &header, TBL_CONST_NODES, TBL_VAR_NODES);
}

void make_fri(const std::string& path, const uuid_bytes& uuid, uint64_t free_count) {
    fri_header header = {};
    header.fri_version = FRI_VERSION;
    header.fri_magic_code = METADATA_MAGIC_CODE;
    header.fri_type = FILE_TYPE_FRI;
    memcpy(header.fri_uuid, uuid.data(), UUID_SIZE);
    header.fri_data_offset = METADATA_DATA_OFFSET;
    header.fri_entry_size = sizeof(fri_entry);
    header.fri_free_count = free_count;
    write_header(path, &header, FRI_CONST_NODES, FRI_VAR_NODES);
}

void make_map(const std::string& path, const uuid_bytes& uuid, const uuid_bytes& pool) {
    map_header header = {};
    header.map_magic_code = METADATA_MAGIC_CODE;
    header.map_type = FILE_TYPE_MAP;
    memcpy(header.map_uuid, uuid.data(), UUID_SIZE);
    header.map_total_count = 126;
    header.map_pool_cnt = 1;
    uint32_t checksum = 0;
    tarn_crc32c(pool.data(), UUID_SIZE, &checksum);
    header.map_pool_cksum = checksum;
    write_header(path, &header, MAP_CONST_NODES, MAP_VAR_NODES);
    write_file_bytes(path, MAP_POOL_TABLE_OFFSET, pool.data(), UUID_SIZE);
}

void make_jnl(const std::string& path, uint32_t status, std::vector<jnl_block> blocks) {
    jnl_header header = {};
    header.head.magic_code = METADATA_MAGIC_CODE;
    header.jnl_total_count = 64;
    header.jnl_shutdown_tag = status;
    if (!blocks.empty()) {
        header.jnl_last_trans_id = static_cast<uint32_t>(blocks.size());
        header.jnl_last_record_start = blocks.size() - 1;
        header.jnl_empty_record_start = blocks.size();
    }
    write_header(path, &header, JNL_CONST_NODES, JNL_VAR_NODES);
    for (size_t i = 0; i < blocks.size(); i++) {
        jnl_block block = blocks[i];
        block.ej_header.jnl_transid = static_cast<uint32_t>(i + 1);
        block.ej_header.jnl_flags = JNL_FLAG_LAST;
        block.checksum = 0;
        uint32_t checksum = 0;
        tarn_crc32c(&block, sizeof block, &checksum);
        block.checksum = checksum;
        write_file_bytes(path, METADATA_DATA_OFFSET + i * DATA_NODE_SIZE, &block, sizeof block);
    }
}

template <class Value>
static Value value_at(const std::string& path, uint64_t offset) {
    Value value = 0;
    memcpy(&value, file_bytes(path, offset, sizeof value).data(), sizeof value);
    return value;
}

uint32_t jnl_status_of(const std::string& path) {
    return value_at<uint32_t>(path, 4096 + 4);
}

jnl_block xcopy_block(const uuid_bytes& destination, uint64_t lpa, uint16_t tbl_word) {
    jnl_block block = {};
    block.xcopy.type = JNL_BLOCK_XCOPY;
    memcpy(block.xcopy.dst_uuid, destination.data(), UUID_SIZE);
    block.xcopy.count = 1;
    block.xcopy.mapped_count_new = 1;
    block.xcopy.map[0].word = MAP_MAPPED_BIT | lpa;
    block.xcopy.tbl[0].word = tbl_word;
    return block;
}

jnl_block tbl_block(const uuid_bytes& table, uint64_t lpa, uint16_t tbl_word) {
    jnl_block block = {};
    block.ej_header.jnl_entry_count = 1;
    block.entry[0].type = FILE_TYPE_TBL;
    memcpy(block.entry[0].uuid, table.data(), UUID_SIZE);
    block.entry[0].tbl.lpa = lpa;
    block.entry[0].tbl.new_entry.word = tbl_word;
    return block;
}

jnl_block fri_block(const uuid_bytes& index, uint64_t group, uint16_t before, uint16_t after) {
    jnl_block block = {};
    block.ej_header.jnl_entry_count = 1;
    block.entry[0].type = FILE_TYPE_FRI;
    memcpy(block.entry[0].uuid, index.data(), UUID_SIZE);
    block.entry[0].fri.group_num = group;
    block.entry[0].fri.old_entry.ef_count_attr = before;
    block.entry[0].fri.new_entry.ef_count_attr = after;
    return block;
}

uint16_t tbl_word_of(const std::string& path, uint64_t lpa) {
    return value_at<uint16_t>(path, (lpa / 252 + 2048) * 512 + lpa % 252 * 2);
}

uint64_t map_word_of(const std::string& path, uint64_t lea) {
    return value_at<uint64_t>(path, (lea / 63 + 2048) * 512 + lea % 63 * 8);
}

arguments::arguments(std::vector<std::string> words) : words_(std::move(words)) {
    words_.insert(words_.begin(), "tarn");
    for (std::string& word : words_) {
        pointers_.push_back(word.data());
    }
    pointers_.push_back(nullptr);
    optind = 0;
}
