#include <filesystem>
#include <gtest/gtest.h>

#include "system/support/sandbox.h"

namespace fs = std::filesystem;

static run_result lab(const sandbox& box, const std::vector<std::string>& words) {
    return box.run_program(TARN_LAB_PROGRAM, words, {});
}

static run_result make(const sandbox& box, const std::string& name,
                       const std::vector<std::string>& more) {
    std::vector<std::string> words = {"make", "/scratch/" + name};
    words.insert(words.end(), more.begin(), more.end());
    return lab(box, words);
}

static run_result verify(const sandbox& box, const std::string& name) {
    return lab(box, {"verify", "/scratch/" + name});
}

static void flip_a_bit(const std::string& path, uint64_t offset) {
    uint8_t byte = file_bytes(path, offset, 1)[0];
    byte ^= 1;
    write_file_bytes(path, offset, &byte, 1);
}

TEST(lab, a_clean_sample_holds_what_it_ought_to_hold) {
    const sandbox box;
    EXPECT_EQ(make(box, "s", {"--seed", "5"}).status, 0);
    const run_result result = verify(box, "s");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "/scratch/s: every file holds what it ought to hold.\n");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(lab(box, {"expect", "/scratch/s"}).out, "recovers\n");
}

TEST(lab, one_changed_bit_is_named_wherever_it_lies) {
    constexpr uint64_t ENTRIES = 1048576;
    const struct {
        const char* file;
        uint64_t offset;
        const char* named;
    } rows[] = {
        {"volume1/@EP/EP_TBL", ENTRIES, ": lpa 0: expected used "},
        {"volume1/@EP/EP_TBL", ENTRIES + 512 + 2 * 3, ": lpa 255: expected used "},
        {"volume1/@EP/EP_TBL", ENTRIES + 505, ": block 0, bytes 504 to 507: expected "},
        {"volume1/@EP/EP_TBL", ENTRIES + 508, ": block 0, checksum: expected "},
        {"volume1/@EP/EP_TBL", uint64_t{1} << 40, ": byte 1099511627776: expected nothing"},
        {"volume1/@EP/EP_TBL", 68, ": header byte 68: expected "},
        {"volume2/@EP/EP_FRI", ENTRIES + 8, ": group 1: expected init "},
        {"volume2/@EP/EP_FRI", 4100, ": free count: expected "},
        {"volume2/@EP/EP_FRI", 4108, ": group head: expected "},
        {"volume2/@EP/EP_BUF", 4100, ": mapped count: expected "},
        {"volume2/@EP/EP_ROD", ENTRIES + 512, ": lea 63: expected mapped "},
        {"volume2/@EP/EP_ROD", 8192, ": byte 8192: expected "},
        {"volume2/@EP/EP_ROD", 3000, ": byte 3000: expected nothing, found 1"},
        {"volume1/@EP/EP_DAT_00000", ENTRIES, ": byte 1048576: expected "},
        {"volume1/@iSCSITrg/LUN_extent_0", 99, ": byte 99: expected "},
        {"journal/EP_JNL", ENTRIES + 40, ": byte 1048616: expected "},
        {"journal/EP_JNL", 4100, ": status: expected 626137108, found 626137109"},
    };
    const sandbox box;
    EXPECT_EQ(make(box, "s", {"--seed", "5"}).status, 0);
    for (const auto& row : rows) {
        const std::string path = box.scratch() + "/s/" + row.file;
        flip_a_bit(path, row.offset);
        const run_result result = verify(box, "s");
        EXPECT_EQ(result.status, 1) << row.file << row.offset;
        EXPECT_EQ(result.out.substr(0, result.out.find(row.named)), row.file) << result.out;
        flip_a_bit(path, row.offset);
    }
}

TEST(lab, a_missing_file_and_a_wrong_size_are_named) {
    const sandbox box;
    EXPECT_EQ(make(box, "s", {"--seed", "5"}).status, 0);
    fs::resize_file(box.scratch() + "/s/volume1/@EP/EP_FRI", 4096);
    EXPECT_EQ(verify(box, "s").out, "volume1/@EP/EP_FRI: size: expected 4296015872, found 4096\n");
    fs::remove(box.scratch() + "/s/volume1/@EP/EP_FRI");
    EXPECT_EQ(verify(box, "s").out,
              "volume1/@EP/EP_FRI: cannot be opened: No such file or directory\n");
}

TEST(lab, a_clean_sample_keeps_its_journal) {
    const sandbox box;
    EXPECT_EQ(make(box, "s", {}).status, 0);
    fs::remove(box.scratch() + "/s/journal/EP_JNL");
    EXPECT_EQ(verify(box, "s").out,
              "journal/EP_JNL: cannot be opened: No such file or directory\n");
}

TEST(lab, most_crashes_leave_a_difference) {
    const sandbox box;
    int different = 0;
    for (int seed = 1; seed <= 20; seed++) {
        const std::string name = std::to_string(seed);
        EXPECT_EQ(make(box, name, {"--seed", name, "--crash"}).status, 0);
        different += verify(box, name).status == 1 ? 1 : 0;
    }
    EXPECT_GE(different, 12);
}

TEST(lab, words_that_make_no_sense_are_usage_errors) {
    const sandbox box;
    const std::vector<std::vector<std::string>> wrong = {
        {},
        {"mend", "/scratch/s"},
        {"make"},
        {"make", "/scratch/s", "/scratch/t"},
        {"make", "/scratch/s", "--seed"},
        {"make", "/scratch/s", "--seed", "1x"},
        {"make", "/scratch/s", "--seed=18446744073709551616"},
        {"make", "/scratch/s", "--volumes", "0"},
        {"make", "/scratch/s", "--refused"},
        {"verify", "/scratch/s", "--crash"},
        {"verify", "/scratch/s", "--refused", "--rebuilt"},
        {"verify", "/scratch/s", "--rebuilt", "--refused"},
        {"damage", "/scratch/s"},
        {"damage", "/scratch/s", "list-loop", "--luns", "3"},
    };
    for (const auto& words : wrong) {
        const run_result result = lab(box, words);
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.out, "");
        EXPECT_NE(result.err.find("tarn-lab make DIR"), std::string::npos);
    }
    EXPECT_FALSE(file_exists(box.scratch() + "/s"));
}

TEST(lab, a_directory_that_holds_something_is_left_alone) {
    const sandbox box;
    fs::create_directories(box.scratch() + "/s/precious");
    const run_result result = make(box, "s", {});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "tarn-lab: /scratch/s: is not empty\n");
    EXPECT_FALSE(file_exists(box.scratch() + "/s/lab.conf"));
}
