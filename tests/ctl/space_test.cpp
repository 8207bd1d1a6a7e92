// `tarnctl space`: its figures against those of a brute-force count, its names, its doubts, and
// that it writes nothing.
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "ctl/support/check_run.h"
#include "ctl/support/everything.h"
#include "ctl/support/sealed.h"
#include "ctl/support/space_trials.h"

using nlohmann::json;

static ctl_run space(const std::string& sample, const std::string& words) {
    return run_ctl(sample, "space " + words);
}

// The records of a run, each of which the schema allows.
static std::vector<json> records_of(const ctl_run& run) {
    EXPECT_EQ(schema_problem(run.out), "") << run.err;
    std::vector<json> records;
    std::istringstream lines(run.out);
    for (std::string line; std::getline(lines, line);) {
        records.push_back(json::parse(line));
    }
    return records;
}

static json map_record(const std::vector<json>& records, const std::string& lun) {
    for (const json& record : records) {
        if (record.at("record") == "map" && record.at("lun") == lun) {
            return record;
        }
    }
    ADD_FAILURE() << "no record of " << lun;
    return {};
}

// Clean, crashed and random servers; maps deleted for real; damaged maps.
TEST(space_figures, are_those_of_a_brute_force_count) {
    for (const unsigned seed : {0, 1, 2, 4, 18}) {
        EXPECT_EQ(try_space("space", seed), "right") << seed;
    }
}

TEST(space_names, that_fit_two_maps_are_listed_and_refused) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s");
    const ctl_run two = space(sample, "--if-deleted 'unmap buffer'");
    EXPECT_EQ(two.status, 32);
    EXPECT_EQ(two.out, "");
    EXPECT_EQ(two.err, "tarnctl: refused: 'unmap buffer' fits more than one map:\n    " + sample +
                           "/volume1/@EP/EP_BUF\n    " + sample +
                           "/volume2/@EP/EP_BUF\nName one of them by its path.\n");
    const ctl_run none = space(sample, "--if-deleted LUN_0 LUN_77");
    EXPECT_EQ(none.status, 32);
    EXPECT_EQ(none.err, "tarnctl: refused: 'LUN_77' is the name of no LUN, snapshot or map\n");
}

TEST(space_names, may_be_given_twice) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s");
    EXPECT_EQ(
        space(sample, "--quiet --if-deleted LUN_0 LUN_0 @iSCSITrg/LUN_0/LUN_0_Extent_0").status, 0);
    const ctl_run once = space(sample, "--json --quiet --if-deleted LUN_0");
    const ctl_run twice = space(sample, "--json --quiet --if-deleted LUN_0 LUN_0");
    EXPECT_EQ(records_of(once).at(1).at("freed"), records_of(twice).at(1).at("freed"));
}

// Its header's magic code is gone: what it holds is unknown, and all others may share it.
TEST(space_of_a_map_that_cannot_be_read, is_unknown_and_makes_the_others_upper_bounds) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s");
    const uint64_t nothing = 0;
    put_sealed(sample + "/volume1/@iSCSITrg/LUN_0/LUN_0_Extent_0", 8, &nothing, sizeof nothing);
    const ctl_run run = space(sample, "--json --if-deleted LUN_1");
    EXPECT_EQ(run.status, 6);
    const std::vector<json> records = records_of(run);
    const json lost = map_record(records, "LUN_0");
    EXPECT_TRUE(lost.at("mapped").is_null());
    EXPECT_TRUE(lost.at("exclusive").is_null());
    EXPECT_FALSE(lost.at("complete"));
    const json other = map_record(records, "LUN_1");
    EXPECT_EQ(other.at("mapped").at("worth"), "exact");
    EXPECT_EQ(other.at("exclusive").at("worth"), "at most");
    EXPECT_EQ(other.at("shared").at("worth"), "at least");
    for (const json& record : records) {
        if (record.at("record") == "volume") {
            const bool first = record.at("volume") == sample + "/volume1";
            EXPECT_EQ(record.at("freed").at("worth"), first ? "at most" : "exact");
            EXPECT_EQ(record.at("complete"), !first);
        }
    }
    const ctl_run text = space(sample, "");
    EXPECT_NE(text.out.find("Not exact: LUN_0 of "), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("<= "), std::string::npos) << text.out;
}

// Two damaged maps: what seems to be in one of them only is neither a lower nor an upper bound.
TEST(space_of_two_damaged_maps, is_unsure) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s");
    for (const std::string lun : {"LUN_0", "LUN_1"}) {
        const std::string path = sample + "/volume1/@iSCSITrg/" + lun + "/" + lun + "_Extent_0";
        const uint8_t byte = file_bytes(path, 40, 1)[0] ^ 1;
        write_file_bytes(path, 40, &byte, 1);
    }
    const std::vector<json> records = records_of(space(sample, "--json"));
    EXPECT_EQ(map_record(records, "LUN_0").at("mapped").at("worth"), "at least");
    EXPECT_EQ(map_record(records, "LUN_0").at("exclusive").at("worth"), "unsure");
    EXPECT_EQ(map_record(records, "LUN_2").at("exclusive").at("worth"), "at most");
}

// Each kind of damage that makes a figure doubtful without touching a map, and one that does not.
TEST(space_of_a_damaged_server, says_what_is_not_exact) {
    const struct {
        const char* kind;
        int status;
        const char* words;
    } rows[] = {
        {"table-block-bit", 6, "the table is missing or damaged"},
        {"table-lost", 6, "the table is missing or damaged"},
        {"index-block-bit", 6, "what is free is not known"},
        {"index-lost", 6, "what is free is not known"},
        {"dangling", 6, "in a map, and free in the table"},
        {"reference-count", 6, "references, and the maps hold"},
        {"leak", 0, "1 extent (1 MiB) is in use and in no map."},
        {"far-lpa", 0, "1 entry refers past the end of the data files"},
        {"orphan-map", 0, "is a map where none is looked for"},
        {"journal-block-in-window", 6, "The journal cannot be replayed"},
    };
    for (const auto& row : rows) {
        const scratch_dir place;
        const std::string sample = make_sample(place, "s");
        ASSERT_EQ(damage(sample, row.kind, 5).status, 0) << row.kind;
        const auto before = everything(sample);
        const ctl_run run = space(sample, "");
        std::string words = run.out;
        for (size_t at = words.find('\n'); at != std::string::npos; at = words.find('\n', at)) {
            words.replace(at, words.find_first_not_of(" \n", at) - at, " ");
        }
        EXPECT_EQ(run.status, row.status) << row.kind << run.out;
        EXPECT_NE(words.find(row.words), std::string::npos) << row.kind << run.out;
        EXPECT_EQ(everything(sample), before);
    }
}

TEST(space_of_a_missing_volume, is_not_silently_left_out) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s");
    ASSERT_EQ(shell("rm -r " + sample + "/volume2").status, 0);
    const ctl_run run = space(sample, "");
    EXPECT_EQ(run.status, 6);
    EXPECT_NE(run.out.find("there is no such directory."), std::string::npos) << run.out;
    EXPECT_EQ(space(sample, "--volume /nowhere").status, 8);
}

TEST(space, writes_nothing_and_reports_what_it_cannot_print) {
    const scratch_dir place;
    for (const std::string more : {"", " --crash"}) {
        const std::string sample = make_sample(place, more.empty() ? "sound" : "crashed", 5, more);
        const auto before = everything(sample);
        EXPECT_EQ(space(sample, "--if-deleted LUN_0").status, 0);
        EXPECT_EQ(everything(sample), before);
    }
    const std::string sample = place.file("sound");
    EXPECT_EQ(space(sample, "> /dev/full").status, 8);
    EXPECT_EQ(space(sample, "--json > /dev/full").status, 8);
    EXPECT_EQ(space(sample, ">&-").status, 8);
}
