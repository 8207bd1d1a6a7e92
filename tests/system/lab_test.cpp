#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <regex>
#include <set>

#include "system/support/sandbox.h"
#include "system/support/shell.h"

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

TEST(lab, a_clean_sample_is_as_expected) {
    const sandbox box;
    EXPECT_EQ(make(box, "s", {"--seed", "5"}).status, 0);
    const run_result result = verify(box, "s");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "/scratch/s: every file is as expected.\n");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(lab(box, {"expect", "/scratch/s"}).out, "recovers\n");
}

TEST(lab, one_changed_bit_is_reported_wherever_it_is) {
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
        {"volume1/@EP/EP_TBL", uint64_t{1} << 40, ": byte 1099511627776: expected 0, found 1"},
        {"volume1/@EP/EP_TBL", 68, ": header byte 68: expected "},
        {"volume2/@EP/EP_FRI", ENTRIES + 8, ": group 1: expected init "},
        {"volume2/@EP/EP_FRI", 4100, ": free count: expected "},
        {"volume2/@EP/EP_FRI", 4108, ": group head: expected "},
        {"volume2/@EP/EP_BUF", 4100, ": mapped count: expected "},
        {"volume2/@EP/EP_ROD", ENTRIES + 512, ": lea 63: expected mapped "},
        {"volume2/@EP/EP_ROD", 8192, ": byte 8192: expected "},
        {"volume2/@EP/EP_ROD", 3000, ": byte 3000: expected 0, found 1"},
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

TEST(lab, a_missing_file_and_a_wrong_size_are_reported) {
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

TEST(lab, invalid_arguments_are_reported_in_one_line_followed_by_a_hint) {
    const sandbox box;
    const struct {
        std::vector<std::string> words;
        const char* named;
    } rows[] = {
        {{}, "a command is missing"},
        {{"mend", "/scratch/s"}, "no such command: mend"},
        {{"make"}, "a directory is missing"},
        {{"make", "/scratch/s", "/scratch/t"}, "unexpected argument: /scratch/t"},
        {{"make", "/scratch/s", "--seed"}, "a number is missing after --seed"},
        {{"make", "/scratch/s", "--seed", "1x"}, "not a decimal number: 1x"},
        {{"make", "/scratch/s", "--seed=18446744073709551616"},
         "out of range: seed 18446744073709551616"},
        {{"make", "/scratch/s", "--volumes", "0"}, "out of range: volumes 0"},
        {{"make", "/scratch/s", "--refused"}, "no such option here: --refused"},
        {{"verify", "/scratch/s", "--crash"}, "no such option here: --crash"},
        {{"verify", "/scratch/s", "--unfinalized"}, "no such option here: --unfinalized"},
        {{"verify", "/scratch/s", "--refused", "--rebuilt"}, "not both: --refused and --rebuilt"},
        {{"verify", "/scratch/s", "--rebuilt", "--refused"}, "not both: --refused and --rebuilt"},
        {{"expect", "/scratch/s", "--rebuilt"}, "no such option here: --rebuilt"},
        {{"damage", "/scratch/s"}, "a kind of damage is missing"},
        {{"damage", "/scratch/s", "list-lop"}, "no such kind of damage: list-lop"},
        {{"damage", "/scratch/s", "list-loop", "--luns", "3"}, "no such option here: --luns"},
        {{"image", "/scratch/s"}, "a LUN is missing"},
        {{"image", "/scratch/s", "volume1:LUN_0"}, "a file is missing"},
        {{"image", "/scratch/s", "volume1:LUN_0", "/scratch/i", "x"}, "unexpected argument: x"},
        {{"age", "/scratch/s", "--transactions", "0"}, "out of range: transactions 0"},
        {{"run", "/scratch/s", "--clean"}, "no such option here: --clean"},
        {{"maps", "/scratch/s", "volume1"}, "unexpected argument: volume1"},
        {{"maps", "/scratch/s", "--seed", "1"}, "no such option here: --seed"},
        {{"make", "/scratch/s", "--data", "1001"}, "out of range: data 1001"},
        {{"run", "/scratch/s", "list-loop"}, "unexpected argument: list-loop"},
        {{"run", "/scratch/s", "--seconds", "0"}, "out of range: seconds 0"},
        {{"run", "/scratch/s", "--volume", "1"}, "no such option here: --volume"},
    };
    for (const auto& row : rows) {
        const run_result result = lab(box, row.words);
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, std::string("tarn-lab: ") + row.named + "\ntry 'tarn-lab --help'\n");
    }
    EXPECT_FALSE(file_exists(box.scratch() + "/s"));
}

TEST(lab, help_is_printed_on_standard_output) {
    const sandbox box;
    const run_result help = lab(box, {"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.err, "");
    for (const char* part : {"tarn-lab make DIR ", "tarn-lab expect DIR\n", "tarn-lab verify DIR ",
                             "tarn-lab damage DIR KIND ", "tarn-lab run DIR ",
                             "tarn-lab image DIR LUN FILE\n", "tarn-lab maps DIR\n", "--data",
                             "tarn-lab age DIR ", "--unfinalized", "\nKinds of damage:\n"}) {
        EXPECT_NE(help.out.find(part), std::string::npos) << part;
    }
    for (const char* command :
         {"make", "expect", "verify", "damage", "run", "age", "image", "maps", "--help"}) {
        EXPECT_EQ(lab(box, {command, "--help", "one", "two", "three"}).out, help.out);
    }
}

static std::string text_of(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

// The words at the beginning of a line that `word` matches, ascending.
static std::set<std::string> first_words(const std::string& text, const std::regex& word) {
    std::set<std::string> found;
    for (std::sregex_iterator at(text.begin(), text.end(), word); at != std::sregex_iterator();
         ++at) {
        found.insert((*at)[1]);
    }
    return found;
}

// The table's first column may name several kinds.
static std::set<std::string> documented_kinds() {
    const std::string text = text_of(TARN_DOCS "/lab.md");
    const size_t start = text.find("\n| kind | what is wrong afterwards |");
    EXPECT_NE(start, std::string::npos);
    const std::string table = text.substr(start, text.find("\n\n", start) - start);
    std::set<std::string> kinds;
    for (const std::string& cell : first_words(table, std::regex("\n\\| (`[^|]*`) \\|"))) {
        kinds.merge(first_words(cell, std::regex("`([a-z-]+)`")));
    }
    return kinds;
}

TEST(lab, help_and_documentation_name_the_same_kinds_of_damage) {
    const sandbox box;
    const std::string help = lab(box, {"--help"}).out;
    const std::string kinds = help.substr(help.find("\nKinds of damage:\n") + 17);
    const std::set<std::string> listed = first_words(kinds, std::regex("\n  ([a-z-]+) "));
    EXPECT_EQ(listed.size(), 42u);
    EXPECT_EQ(listed, documented_kinds());
}

TEST(lab, prints_the_version_of_the_project) {
    const std::string project = text_of(TARN_DOCS "/../CMakeLists.txt");
    std::smatch version;
    ASSERT_TRUE(std::regex_search(project, version, std::regex("project\\(tarn VERSION (\\S+) ")));
    const sandbox box;
    const run_result result = lab(box, {"--version"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "tarn-lab " + version[1].str() + "\n");
    EXPECT_EQ(result.err, "");
}

TEST(lab, output_that_cannot_be_written_is_a_failure) {
    EXPECT_EQ(shell(std::string(TARN_LAB_PROGRAM) + " --help >/dev/full").status, 1);
}

TEST(lab, a_journal_that_was_set_aside_is_no_difference_after_a_rebuild) {
    for (const char* crash : {"--crash", "--seed=5"}) {
        const sandbox box;
        EXPECT_EQ(make(box, "s", {"--seed=5", "--transactions=0", crash}).status, 0);
        const std::string journal = box.scratch() + "/s/journal/EP_JNL";
        fs::rename(journal, journal + ".aside");
        EXPECT_EQ(lab(box, {"verify", "/scratch/s", "--rebuilt"}).status, 0);
        fs::remove(journal + ".aside");
        EXPECT_EQ(lab(box, {"verify", "/scratch/s", "--rebuilt"}).status, 0);
        EXPECT_EQ(lab(box, {"verify", "/scratch/s", "--refused"}).out,
                  "journal/EP_JNL: cannot be opened: No such file or directory\n");
    }
}

TEST(lab, a_directory_that_is_not_empty_is_left_alone) {
    const sandbox box;
    fs::create_directories(box.scratch() + "/s/precious");
    const run_result result = make(box, "s", {});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "tarn-lab: /scratch/s: is not empty\n");
    EXPECT_FALSE(file_exists(box.scratch() + "/s/lab.conf"));
}
