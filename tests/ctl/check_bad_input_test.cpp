// `tarnctl check` on what is no metadata file: something else in a file's place, a file that was
// cut or may not be read, headers and entries with impossible numbers, names that nobody can print,
// missing volumes and configurations, and an output that cannot be written. It says what it could
// not look at, and never dies, waits or writes.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <unistd.h>

#include "ctl/support/check_run.h"
#include "ctl/support/sealed.h"
#include "system/support/lab_sample.h"
#include "system/support/test_name.h"

namespace fs = std::filesystem;

static constexpr const char* LUN = "volume1/@iSCSITrg/LUN_0/LUN_0_Extent_0";
static constexpr const char* TABLE = "volume1/@EP/EP_TBL";
static constexpr const char* INDEX = "volume1/@EP/EP_FRI";
static constexpr const char* COPY_MAP = "volume1/@EP/EP_ROD";
static constexpr const char* BUFFER = "volume1/@EP/EP_BUF";
static constexpr const char* DATA = "volume1/@EP/EP_DAT_00000";
static constexpr const char* JOURNAL = "journal/EP_JNL";

// Names, kinds, sizes and times of everything below; no file is opened.
static std::string listing_of(const std::string& root) {
    return shell("find " + root + " -printf '%P %y %s %T@ %C@ %l\n' | sort").text;
}

class bad_input : public testing::Test {
protected:
    bad_input() : sample_(make_sample(place_, "s", 5, " --extents 500")) {}

    [[nodiscard]] std::string file(const std::string& below) const { return sample_ + "/" + below; }
    // The check, which must end by itself and leave everything as it is.
    [[nodiscard]] check_run check(const std::string& more = "") const {
        const std::string before = listing_of(sample_);
        check_run run = check_sample(sample_, more);
        EXPECT_TRUE(is_verdict(run.status)) << run.status << run.err;
        EXPECT_EQ(listing_of(sample_), before);
        return run;
    }
    void run_shell(const std::string& command) const {
        const ran done = shell(command);
        EXPECT_EQ(done.status, 0) << command << ": " << done.text;
    }

    scratch_dir place_;
    std::string sample_;
};

// In a file's place.
struct replacement {
    const char* name;
    const char* command;  // $F: the file; $A: a name outside of the server
};
static constexpr replacement replacements[] = {
    {"a_directory", "mv $F $A; mkdir $F"},
    {"a_fifo", "mv $F $A; mkfifo $F"},
    {"a_link_that_leads_out", "mv $F $A; ln -s $A $F"},
    {"a_link_to_nothing", "mv $F $A; ln -s /nothing/here $F"},
    {"a_link_to_itself", "mv $F $A; ln -s $F $F"},
};

class bad_places : public bad_input, public testing::WithParamInterface<replacement> {};

// A shell without the configuration: nothing was looked at, so nothing is clean.
TEST(no_volumes, is_incomplete_and_no_inventory_is_written) {
    const scratch_dir place;
    const std::string conf = place.file("conf");
    ASSERT_EQ(shell("mkdir " + place.file("journal") + "; echo journal_root = " +
                    place.file("journal") + " >" + conf + "; echo volumes = >>" + conf)
                  .status,
              0);
    const std::string ctl = "env TARN_PLATFORM_CONF=" + conf + " " TARN_CTL_PROGRAM " ";
    for (const char* command : {"check", "space"}) {
        const ran done = shell(ctl + command);
        EXPECT_EQ(done.status, 6) << done.text;
        EXPECT_NE(done.text.find("There is no volume with metadata of LUNs."), std::string::npos)
            << done.text;
    }
    EXPECT_EQ(shell(ctl + "punch").status, 32);
    const ran written = shell(ctl + "inventory --write " + place.file("inventory"));
    EXPECT_EQ(written.status, 32) << written.text;
    EXPECT_EQ(shell("ls " + place.file("inventory")).status, 2);
}

TEST_P(bad_places, are_reported_as_unreadable) {
    for (const char* name : {TABLE, INDEX, LUN, COPY_MAP, BUFFER, DATA, JOURNAL}) {
        if (name == JOURNAL && std::string(GetParam().name) == "a_link_that_leads_out") {
            continue;  // the journal may lie anywhere
        }
        const std::string path = file(name);
        const std::string aside = place_.file("aside");
        run_shell("F=" + path + "; A=" + aside + "; " + GetParam().command);
        const check_run run = check();
        EXPECT_TRUE(run.has("X01")) << name << ": " << run.codes();
        EXPECT_FALSE(run.complete) << name;
        EXPECT_TRUE(run.status >= 4) << name << ": " << run.status;
        EXPECT_FALSE(run.has("R03") || run.has("R04")) << name << ": " << run.codes();
        fs::remove_all(path);
        fs::rename(aside, path);
    }
    EXPECT_EQ(check().status, 0);
}

INSTANTIATE_TEST_SUITE_P(all, bad_places, testing::ValuesIn(replacements),
                         [](const auto& one) { return std::string(one.param.name); });

// A file that ends early, and the finding that has to come.
struct cut_file {
    const char* file;
    unsigned size;
    const char* code;
    int least;  // exit status
};
static constexpr cut_file cuts[] = {
    {TABLE, 0, "H02", 4},       {TABLE, 63, "H03", 4},       {TABLE, 4097, "R01", 5},
    {TABLE, 1048676, "R01", 5}, {INDEX, 0, "H02", 4},        {INDEX, 63, "H03", 4},
    {INDEX, 4097, "H01", 4},    {LUN, 0, "H02", 4},          {LUN, 63, "H01", 4},
    {LUN, 4097, "H01", 4},      {LUN, 1048676, "M05", 4},    {COPY_MAP, 63, "H01", 4},
    {BUFFER, 63, "H01", 4},     {DATA, 0, "D03", 4},         {DATA, 15, "D03", 4},
    {DATA, 4097, "D02", 0},     {JOURNAL, 0, "J02", 4},      {JOURNAL, 63, "J04", 4},
    {JOURNAL, 4097, "J02", 4},  {JOURNAL, 1048676, "J04", 4}};

TEST_F(bad_input, a_file_that_ends_early_is_reported) {
    for (const cut_file& one : cuts) {
        SCOPED_TRACE(std::string(one.file) + " of " + std::to_string(one.size));
        const std::string path = file(one.file);
        run_shell("cp -a --sparse=always " + path + " " + place_.file("kept"));
        fs::resize_file(path, one.size);
        const check_run run = check();
        EXPECT_TRUE(run.has(one.code)) << run.codes();
        EXPECT_GE(run.status, one.least);
        fs::rename(place_.file("kept"), path);
    }
}

TEST_F(bad_input, a_file_that_nobody_may_read_is_reported) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to become another user";
    }
    run_shell("chown -R nobody " + place_.path());
    for (const char* name : {TABLE, INDEX, LUN, COPY_MAP, DATA, JOURNAL}) {
        run_shell("chmod 000 " + file(name));
        const check_run run =
            run_limited("setpriv --reuid nobody --clear-groups " + check_command(sample_));
        EXPECT_TRUE(run.status >= 4 && run.status <= 6) << name << ": " << run.status;
        EXPECT_NE(run.out.find("\"code\":\"X01\""), std::string::npos) << name << run.out;
        EXPECT_NE(run.out.find("\"complete\":false"), std::string::npos) << name;
        run_shell("chmod 600 " + file(name));
    }
}

// A field that an impossible number does not escape.
struct header_field {
    const char* file;
    uint64_t byte;
    size_t size;
    const char* code;
};
constexpr uint64_t VARIABLE = 4096;  // the first variable node
static constexpr header_field fields[] = {
    {TABLE, 4, 4, "H04"},                // version
    {TABLE, 8, 8, "H02"},                // magic code
    {TABLE, 16, 4, "H02"},               // type
    {TABLE, 36, 8, "H03"},               // data offset
    {TABLE, 68, 4, "H03"},               // extent size
    {TABLE, 72, 4, "H03"},               // entry size
    {TABLE, 76, 8, "H03"},               // total count
    {INDEX, 4, 4, "H04"},                // version
    {INDEX, 8, 8, "H02"},                // magic code
    {INDEX, 16, 4, "H02"},               // type
    {INDEX, 36, 8, "H03"},               // data offset
    {INDEX, 68, 4, "H03"},               // entry size
    {INDEX, 72, 8, "H03"},               // group count
    {INDEX, VARIABLE + 4, 8, "H03"},     // free count
    {INDEX, VARIABLE + 12, 8, "F08"},    // head of the list of groups
    {LUN, 8, 8, "H02"},                  // magic code
    {LUN, 16, 4, "H02"},                 // type
    {LUN, 76, 8, "H03"},                 // total count
    {LUN, VARIABLE + 4, 8, "M03"},       // mapped count
    {LUN, VARIABLE + 68, 4, "M06"},      // checksum of the pool table
    {LUN, VARIABLE + 72, 4, "H03"},      // rows of the pool table
    {DATA, 8, 8, "D03"},                 // magic code
    {DATA, 20, 8, "P02"},                // uuid
    {JOURNAL, 8, 8, "J02"},              // magic code
    {JOURNAL, 68, 8, "J04"},             // blocks of the ring
    {JOURNAL, VARIABLE + 4, 4, "J01"},   // status: that of a service that runs
    {JOURNAL, VARIABLE + 72, 8, "J04"},  // block of the newest record
};

TEST_F(bad_input, an_impossible_number_in_a_header_is_reported) {
    constexpr uint64_t ALL_ONES = ~uint64_t{0};
    for (const header_field& field : fields) {
        const std::string path = file(field.file);
        const std::vector<uint8_t> before = file_bytes(path, field.byte, field.size);
        put_sealed(path, field.byte, &ALL_ONES, field.size);
        const check_run run = check();
        EXPECT_TRUE(run.has(field.code))
            << field.file << " byte " << field.byte << ": " << run.codes();
        put_sealed(path, field.byte, before.data(), field.size);
    }
    EXPECT_EQ(check().status, 0);
}

// Every word of every header: nothing but a verdict may come of it.
TEST_F(bad_input, no_number_in_a_header_leads_astray) {
    constexpr uint32_t ALL_ONES = ~uint32_t{0};
    constexpr std::pair<const char*, uint64_t> FILES[] = {
        {TABLE, 2}, {INDEX, 3}, {LUN, 4}, {JOURNAL, 4}};
    for (const auto& [name, nodes] : FILES) {
        for (uint64_t node = 0; node < nodes; node++) {
            const uint64_t start = node < 2 ? node * 64 : VARIABLE + (node - 2) * 64;
            for (uint64_t word = 4; word <= 32; word += 4) {
                const std::vector<uint8_t> before = file_bytes(file(name), start, 64);
                put_sealed(file(name), start + word, &ALL_ONES, sizeof ALL_ONES);
                const check_run run = check("--memory 1M");
                EXPECT_TRUE(run.findings.size() < 10000) << name << " byte " << start + word;
                write_file_bytes(file(name), start, before.data(), before.size());
            }
        }
    }
}

TEST_F(bad_input, an_extent_that_no_table_has_is_reported) {
    for (const uint64_t lpa : {(uint64_t{1} << 48) - 1, uint64_t{1} << 47, uint64_t{1} << 42}) {
        const uint64_t word = uint64_t{1} << 63 | lpa;
        put_sealed(file(LUN), byte_of_lea(7), &word, sizeof word);
        const check_run run = check();
        EXPECT_GE(run.status, 4);
        EXPECT_TRUE(std::any_of(
            run.findings.begin(), run.findings.end(),
            [](const seen_finding& seen) { return seen.code == "R07" && seen.covers("lea", 7); }))
            << run.codes();
    }
}

// Control characters and line ends are escaped in text, and JSON stays JSON.
TEST_F(bad_input, names_that_nobody_can_print_are_escaped) {
    const std::string names[] = {"LUN\n_1", "LUN\x1b[31m_2", "LUN_\xff\xfe_3", "LUN \"'\\_4",
                                 "LUN_\xc3\xa4\x7f_5"};
    for (const std::string& name : names) {
        const std::string directory = file("volume1/@iSCSITrg/" + name);
        fs::rename(file("volume1/@iSCSITrg/LUN_0"), directory);
        const std::string map = directory + "/LUN_0_Extent_0";
        const std::vector<uint8_t> before = file_bytes(map, 1048576, 1);
        const uint8_t flipped = before[0] ^ 1;
        write_file_bytes(map, 1048576, &flipped, 1);
        const check_run run = check();
        EXPECT_TRUE(run.has("M01")) << run.codes();
        EXPECT_EQ(schema_problem(run.out), "");
        const ran text = shell("TARN_PLATFORM_CONF=" + file("platform.conf") + " " +
                               TARN_CTL_PROGRAM + " check");
        EXPECT_EQ(text.status, run.status);
        EXPECT_NE(text.text.find(" M01  "), std::string::npos) << text.text;
        const bool plain = std::all_of(text.text.begin(), text.text.end(), [](char c) {
            return c == '\n' || (static_cast<unsigned char>(c) >= 32 && c != 127);
        });
        EXPECT_TRUE(plain) << text.text;
        EXPECT_EQ(text.text.find("LUN\n"), std::string::npos) << text.text;
        write_file_bytes(map, 1048576, before.data(), 1);
        fs::rename(directory, file("volume1/@iSCSITrg/LUN_0"));
    }
}

// What the program says of a configuration.
static check_run with_configuration(const std::string& path) {
    return run_limited("env TARN_PLATFORM_CONF=" + path + " " + TARN_CTL_PROGRAM + " check --json");
}

TEST_F(bad_input, without_a_configuration_it_could_not_run) {
    const check_run missing = with_configuration(place_.file("nothing"));
    EXPECT_EQ(missing.status, 8);
    EXPECT_TRUE(missing.err.starts_with("tarnctl: ")) << missing.err;
    EXPECT_EQ(missing.out, "");
    std::ofstream(file("platform.conf")) << "volumes /volume1\n";  // no "="
    const check_run broken = with_configuration(file("platform.conf"));
    EXPECT_EQ(broken.status, 8);
    EXPECT_TRUE(broken.err.starts_with("tarnctl: ")) << broken.err;
}

TEST_F(bad_input, a_volume_that_is_missing_or_empty_is_damage) {
    fs::rename(file("volume2"), place_.file("elsewhere"));
    const check_run missing = check();
    EXPECT_TRUE(missing.has("S01")) << missing.codes();
    EXPECT_EQ(missing.status, 4);
    fs::create_directory(file("volume2"));
    const check_run empty = check();
    EXPECT_TRUE(empty.has("S01")) << empty.codes();
    EXPECT_EQ(empty.status, 4);
}

TEST_F(bad_input, an_output_that_cannot_be_written_is_no_verdict) {
    const std::string run = check_command(sample_);
    for (const char* text : {"", " >&-", " >/dev/full"}) {
        const int expected = *text == 0 ? 0 : 8;
        EXPECT_EQ(shell("( " + run + text + " )").status, expected) << text;
    }
    // A reader that leaves early: the program ends by itself, not by a signal.
    const ran piped = shell("( { " + run + " --color never; echo $? >" + place_.file("status") +
                            "; } | true ); cat " + place_.file("status"));
    EXPECT_TRUE(piped.text == "8\n" || piped.text == "0\n") << piped.text;
}
