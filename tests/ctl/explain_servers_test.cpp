// What real runs log and print, as explain judges it: on sound volumes nothing is an error, and on
// a damaged one the first error is the damage.
#include <gtest/gtest.h>
#include <sstream>

#include "ctl/explain/whole_log.h"
#include "system/support/damaged_server.h"
#include "system/support/everyday_commands.h"

static const message_book& book() {
    static const message_book made;
    return made;
}

// A line of the captured log: the number in front of the message is hidden there.
static std::string unmasked(std::string line) {
    const size_t at = line.starts_with("tarn:#") ? line.find('#') : line.find("(#)") + 1;
    if (at != 0) {
        line[at] = '1';
    }
    return line;
}

static log_report report_of(const run_result& ran) {
    log_reader reader(book());
    for (const std::string& line : ran.log) {
        reader.add_line(unmasked(line));
    }
    return reader.report();
}

static void expect_all_normal(const std::string& line) {
    const recognised found = book().recognise(parse_log_line(line));
    ASSERT_NE(found.row, nullptr) << line;
    EXPECT_TRUE(found.harmless) << line;
}

TEST(explain_servers, nothing_that_is_said_of_sound_volumes_is_an_error) {
    for (const char* sample : {"--crash --seed 24", "--crash --seed 56", "--seed 5"}) {
        const damaged_server server(sample);
        const run_result ran = server.run(EVERYDAY_COMMANDS);
        EXPECT_GT(ran.log.size(), 5u);
        for (const std::string& line : ran.log) {
            expect_all_normal(unmasked(line));
        }
        std::istringstream out(ran.out);
        int lines = 0;
        for (std::string line; std::getline(out, line); lines++) {
            expect_all_normal(line);
        }
        EXPECT_GT(lines, 100);
    }
}

struct damage_case {
    const char* kind;
    const char* sample;
    const char* commands;
    const char* cause;  // the format of the first error
};
static constexpr const char* FREECK =
    "tarn --freeck --fripath $V/@EP/EP_FRI --tblpath $V/@EP/EP_TBL";
static constexpr damage_case damage_cases[] = {
    {"table-header-bit", "--seed 5", FREECK, "tarn_read_meta_node checksum error !"},
    {"index-lost", "--seed 5", FREECK, "open file %s fail"},
    {"list-loop", "--seed 5", FREECK,
     "NOT TAIL last entry in TBL freelist, group_num %llu offset %llu (lpa %llu) count %u "
     "check_free_count %u"},
    {"list-used", "--seed 5", FREECK,
     "USED entry in TBL freelist, group_num %llu offset %llu (lpa %llu)"},
    {"list-count", "--seed 5", FREECK,
     "FREE_COUNT NOT MATCH in TBL freelist, free count %u check_free_count %u group_num %llu "
     "offset %llu (lpa %llu)"},
    {"group-loop", "--seed 5", FREECK, "error, group-list loops"},
    {"reference-count", "--seed 5", "tarn --fullck --volpath $V",
     "TBL: refer-cnt mismatch, lpa(%llu), (old, new)=(%d, %d)"},
    {"map-node-bit", "--seed 5", "tarn --check-map --mappath $MAP",
     "data chksum mismatched - on-disk(%08x) != (%08x), node num(%llu)"},
    {"pool-table", "--crash --seed 24", "tarn --rpvjnl", "cksum error, %d %s for MAP %s"},
};

TEST(explain_servers, the_first_error_of_a_run_on_a_damaged_volume_is_the_damage) {
    for (const damage_case& one : damage_cases) {
        damaged_server server(one.sample);
        server.damage(one.kind);
        const run_result ran = server.run(one.commands);
        const log_report report = report_of(ran);
        const log_tally* cause = cause_of(report);
        ASSERT_NE(cause, nullptr) << one.kind;
        EXPECT_STREQ(cause->row->format, one.cause) << one.kind;
        EXPECT_EQ(report.unknown, 0u) << one.kind << ": " << report.first_unknown_text;
    }
}
