#include "support/random_volume.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <unistd.h>
#include <vector>

#include "store/data_node.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"

uint64_t below(randomness& random, uint64_t end) {
    return random() % end;
}

bool one_in(randomness& random, uint64_t n) {
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

// Consecutive nodes with a wrong checksum, and a file that ends inside a node.
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
    uint64_t lpa = below(random, RANDOM_GROUPS * TBL_GROUP_ENTRIES);
    for (uint64_t lea = 0; lea < total; lea++) {
        if (one_in(random, 9)) {
            lea += below(random, 200);
        }
        lpa = one_in(random, 5) ? below(random, RANDOM_GROUPS * TBL_GROUP_ENTRIES) : lpa + 1;
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
        set_tbl_word(path, below(random, RANDOM_GROUPS * TBL_GROUP_ENTRIES),
                     static_cast<uint16_t>(random()));
    }
    if (one_in(random, 3)) {  // a count near its largest value, or near that of a byte
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

void put_random_volume(const std::string& root, uint64_t seed) {
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

std::string contents_of(const std::string& root) {
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
