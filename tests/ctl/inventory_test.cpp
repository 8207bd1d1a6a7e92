// `tarnctl inventory`, and a check with one: what is gone from a server, or stands in another's
// place, and what may have gone lawfully.
#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <unistd.h>

#include "campaign/asked.h"
#include "ctl/support/check_run.h"
#include "ctl/support/everything.h"
#include "ctl/support/losses.h"
#include "system/support/lab_sample.h"

class losses : public testing::TestWithParam<loss_row> {};

TEST_P(losses, are_found_with_an_inventory) {
    const std::string found = try_loss(GetParam(), 4);
    EXPECT_EQ(found == "no place" ? try_loss(GetParam(), 5) : found, "right");
}

INSTANTIATE_TEST_SUITE_P(all, losses, testing::ValuesIn(loss_rows()), [](const auto& one) {
    std::string name = one.param.name;
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
});

TEST(campaign, inventory) {
    const seed_range seeds = asked_seeds();
    if (seeds.count == 0) {
        GTEST_SKIP() << "run by scripts/prove";
    }
    figures counted;
    for (uint64_t seed = seeds.first; seed < seeds.first + seeds.count; seed++) {
        bool right = true;
        for (const loss_row& row : loss_rows()) {
            const std::string found = try_loss(row, static_cast<unsigned>(seed));
            const bool is_judged = found != "no place";
            counted.count(std::string("command|inventory ") + row.name +
                          (is_judged ? "|judged" : "|no place"));
            if (is_judged && found != "right") {
                right = false;
                ADD_FAILURE() << "violation|" << row.name << " " << seed << ": " << found
                              << "|scripts/prove inventory 1 --seed " << seed;
            }
        }
        counted.count(right ? "result|found and named" : "result|wrong");
    }
}

class inventory_file : public testing::Test {
protected:
    inventory_file()
        : sample_(make_sample(place_, "s", 4, " --transactions 20")),
          path_(place_.file("inventory")) {}

    [[nodiscard]] ran ctl(const std::string& words, const std::string& sample = "") const {
        return shell("env TARN_PLATFORM_CONF=" + (sample.empty() ? sample_ : sample) +
                     "/platform.conf " + TARN_CTL_PROGRAM + " " + words);
    }
    void write() const { ASSERT_EQ(ctl("inventory --write " + path_).status, 0); }
    [[nodiscard]] std::string text() const {
        std::ostringstream all;
        all << std::ifstream(path_).rdbuf();
        return all.str();
    }
    void put(const std::string& text) const { std::ofstream(path_) << text; }

    scratch_dir place_;
    std::string sample_;
    std::string path_;
};

TEST_F(inventory_file, of_the_server_as_it_is_shows_no_difference) {
    const auto before = everything(sample_);
    const ran written = ctl("inventory --write " + path_);
    EXPECT_EQ(written.status, 0);
    EXPECT_NE(written.text.find("2 volumes"), std::string::npos) << written.text;
    const ran compared = ctl("inventory --compare " + path_);
    EXPECT_EQ(compared.status, 0);
    EXPECT_NE(compared.text.find("Nothing is missing or exchanged. Exit status 0."),
              std::string::npos)
        << compared.text;
    EXPECT_EQ(ctl("guard --inventory " + path_).status, 0);
    EXPECT_TRUE(check_sample(sample_, "--inventory " + path_).has_only_notes());
    EXPECT_EQ(everything(sample_), before);
}

TEST_F(inventory_file, is_kept_eight_times) {
    for (int i = 0; i < 10; i++) {
        write();
    }
    const std::string listed =
        shell("ls " + place_.path() + " | grep inventory | tr '\n' ' '").text;
    EXPECT_EQ(listed,
              "inventory inventory.1 inventory.2 inventory.3 inventory.4 inventory.5 inventory.6 "
              "inventory.7 ");
}

TEST_F(inventory_file, that_was_cut_or_changed_is_refused) {
    write();
    const std::string whole = text();
    for (size_t cut = 0; cut < whole.size(); cut += 1 + cut / 8) {
        put(whole.substr(0, cut));
        const ran refused = ctl("inventory --compare " + path_);
        EXPECT_EQ(refused.status, 32) << cut << refused.text;
    }
    for (size_t at = 0; at < whole.size(); at += 37) {
        std::string changed = whole;
        changed[at] = static_cast<char>(changed[at] ^ 1);
        put(changed);
        EXPECT_EQ(ctl("inventory --compare " + path_).status, 32) << at;
    }
    const ran refused = ctl("check --inventory " + path_);
    EXPECT_EQ(refused.status, 32);
    EXPECT_NE(refused.text.find(path_ + " was cut or changed"), std::string::npos) << refused.text;
    EXPECT_EQ(ctl("guard --inventory " + path_).status, 32);
    EXPECT_EQ(ctl("inventory --write " + path_).status, 32);
    put(whole);
    EXPECT_EQ(ctl("inventory --compare " + path_).status, 0);
}

TEST_F(inventory_file, of_another_server_is_refused) {
    const std::string other = make_sample(place_, "other", 9, " --transactions 20");
    write();
    for (const char* words : {"inventory --compare ", "check --inventory ", "guard --inventory ",
                              "inventory --write "}) {
        const ran refused = ctl(words + path_, other);
        EXPECT_EQ(refused.status, 32) << words;
        EXPECT_NE(refused.text.find("of another server"), std::string::npos) << refused.text;
    }
}

TEST_F(inventory_file, of_a_newer_program_is_refused) {
    // {"tarn_inventory": 2}, with its checksum.
    put("{\n \"tarn_inventory\": 2,\n \"crc32c\": \"eea1e459\"\n}\n");
    const ran refused = ctl("inventory --compare " + path_);
    EXPECT_EQ(refused.status, 32);
    EXPECT_NE(refused.text.find("was written by a newer tarnctl"), std::string::npos)
        << refused.text;
}

TEST_F(inventory_file, is_never_written_over_another_file) {
    put("root:x:0:0\n");
    const ran refused = ctl("inventory --write " + path_);
    EXPECT_EQ(refused.status, 32);
    EXPECT_NE(refused.text.find("is no inventory of tarnctl"), std::string::npos) << refused.text;
    EXPECT_EQ(text(), "root:x:0:0\n");
}

TEST_F(inventory_file, that_is_absent_is_an_error_of_all_but_the_guard) {
    EXPECT_EQ(ctl("inventory --compare " + path_).status, 8);
    EXPECT_EQ(ctl("check --inventory " + path_).status, 8);
    const ran guarded = ctl("guard --inventory " + path_);
    EXPECT_EQ(guarded.status, 0);
    EXPECT_NE(guarded.text.find("there is no inventory yet"), std::string::npos) << guarded.text;
}

TEST_F(inventory_file, is_not_written_while_tarn_works) {
    const ran locked =
        shell("flock " + sample_ + "/volume2 env TARN_PLATFORM_CONF=" + sample_ +
              "/platform.conf " + TARN_CTL_PROGRAM + " inventory --write " + path_ + ".new");
    EXPECT_EQ(locked.status, 32);
    EXPECT_NE(locked.text.find("a run of tarn works on"), std::string::npos) << locked.text;
    EXPECT_EQ(shell("ls " + path_ + ".new").status, 2);
}

TEST_F(inventory_file, is_not_written_of_a_server_that_has_lost_something) {
    ASSERT_EQ(damage(sample_, "map-node-bit", 3).status, 0);
    const ran refused = ctl("inventory --write " + path_);
    EXPECT_EQ(refused.status, 32);
    EXPECT_NE(refused.text.find("is damaged or cannot be read"), std::string::npos) << refused.text;
    EXPECT_NE(shell("ls " + path_).status, 0);
}

TEST_F(inventory_file, is_not_written_of_a_map_that_was_cut) {
    ASSERT_EQ(damage(sample_, "map-truncated", 3).status, 0);
    const ran refused = ctl("inventory --write " + path_);
    EXPECT_EQ(refused.status, 32);
    EXPECT_NE(refused.text.find("is damaged or cannot be read"), std::string::npos) << refused.text;
    EXPECT_NE(shell("ls " + path_).status, 0);
}

TEST_F(inventory_file, is_not_written_through_a_link) {
    for (const char* target : {"loop", "nowhere"}) {
        ASSERT_EQ(shell("cd " + place_.path() + " && ln -sfn " + target + " loop").status, 0);
        const ran refused = ctl("inventory --write " + place_.path() + "/loop");
        EXPECT_EQ(refused.status, 32);
        EXPECT_NE(refused.text.find("something is there that is no regular file"),
                  std::string::npos)
            << refused.text;
    }
    const ran journal = ctl("inventory --write " + sample_ + "/journal/EP_JNL");
    EXPECT_EQ(journal.status, 32);
    EXPECT_NE(journal.text.find("it is the journal"), std::string::npos) << journal.text;
}

TEST_F(inventory_file, past_the_limit_of_a_file_is_a_failure_that_leaves_nothing) {
    const ran limited =
        shell("cd " + place_.path() + " && ulimit -f 0 && env TARN_PLATFORM_CONF=" + sample_ +
              "/platform.conf " + TARN_CTL_PROGRAM + " inventory --write " + path_);
    EXPECT_EQ(limited.status, 8);
    EXPECT_NE(limited.text.find("File too large"), std::string::npos) << limited.text;
    EXPECT_NE(shell("ls " + path_ + "*").status, 0);
}

// Whoever may not read a directory does not know that a map is missing in it.
TEST_F(inventory_file, misses_no_map_in_a_directory_that_cannot_be_read) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to become another user";
    }
    write();
    ASSERT_EQ(shell("chmod 711 " + place_.path() + "; chmod -R go+rX " + sample_ + "; chmod 700 " +
                    sample_ + "/volume1/@iSCSITrg/LUN_1")
                  .status,
              0);
    const ran seen = shell("setpriv --reuid nobody --clear-groups " TARN_CTL_PROGRAM " --conf " +
                           sample_ + "/platform.conf inventory --compare " + path_);
    EXPECT_EQ(seen.status, 6) << seen.text;
    EXPECT_NE(seen.text.find("UNREAD X01  " + sample_ + "/volume1/@iSCSITrg/LUN_1: "),
              std::string::npos)
        << seen.text;
    EXPECT_EQ(seen.text.find("S04"), std::string::npos) << seen.text;
}

TEST_F(inventory_file, stays_when_a_new_one_cannot_be_written) {
    write();
    const std::string before = text();
    const ran full = shell("mkdir " + place_.path() + "/none; env TARN_PLATFORM_CONF=" + sample_ +
                           "/platform.conf " + TARN_CTL_PROGRAM + " inventory --write " +
                           place_.path() + "/none/there/inventory");
    EXPECT_EQ(full.status, 8);
    EXPECT_NE(full.text.find("cannot write"), std::string::npos) << full.text;
    EXPECT_EQ(text(), before);
}

TEST_F(inventory_file, keeps_names_that_are_no_utf8) {
    ASSERT_EQ(
        shell("cd " + sample_ + "/volume1/@iSCSITrg && mv LUN_0 \"$(printf 'LUN_\\377')\"").status,
        0);
    write();
    EXPECT_NE(text().find("path_hex"), std::string::npos);
    EXPECT_EQ(ctl("inventory --compare " + path_).status, 0);
}

TEST_F(inventory_file, is_not_written_of_twins_or_without_data_files) {
    ASSERT_EQ(shell("cd " + sample_ +
                    " && cp -a volume1 volume9 && "
                    "sed -i \"s#^volumes = .*#& $PWD/volume9#\" platform.conf")
                  .status,
              0);
    const ran twins = ctl("inventory --write " + path_);
    EXPECT_EQ(twins.status, 32);
    EXPECT_NE(twins.text.find("volume9 has the uuids of "), std::string::npos) << twins.text;
    ASSERT_EQ(shell("cd " + sample_ +
                    " && rm -r volume9 && mkdir volume9 && "
                    "rm volume1/@EP/EP_DAT_0*; sed -i 's# [^ ]*volume9##' platform.conf")
                  .status,
              0);
    const ran empty = ctl("inventory --write " + path_);
    EXPECT_EQ(empty.status, 32);
    EXPECT_NE(empty.text.find("volume1 has no data file"), std::string::npos) << empty.text;
}
