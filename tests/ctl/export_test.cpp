// `tarnctl export`: the bytes are those that the model expects, on sound and crashed servers; holes
// stay holes; what is damaged is missing, and nothing else; the server stays as it is.
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

#include "ctl/support/everything.h"
#include "ctl/support/export_run.h"
#include "ctl/support/sealed.h"
#include "system/support/lab_sample.h"

namespace fs = std::filesystem;

static std::string text_of(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

class exports : public testing::Test {
protected:
    // Small enough to compare, large enough for several nodes.
    void make(unsigned seed, const std::string& more = " --extents 400") {
        sample_ = make_sample(place_, "s", seed, more);
    }
    [[nodiscard]] std::string file(const std::string& name) const { return place_.file(name); }
    [[nodiscard]] std::string map(const std::string& lun) const { return sample_ + "/" + lun; }
    [[nodiscard]] std::string model_of(const std::string& lun) const {
        write_model(sample_, lun, file("model"));
        return file("model");
    }
    // Exports every LUN, snapshot and trash map, which must be as the model says.
    void expect_all_right() const {
        const std::vector<std::string> luns = luns_of(sample_);
        EXPECT_GE(luns.size(), 6u);
        for (const std::string& lun : luns) {
            const check_run run = export_on(sample_, map(lun) + " --force --to " + file("x"));
            EXPECT_EQ(run.status, 0) << lun << run.err;
            EXPECT_EQ(run.err, "");
            EXPECT_EQ(difference(file("x"), model_of(lun)), "") << lun;
            EXPECT_TRUE(spans_in(file("x.map"), '-').empty());
            EXPECT_FALSE(fs::exists(file("x.part")));
        }
    }
    void expect_nothing_made() const {
        for (const char* name : {"x", "x.part", "x.map", "x.map.part"}) {
            EXPECT_FALSE(fs::exists(file(name))) << name;
        }
    }

    scratch_dir place_;
    std::string sample_;
};

TEST_F(exports, of_a_sound_server_are_what_the_model_says) {
    make(5);
    const auto before = everything(sample_);
    expect_all_right();
    EXPECT_EQ(everything(sample_), before);
}

// On the disk every map of this server is another one than after the replay.
TEST_F(exports, of_a_crashed_server_are_what_a_replay_will_make_of_it) {
    make(6, " --extents 400 --crash");
    ASSERT_EQ(tarn_lab("expect " + sample_).text, "recovers\n");
    const auto before = everything(sample_);
    expect_all_right();
    EXPECT_EQ(everything(sample_), before);
}

TEST_F(exports, keep_holes_and_say_how_many_bytes_are_data) {
    make(5);
    const check_run run = export_on(sample_, "LUN_1 --json --to " + file("x"));
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(schema_problem(run.out), "");
    const uint64_t on_disk = bytes_on_disk(file("x"));
    EXPECT_EQ(fs::file_size(file("x")), 400u << 20);
    EXPECT_GT(on_disk, 0u);
    EXPECT_LE(on_disk, bytes_on_disk(model_of("volume1:LUN_1")));
    EXPECT_NE(run.out.find("\"data\":\"" + std::to_string(on_disk) + "\""), std::string::npos)
        << on_disk << run.out;
    EXPECT_EQ(text_of(file("x.map")),
              "# Mapfile. Created by tarnctl 1.0.0\n"
              "# current_pos  current_status  current_pass\n"
              "0x00000000     +               1\n"
              "#      pos        size  status\n"
              "0x00000000  0x19000000  +\n");
    struct stat status = {};
    ASSERT_EQ(stat(file("x").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
}

TEST_F(exports, of_a_part_begin_at_its_offset) {
    make(5);
    const std::string model = model_of("volume1:LUN_1");
    const auto [offset, length] = std::pair<uint64_t, uint64_t>{123456789, 98765432};
    const check_run run =
        export_on(sample_, "LUN_1 --offset 123456789 --length 98765432 --to " + file("x"));
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(shell("tail -c +" + std::to_string(offset + 1) + " " + model + " | head -c " +
                    std::to_string(length) + " | cmp - " + file("x"))
                  .text,
              "");
    EXPECT_EQ(spans_in(file("x.map"), '+'), (std::vector<byte_span>{{0, length}}));
    EXPECT_EQ(export_on(sample_, "LUN_1 --offset 419430400 --to " + file("y")).status, 0);
    EXPECT_EQ(fs::file_size(file("y")), 0u);
    for (const char* past : {"--offset 419430401", "--offset 1 --length 419430400",
                             "--offset 1 --length 18446744073709551615"}) {
        EXPECT_EQ(export_on(sample_, "LUN_1 " + std::string(past) + " --to " + file("z")).status,
                  16);
        EXPECT_FALSE(fs::exists(file("z")));
    }
}

TEST_F(exports, to_standard_output_are_plain_bytes) {
    make(5, " --extents 40");
    const std::string command = "TARN_PLATFORM_CONF=" + sample_ +
                                "/platform.conf " TARN_CTL_PROGRAM " export LUN_1 --to - ";
    const std::string model = model_of("volume1:LUN_1");
    EXPECT_EQ(shell(command + "2>/dev/null | cmp - " + model).text, "");
    EXPECT_EQ(shell(command + "2>/dev/null >" + file("x") + "; echo $?").text, "0\n");
    EXPECT_EQ(difference(file("x"), model), "");
    for (const char* out : {">/dev/full", ">&-"}) {
        EXPECT_EQ(shell("( " + command + out + " 2>/dev/null )").status, 8) << out;
    }
    EXPECT_EQ(shell("( ( " + command + "2>/dev/null; echo $? >" + file("status") +
                    " ) | head -c 1 >/dev/null ); cat " + file("status"))
                  .text,
              "8\n");
    EXPECT_EQ(export_on(sample_, "LUN_1 --json --to -").status, 16);
}

// What a kind of damage does to an export of the map that it names first.
struct lost_nodes {
    const char* kind;
    unsigned seed;
};
class damaged_nodes : public exports, public testing::WithParamInterface<lost_nodes> {};

TEST_P(damaged_nodes, are_missing_and_every_other_byte_is_right) {
    make(5);
    const ran done = damage(sample_, GetParam().kind, GetParam().seed);
    ASSERT_EQ(done.status, 0) << done.text;
    const std::string lun = file_named_first(done.text);
    const uint64_t node = (number_after(done.text, "byte ") - 1048576) / 512;
    const byte_span lost = {node * 63 << 20, std::min<uint64_t>(63, 400 - node * 63) << 20};
    const std::string words = map(lun) + " --to " + file("x");
    const check_run refusal = export_on(sample_, words);
    EXPECT_EQ(refusal.status, 4) << done.text << refusal.out;
    EXPECT_NE(refusal.out.find("bytes " + std::to_string(lost.begin) + " to " +
                               std::to_string(lost.begin + lost.bytes - 1)),
              std::string::npos)
        << refusal.out;
    expect_nothing_made();
    const check_run run = export_on(sample_, words + " --json --missing zero");
    EXPECT_EQ(run.status, 4);
    EXPECT_EQ(schema_problem(run.out), "");
    EXPECT_EQ(spans_in(file("x.map"), '-'), (std::vector<byte_span>{lost})) << done.text;
    EXPECT_EQ(difference(file("x"), model_of(lun), {lost}), "") << done.text;
}

INSTANTIATE_TEST_SUITE_P(all, damaged_nodes,
                         testing::Values(lost_nodes{"map-node-bit", 3},
                                         lost_nodes{"map-node-bit", 4},
                                         lost_nodes{"three-entries", 2}),
                         [](const auto& one) { return "of_" + std::to_string(one.index); });

// The nodes in which two maps differ, if the first one has a checksum there.
static std::vector<uint64_t> changed_nodes(const std::string& one, const std::string& other) {
    std::vector<uint64_t> nodes;
    for (uint64_t node = 0; node < 400 / 63 + 1; node++) {
        if (file_bytes(one, 1048576 + node * 512, 504) !=
                file_bytes(other, 1048576 + node * 512, 504) &&
            file_bytes(one, 1048576 + node * 512 + 508, 4) != std::vector<uint8_t>(4)) {
            nodes.push_back(node);
        }
    }
    return nodes;
}

TEST_F(exports, list_everything_that_is_missing_before_they_copy) {
    make(5);
    const std::string lun = map("volume1/@iSCSITrg/LUN_1/LUN_1_Extent_0");
    for (const uint64_t node : {1, 4}) {
        const uint8_t byte = file_bytes(lun, 1048576 + node * 512, 1)[0] ^ 1;
        write_file_bytes(lun, 1048576 + node * 512, &byte, 1);
    }
    const check_run run = export_on(sample_, "LUN_1 --to " + file("x"));
    EXPECT_EQ(run.status, 4);
    EXPECT_NE(run.out.find("    bytes 66060288 to 132120575 (63 MiB at 63 MiB): a damaged node of "
                           "the map\n"
                           "    bytes 264241152 to 330301439 (63 MiB at 252 MiB): a damaged node "
                           "of the map\n"),
              std::string::npos)
        << run.out;
    expect_nothing_made();
}

// A replay gives a node that it writes to a right checksum, whatever else is wrong in it.
TEST_F(exports, miss_a_damaged_node_even_if_a_replay_would_write_over_the_damage) {
    make(6, " --extents 400 --crash");
    const std::string replayed = make_sample(place_, "r", 6, " --extents 400 --crash");
    ASSERT_EQ(tarn_on(replayed, "--startup-replay").status, 0);
    size_t tried = 0;
    for (const std::string& lun : luns_of(sample_)) {
        const std::vector<uint64_t> nodes = file_exists(replayed + "/" + lun)
                                                ? changed_nodes(map(lun), replayed + "/" + lun)
                                                : std::vector<uint64_t>();
        if (nodes.empty() || tried == 3) {
            continue;
        }
        tried++;
        const uint64_t reserved = 1048576 + nodes[0] * 512 + 505;
        const uint8_t flipped = file_bytes(map(lun), reserved, 1)[0] ^ 1;
        write_file_bytes(map(lun), reserved, &flipped, 1);
        EXPECT_EQ(export_on(sample_, map(lun) + " --to " + file("x")).status, 4) << lun;
        expect_nothing_made();
        EXPECT_EQ(export_on(sample_, map(lun) + " --force --missing zero --to " + file("x")).status,
                  4);
        const uint64_t begin = nodes[0] * 63 << 20;
        EXPECT_EQ(
            spans_in(file("x.map"), '-'),
            (std::vector<byte_span>{{begin, std::min<uint64_t>(63, 400 - nodes[0] * 63) << 20}}));
        fs::remove(file("x"));
        fs::remove(file("x.map"));
    }
    EXPECT_GT(tried, 0u);
}

TEST_F(exports, of_a_map_with_a_damaged_header_are_refused) {
    for (const char* kind : {"map-header-bit", "pool-table"}) {
        make(5);
        const ran done = damage(sample_, kind, 1);
        ASSERT_EQ(done.status, 0) << done.text;
        const std::string lun = map(file_named_first(done.text));
        for (const char* more : {"", " --missing zero"}) {
            const check_run run = export_on(sample_, lun + " --to " + file("x") + more);
            EXPECT_EQ(run.status, 4) << kind << run.out;
            EXPECT_NE(run.err.find("the header of " + lun + " is damaged"), std::string::npos)
                << run.err;
            expect_nothing_made();
        }
        fs::remove_all(sample_);
    }
}

// Entries that lead nowhere, and data files that are not there.
TEST_F(exports, never_take_what_cannot_be_found_for_zeros) {
    for (const char* kind : {"far-lpa", "pool-uuid", "foreign-pool-row", "map-truncated"}) {
        make(5);
        const ran done = damage(sample_, kind, 1);
        ASSERT_EQ(done.status, 0) << done.text;
        const std::string lun = file_named_first(done.text);
        EXPECT_EQ(export_on(sample_, map(lun) + " --to " + file("x")).status, 4) << done.text;
        expect_nothing_made();
        EXPECT_EQ(export_on(sample_, map(lun) + " --missing zero --to " + file("x")).status, 4);
        const std::vector<byte_span> lost = spans_in(file("x.map"), '-');
        EXPECT_FALSE(lost.empty());
        EXPECT_EQ(difference(file("x"), model_of(lun), lost), "") << done.text;
        fs::remove(file("x"));
        fs::remove(file("x.map"));
        fs::remove_all(sample_);
    }
}

TEST_F(exports, without_the_data_file_miss_every_mapped_extent) {
    make(5);
    const std::string lun = "volume1/@iSCSITrg/LUN_1/LUN_1_Extent_0";
    const std::string model = model_of(lun);
    fs::rename(sample_ + "/volume1/@EP/EP_DAT_00000", file("aside"));
    const check_run run = export_on(sample_, "LUN_1 --missing zero --quiet --to " + file("x"));
    EXPECT_EQ(run.status, 4);
    EXPECT_EQ(run.out, "Exported, with zeros where bytes are missing. Exit status 4.\n");
    uint64_t lost = 0;
    for (const byte_span& span : spans_in(file("x.map"), '-')) {
        lost += span.bytes;
    }
    uint64_t mapped = 0;
    for (uint64_t lea = 0; lea < 400; lea++) {
        uint64_t word = 0;
        memcpy(&word, file_bytes(map(lun), byte_of_lea(lea), 8).data(), 8);
        mapped += word >> 63;
    }
    EXPECT_EQ(lost, mapped << 20);
    EXPECT_GT(mapped, 0u);
    EXPECT_EQ(bytes_on_disk(file("x")), 0u);
}

// Never written, or cut: it reads as zeros, and the export says so.
TEST_F(exports, of_extents_past_the_end_of_the_data_file_are_zeros_and_say_so) {
    make(5);
    fs::resize_file(sample_ + "/volume1/@EP/EP_DAT_00000", 1048576);
    const check_run run = export_on(sample_, "LUN_1 --to " + file("x"));
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("past the end of their data file"), std::string::npos) << run.out;
    EXPECT_EQ(bytes_on_disk(file("x")), 0u);
}
