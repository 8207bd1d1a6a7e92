// Every whole-volume procedure over both roads, on random volumes, many of them damaged: the same
// lines on standard output and in the log, the same result, the same bytes in every file.
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

#include "fri/fri_entries.h"
#include "map/map_file.h"
#include "options.h"
#include "store/data_node.h"
#include "support/log_capture.h"
#include "support/roads.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "support/stdout_capture.h"
#include "tbl/tbl_file.h"
#include "tbl/tbl_ref_counts.h"
#include "tbl/tbl_show.h"
#include "volume/consistency.h"
#include "volume/finalize.h"
#include "volume/full_check.h"
#include "volume/import.h"
#include "volume/import_volume.h"
#include "volume/map_check.h"
#include "volume/reconstruct.h"
#include "volume/volume_paths.h"

static constexpr unsigned VOLUMES = 40;  // for each procedure, others for each
static constexpr uint64_t GROUPS = 3;    // that the random volumes use, and their blocks beyond

using randomness = std::mt19937_64;

static uint64_t below(randomness& random, uint64_t end) {
    return random() % end;
}

static bool one_in(randomness& random, uint64_t n) {
    return below(random, n) == 0;
}

// Bits beside the extent's number: rows that the pool table does not have, marks of a replay, and
// an extent that no table holds.
static void put_stray_bits(std::vector<sample_entry>* entries, randomness& random) {
    for (sample_entry& entry : *entries) {
        if (one_in(random, 40)) {
            entry.lpa |= below(random, 4096) << 48;
        }
        if (one_in(random, 40)) {
            entry.lpa |= below(random, 8) << 60;
        }
        if (one_in(random, 200)) {
            entry.lpa |= uint64_t{1} << 47;
        }
    }
}

// Nodes one behind the other with a wrong checksum, and a file that ends inside a node.
static void put_damage_into_nodes(const std::string& path, uint64_t nodes, randomness& random) {
    if (one_in(random, 8)) {
        for (uint64_t node = below(random, nodes); node < nodes && !one_in(random, 6); node++) {
            spoil_node(path, node);
        }
    }
    if (one_in(random, 10)) {
        std::filesystem::resize_file(
            path, data_node_offset(below(random, nodes)) + below(random, DATA_NODE_SIZE));
    }
}

// A map of random entries: runs and scattered ones, some extents shared.
static void put_map(const std::string& path, randomness& random) {
    const uint64_t total = 1 + below(random, 700);
    std::vector<sample_entry> entries;
    uint64_t lpa = below(random, GROUPS * TBL_GROUP_ENTRIES);
    for (uint64_t lea = 0; lea < total; lea++) {
        if (one_in(random, 9)) {
            lea += below(random, 200);
        }
        lpa = one_in(random, 5) ? below(random, GROUPS * TBL_GROUP_ENTRIES) : lpa + 1;
        if (lea < total) {
            entries.push_back({lea, lpa});
        }
    }
    if (one_in(random, 8)) {
        put_stray_bits(&entries, random);
    }
    uint64_t mapped = entries.size();
    if (one_in(random, 6)) {
        mapped += below(random, 5);
        mapped -= std::min<uint64_t>(mapped, below(random, 5));
    }
    make_filled_map(path, total, mapped, entries);
    while (one_in(random, 4)) {
        spoil_node(path, below(random, map_node_count(total)));
    }
    put_damage_into_nodes(path, map_node_count(total), random);
    if (one_in(random, 10)) {
        std::filesystem::resize_file(path,
                                     METADATA_DATA_OFFSET + below(random, 6 * DATA_NODE_SIZE));
    }
    if (one_in(random, 10)) {
        set_header_u64(path, 64, 76, below(random, 4) << below(random, 60));  // the total count
    }
}

static void put_noise_into_table(const std::string& path, randomness& random) {
    for (uint64_t i = below(random, 60); i > 0; i--) {
        set_tbl_word(path, below(random, GROUPS * TBL_GROUP_ENTRIES),
                     static_cast<uint16_t>(random()));
    }
    if (one_in(random, 3)) {  // a count that is about to overflow, or nearly a byte
        const uint16_t word = one_in(random, 2) ? 0x8FFF : 0x80FE;
        set_tbl_word(path, below(random, TBL_GROUP_ENTRIES), word);
    }
}

static void put_noise_into_index(const std::string& path, randomness& random) {
    for (uint64_t i = below(random, 6); i > 0; i--) {
        const uint64_t init = one_in(random, 2) ? uint64_t{FRI_INIT_BIT} << 48 : 0;
        const uint64_t group = one_in(random, 8) ? 70 + below(random, 200) : below(random, 6);
        set_fri_word(path, group, init | (random() >> below(random, 64) & ~(uint64_t{1} << 63)));
    }
    if (one_in(random, 2)) {
        set_header_u64(path, 64, 72, below(random, 300));  // the number of groups
    }
    set_header_u64(path, 4096, 4096 + 12, below(random, 6));  // the head of the list
}

static void put_volume(const std::string& root, uint64_t seed) {
    randomness random(seed);
    std::filesystem::remove_all(root);
    make_sample_volume(root, 0x11);
    make_directories(root + "/@EP_trash");
    make_directories(root + "/@Snapshot");
    make_fri(root + "/@EP/EP_FRI", uuid_of(0x11), FRI_NEW_FREE_COUNT);
    make_dat(root + "/@EP/EP_DAT_00000", 0x11, 0);
    put_map(root + "/@iSCSITrg/LUN_Extent_1", random);
    if (one_in(random, 2)) {
        put_map(root + "/@EP/EP_BUF", random);
    }
    if (one_in(random, 2)) {
        put_noise_into_table(root + "/@EP/EP_TBL", random);
        put_noise_into_index(root + "/@EP/EP_FRI", random);
    }
}

// The bytes of every file below `root`, holes passed over; creation times, and the checksums over
// them, left out.
static std::string contents_of(const std::string& root) {
    std::vector<std::string> paths;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        if (entry.is_regular_file()) {
            paths.push_back(entry.path().string());
        }
    }
    std::sort(paths.begin(), paths.end());
    std::string all;
    for (const std::string& path : paths) {
        all += path + "\n";
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        for (off_t at = lseek(fd, 0, SEEK_DATA); at >= 0; at = lseek(fd, at, SEEK_DATA)) {
            std::string bytes(4096, '\0');
            EXPECT_GE(pread(fd, bytes.data(), bytes.size(), at), 0);
            if (at == 0) {
                bytes.replace(0, 4, 4, '\0').replace(44, 4, 4, '\0');
            }
            if (bytes.find_first_not_of('\0') != std::string::npos) {
                all += std::to_string(at) + ":" + bytes;
            }
            at += 4096;
        }
        close(fd);
    }
    return all;
}

static uint64_t volume_seed;  // of the volume that a procedure runs on

struct outcome {
    int result;
    std::string output;
    std::vector<std::string> log;
    std::string contents;
};

static int check_loaded() {
    const int result = load_map(opt_ctx.mappath) != 0
                           ? -1
                           : do_check_map(opt_ctx.map_kind, opt_ctx.repair, opt_ctx.volpath);
    close_map();
    return result;
}

static int import_loaded() {
    int result = -1;
    if (load_fri(opt_ctx.fripath) == 0 && load_tbl(opt_ctx.tblpath) == 0 &&
        load_map(opt_ctx.mappath) == 0) {
        tbl_ref_counts* counts = tbl_ref_counts_open(tarn_fri_set_init_bit);
        result = import_map(opt_ctx.map_kind, opt_ctx.volpath, counts);
        EXPECT_EQ(finish_import(counts), 0);
    }
    close_map();
    close_tbl();
    close_fri();
    return result;
}

static int rebuild_for_repair() {
    return do_import_volume(FIX_DIR);
}

// Live files that a reconstruction left, and that are right where the maps are sound.
static void put_rebuilt_in_place() {
    const std::string root = opt_ctx.volpath;
    if (do_reconstruct_volume() == 0) {
        std::filesystem::rename(root + "/@EP_FIX/EP_TBL", root + "/@EP/EP_TBL");
        std::filesystem::rename(root + "/@EP_FIX/EP_FRI", root + "/@EP/EP_FRI");
    }
}

static int check_rebuilt() {
    put_rebuilt_in_place();
    return check_full_volume();
}

// One entry of the live table changed; where it is free before and after, nothing is wrong.
static int check_with_one_entry_changed() {
    const std::string table = opt_ctx.tblpath;
    put_rebuilt_in_place();
    randomness random(volume_seed);
    const uint64_t lpa = below(random, 5 * TBL_GROUP_ENTRIES);
    const auto flipped = static_cast<uint16_t>(1u << below(random, 16));
    set_tbl_word(table, lpa, static_cast<uint16_t>(tbl_word_of(table, lpa) ^ flipped));
    return check_full_volume();
}

// Lists of a rebuilt volume that run into used entries, loop, end early or end in a used tail, and
// groups whose next one lies outside the index. Every other volume stays as it was rebuilt.
static void damage_rebuilt_lists() {
    const option_record live = opt_ctx;  // a reconstruction turns the paths to its own files
    put_rebuilt_in_place();
    opt_ctx = live;
    randomness random(volume_seed);
    if (one_in(random, 2)) {
        return;
    }
    for (uint64_t i = 1 + below(random, 4); i > 0; i--) {
        const uint64_t lpa = below(random, GROUPS * TBL_GROUP_ENTRIES);
        const uint64_t next = below(random, TBL_GROUP_ENTRIES);
        const uint64_t marks =
            uint64_t{TBL_USED_BIT} * below(random, 2) | uint64_t{TBL_TAIL_BIT} * below(random, 2);
        set_tbl_word(opt_ctx.tblpath, lpa, static_cast<uint16_t>(next | marks));
    }
    if (one_in(random, 3)) {
        const uint64_t group = below(random, GROUPS);
        set_fri_word(opt_ctx.fripath, group,
                     fri_word_of(opt_ctx.fripath, group) ^ (1 + below(random, 7)) << 32);
    }
}

static int check_damaged_lists() {
    damage_rebuilt_lists();
    return check_freelist_consistent();
}

static int repair_damaged_lists() {
    damage_rebuilt_lists();
    return fix_fri_tbl_metadata_to_consistent();
}

static int list_groups() {
    int result = load_tbl(opt_ctx.tblpath);
    for (uint64_t group = 0; group < 5 && result == 0; group++) {
        (void)list_tbl_group_freelist(group, true, false);
    }
    close_tbl();
    return result;
}

static int list_damaged_groups() {
    damage_rebuilt_lists();
    return list_groups();
}

struct procedure {
    const char* name;
    int (*run)();
    int32_t kind;
    int32_t repair;
};
static const procedure procedures[] = {
    {"check", check_loaded, MAP_KIND_LUN, 0},
    {"check and repair", check_loaded, MAP_KIND_LUN, 1},
    {"check of an unmap buffer", check_loaded, MAP_KIND_UNMAP_BUFFER, 0},
    {"check and repair of an unmap buffer", check_loaded, MAP_KIND_UNMAP_BUFFER, 1},
    {"import", import_loaded, MAP_KIND_LUN, 0},
    {"import of an unmap buffer", import_loaded, MAP_KIND_UNMAP_BUFFER, 0},
    {"import of a volume", rebuild_for_repair, MAP_KIND_LUN, 0},
    {"import of a volume after repair", rebuild_for_repair, MAP_KIND_LUN, 1},
    {"finalize", finalize, MAP_KIND_LUN, 0},
    {"check of the free lists", check_freelist_consistent, MAP_KIND_LUN, 0},
    {"repair of the index", fix_fri_tbl_metadata_to_consistent, MAP_KIND_LUN, 0},
    {"full check", check_rebuilt, MAP_KIND_LUN, 0},
    {"full check after a change", check_with_one_entry_changed, MAP_KIND_LUN, 0},
    {"listing of the free lists", list_groups, MAP_KIND_LUN, 0},
    {"check of damaged free lists", check_damaged_lists, MAP_KIND_LUN, 0},
    {"repair of an index of damaged lists", repair_damaged_lists, MAP_KIND_LUN, 0},
    {"listing of damaged free lists", list_damaged_groups, MAP_KIND_LUN, 0},
    {"reconstruction", do_reconstruct_volume, MAP_KIND_LUN, 0},
};

static void set_options(const std::string& root, const procedure& procedure) {
    opt_ctx = {};
    snprintf(opt_ctx.volpath, PATH_TEXT_SIZE, "%s", root.c_str());
    snprintf(opt_ctx.tblpath, PATH_TEXT_SIZE, "%s/@EP/EP_TBL", root.c_str());
    snprintf(opt_ctx.fripath, PATH_TEXT_SIZE, "%s/@EP/EP_FRI", root.c_str());
    snprintf(opt_ctx.mappath, PATH_TEXT_SIZE, "%s/@iSCSITrg/LUN_Extent_1", root.c_str());
    opt_ctx.map_kind = procedure.kind;
    opt_ctx.repair = procedure.repair;
}

static outcome run_on(const std::string& root, uint64_t seed, const procedure& procedure) {
    volume_seed = seed;
    put_volume(root, seed);
    set_options(root, procedure);
    log_capture log;
    stdout_capture output;
    outcome all;
    all.result = procedure.run();
    all.output = output.text();
    all.log = log.lines();
    all.contents = contents_of(root);
    return all;
}

class both_roads : public testing::TestWithParam<size_t> {};

TEST_P(both_roads, give_the_same_lines_results_and_bytes) {
    const sample_volumes volumes;
    const std::string root = volumes.volume(1);
    const procedure& procedure = procedures[GetParam()];
    unsigned good = 0;
    const uint64_t first = GetParam() * VOLUMES;
    for (uint64_t seed = first; seed < first + VOLUMES; seed++) {
        const outcome by_runs = run_on(root, seed, procedure);
        const entry_road_scope road;
        const outcome by_entries = run_on(root, seed, procedure);
        ASSERT_EQ(by_runs.result, by_entries.result) << procedure.name << ", volume " << seed;
        ASSERT_EQ(by_runs.output, by_entries.output) << procedure.name << ", volume " << seed;
        ASSERT_EQ(by_runs.log, by_entries.log) << procedure.name << ", volume " << seed;
        ASSERT_TRUE(by_runs.contents == by_entries.contents)
            << procedure.name << ", volume " << seed << ": the files differ";
        good += by_runs.result == 0 ? 1 : 0;
    }
    EXPECT_GT(good, VOLUMES / 8);  // the volumes are not all too damaged to say anything
}

INSTANTIATE_TEST_SUITE_P(over, both_roads,
                         testing::Range(size_t{0}, sizeof procedures / sizeof procedures[0]));
