// What tarn-lab says of the data of a sample: the data files, the image of a LUN, the list of maps.
#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "support/scratch_file.h"
#include "system/support/lab_sample.h"
#include "system/support/tree.h"

static constexpr uint64_t EXTENT = 1048576;  // also the length of a metadata file's header
static constexpr uint64_t BLOCK = 512;
static constexpr uint64_t LEAS = 150;
static const char* const SMALL = " --volumes 2 --luns 2 --extents 150 --data 880";

static std::string data_file(const std::string& sample) {
    return sample + "/volume1/@EP/EP_DAT_00000";
}

static uint64_t number_at(const std::string& file, uint64_t offset) {
    uint64_t number = 0;
    memcpy(&number, file_bytes(file, offset, sizeof number).data(), sizeof number);
    return number;
}

// The entry words of any map, 63 in a node.
static std::vector<uint64_t> words_of(const std::string& map) {
    std::vector<uint64_t> words(number_at(map, 76));
    for (uint64_t lea = 0; lea < words.size(); lea++) {
        words[lea] = number_at(map, EXTENT + lea / 63 * 512 + lea % 63 * 8);
    }
    return words;
}

static bool is_mapped(uint64_t word) {
    return word >> 63 != 0;
}

static uint64_t lpa_of(uint64_t word) {
    return word & 0xFFFFFFFFFFFF;
}

static bool is_used(const std::string& sample, uint64_t lpa) {
    const std::string table = sample + "/volume1/@EP/EP_TBL";
    return (file_bytes(table, EXTENT + lpa / 252 * 512 + lpa % 252 * 2 + 1, 1)[0] & 0x80) != 0;
}

static std::vector<uint8_t> extent_of(const std::string& sample, uint64_t lpa) {
    return file_bytes(data_file(sample), EXTENT + lpa * EXTENT, EXTENT);
}

// The numbers of the blocks of an extent that are not zero.
static std::vector<uint64_t> data_blocks(const std::vector<uint8_t>& extent) {
    static const std::vector<uint8_t> zeros(BLOCK, 0);
    std::vector<uint64_t> blocks;
    for (uint64_t block = 0; block < extent.size() / BLOCK; block++) {
        if (memcmp(&extent[block * BLOCK], zeros.data(), BLOCK) != 0) {
            blocks.push_back(block);
        }
    }
    return blocks;
}

// The first extent after the four noisy ones that is used or free, and holds data or does not. In a
// free one without data nothing was ever in use.
static uint64_t find_extent(const std::string& sample, bool used, bool data) {
    for (uint64_t lpa = 4; lpa < 1000; lpa++) {
        if (is_used(sample, lpa) == used && data_blocks(extent_of(sample, lpa)).empty() != data) {
            return lpa;
        }
    }
    ADD_FAILURE() << "no such extent";
    return 4;
}

static void punch(const std::string& sample, uint64_t lpa) {
    const int fd = open(data_file(sample).c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                        static_cast<off_t>(EXTENT + lpa * EXTENT), EXTENT),
              0);
    close(fd);
}

static ran verify(const std::string& sample) {
    return tarn_lab("verify " + sample);
}

// The data file's bytes, at the byte that `verify` names.
static std::string difference_at(uint64_t byte) {
    return "volume1/@EP/EP_DAT_00000: byte " + std::to_string(byte) + ": expected ";
}

TEST(lab_data, a_mapped_extent_must_hold_its_data) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s", 5, SMALL);
    const uint64_t lpa = find_extent(sample, true, true);
    const std::vector<uint8_t> data = extent_of(sample, lpa);
    const uint64_t last = EXTENT + lpa * EXTENT + data_blocks(data).back() * BLOCK + BLOCK - 1;
    const uint8_t was = file_bytes(data_file(sample), last, 1)[0];
    const uint8_t wrong = was ^ 1;
    write_file_bytes(data_file(sample), last, &wrong, 1);
    EXPECT_EQ(verify(sample).text.find(difference_at(last)), 0u);
    write_file_bytes(data_file(sample), last, &was, 1);
    EXPECT_EQ(verify(sample).status, 0);
    punch(sample, lpa);
    const ran result = verify(sample);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.text.find("volume1/@EP/EP_DAT_00000: byte "), 0u) << result.text;
}

TEST(lab_data, a_mapped_extent_that_was_never_written_must_read_as_zeros) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s", 5, SMALL);
    const uint64_t byte = EXTENT + find_extent(sample, true, false) * EXTENT + 777;
    const uint8_t wrong = 9;
    write_file_bytes(data_file(sample), byte, &wrong, 1);
    EXPECT_EQ(verify(sample).text, difference_at(byte) + "0, found 9\n");
}

TEST(lab_data, a_free_extent_holds_its_old_data_or_zeros) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s", 5, SMALL);
    const uint64_t lpa = find_extent(sample, false, true);
    const uint64_t first = EXTENT + lpa * EXTENT + data_blocks(extent_of(sample, lpa))[0] * BLOCK;
    const uint8_t wrong = file_bytes(data_file(sample), first, 1)[0] ^ 1;
    punch(sample, lpa);
    EXPECT_EQ(verify(sample).status, 0);
    write_file_bytes(data_file(sample), first, &wrong, 1);
    EXPECT_EQ(verify(sample).text.find(difference_at(first)), 0u);
}

TEST(lab_data, the_data_of_an_extent_do_not_depend_on_what_happened) {
    const scratch_dir place;
    const std::string young = make_sample(place, "y", 5, std::string(SMALL) + " --transactions 0");
    const std::string old = make_sample(place, "o", 5, std::string(SMALL) + " --transactions 300");
    std::map<uint64_t, unsigned> blocks;  // of an extent: how often it holds data
    unsigned in_both = 0;
    unsigned holes = 0;
    std::set<std::vector<uint8_t>> contents;
    for (uint64_t lpa = 4; lpa < 260; lpa++) {
        const std::vector<uint8_t> data = extent_of(old, lpa);
        const std::vector<uint64_t> found = data_blocks(data);
        holes += found.empty() && is_used(old, lpa) ? 1 : 0;
        EXPECT_LE(found.size(), 3u);
        for (const uint64_t block : found) {
            blocks[block]++;
        }
        if (is_used(young, lpa) && !found.empty()) {
            EXPECT_EQ(extent_of(young, lpa), data) << lpa;
            const auto start = data.begin() + static_cast<std::ptrdiff_t>(found[0] * BLOCK);
            EXPECT_TRUE(contents.insert({start, start + BLOCK}).second) << lpa;
            in_both++;
        }
    }
    EXPECT_GT(in_both, 80u);
    EXPECT_GT(holes, 10u);
    EXPECT_GT(blocks[0], 10u);
    EXPECT_GT(blocks[EXTENT / BLOCK - 1], 10u);
    EXPECT_GT(blocks.size(), 100u);
}

// The image's bytes by the map and the data file on the disk.
static void expect_image(const std::string& sample, const std::string& map,
                         const std::string& image) {
    const std::vector<uint64_t> words = words_of(sample + "/" + map);
    struct stat status = {};
    ASSERT_EQ(stat(image.c_str(), &status), 0);
    EXPECT_EQ(static_cast<uint64_t>(status.st_size), words.size() * EXTENT);
    EXPECT_LT(static_cast<uint64_t>(status.st_blocks) * BLOCK, words.size() * 4 * 4096);
    unsigned with_data = 0;
    for (uint64_t lea = 0; lea < words.size(); lea++) {
        const std::vector<uint8_t> found = file_bytes(image, lea * EXTENT, EXTENT);
        const std::vector<uint8_t> expected = is_mapped(words[lea])
                                                  ? extent_of(sample, lpa_of(words[lea]))
                                                  : std::vector<uint8_t>(EXTENT, 0);
        EXPECT_TRUE(found == expected) << map << " lea " << lea;
        with_data += data_blocks(found).empty() ? 0 : 1;
    }
    EXPECT_GT(with_data, 10u) << map;
}

TEST(lab_data, the_image_of_a_lun_has_the_data_of_its_mapped_extents) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s", 2, SMALL);
    const std::string path = "volume1/@iSCSITrg/LUN_1/LUN_1_Extent_0";
    const std::string image = place.file("image");
    EXPECT_EQ(tarn_lab("image " + sample + " " + path + " " + image).text, "");
    expect_image(sample, path, image);
    EXPECT_EQ(words_of(sample + "/" + path).size(), LEAS);
    const auto once = tree_of(place.path()).at("image");

    const ran again = tarn_lab("image " + sample + " " + path + " " + image);
    EXPECT_EQ(again.status, 1);
    EXPECT_EQ(again.text, "tarn-lab: " + image + ": File exists\n");
    ASSERT_EQ(unlink(image.c_str()), 0);
    ASSERT_EQ(shell("rm -r " + sample + "/volume1 " + sample + "/volume2").status, 0);
    EXPECT_EQ(tarn_lab("image " + sample + " volume1:LUN_1 " + image).status, 0);
    EXPECT_EQ(tree_of(place.path()).at("image"), once);
    const ran none = tarn_lab("image " + sample + " volume1:LUN_9 " + place.file("none"));
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.text, "tarn-lab: volume1:LUN_9: the sample has no such map\n");
    EXPECT_FALSE(file_exists(place.file("none")));
}

TEST(lab_data, images_and_verify_know_a_sample_that_was_recovered_and_one_that_ran) {
    const scratch_dir place;
    const std::string few = " --volumes 1 --luns 2 --extents 150 --data 300";  // the disk syncs
    const std::string crashed = make_sample(place, "c", 4, few + " --crash");
    const std::string running = make_sample(place, "r", 4, few);
    ASSERT_EQ(tarn_lab("run " + running + " --seconds 1 --rate 300").status, 0);
    for (const std::string& sample : {crashed, running}) {
        ASSERT_EQ(tarn_on(sample, "--startup-replay").status, 0);
        EXPECT_EQ(verify(sample).text, sample + ": every file is as expected.\n");
        const std::string image = sample + ".image";
        ASSERT_EQ(tarn_lab("image " + sample + " volume1:LUN_0 " + image).status, 0);
        expect_image(sample, "volume1/@iSCSITrg/LUN_0/LUN_0_Extent_0", image);
    }
}

struct listed_map {
    std::string volume, path, kind, uuid;
    uint64_t total, mapped, exclusive, shared;
};

static std::vector<listed_map> listed_maps(const std::string& text) {
    std::vector<listed_map> maps;
    std::istringstream lines(text);
    listed_map map = {};
    while (lines >> map.volume >> map.path >> map.kind >> map.uuid >> map.total >> map.mapped >>
           map.exclusive >> map.shared) {
        maps.push_back(map);
    }
    return maps;
}

// Where a map of each kind lies.
static const std::map<std::string, std::string> DIRECTORIES = {{"lun", "@iSCSITrg/"},
                                                               {"snapshot", "@Snapshot/"},
                                                               {"trash", "@EP_trash/"},
                                                               {"buffer", "@EP/EP_BUF"},
                                                               {"copy", "@EP/EP_ROD"}};

TEST(lab_data, maps_lists_what_the_map_files_hold) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s", 3, SMALL);
    std::map<std::string, std::set<std::string>> holders;  // by volume and lpa: paths of maps
    const std::vector<listed_map> maps = listed_maps(tarn_lab("maps " + sample).text);
    for (const listed_map& map : maps) {
        for (const uint64_t word : words_of(sample + "/" + map.path)) {
            if (is_mapped(word)) {
                holders[map.volume + " " + std::to_string(lpa_of(word))].insert(map.path);
            }
        }
    }
    std::map<std::string, unsigned> kinds;
    uint64_t shared_in_all = 0;
    for (const listed_map& map : maps) {
        uint64_t exclusive = 0;
        uint64_t shared = 0;
        for (const auto& [extent, paths] : holders) {
            const bool own = extent.find(map.volume + " ") == 0 && paths.count(map.path) == 1;
            exclusive += own && paths.size() == 1 ? 1 : 0;
            shared += own && paths.size() > 1 ? 1 : 0;
        }
        const std::string file = sample + "/" + map.path;
        EXPECT_EQ(map.exclusive, exclusive) << map.path;
        EXPECT_EQ(map.shared, shared) << map.path;
        EXPECT_EQ(map.mapped, number_at(file, 4100)) << map.path;
        EXPECT_EQ(map.total, number_at(file, 76)) << map.path;
        EXPECT_EQ(map.path.find(map.volume + "/" + DIRECTORIES.at(map.kind)), 0u) << map.path;
        EXPECT_EQ(map.uuid, uuid_digits_in(file)) << map.path;
        kinds[map.kind]++;
        shared_in_all += shared;
    }
    EXPECT_EQ(kinds["lun"], 4u);
    EXPECT_EQ(kinds["buffer"], 2u);
    EXPECT_EQ(kinds["copy"], 2u);
    EXPECT_GT(kinds["snapshot"], 1u);
    EXPECT_GT(shared_in_all, 20u);
}
