// The state file: what is in it, and every way in which it may not be one.
#include "ctl/check/state_file.h"

#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "ctl/support/sealed_state.h"
#include "support/io_faults.h"
#include "support/scratch_file.h"

static const machine_identity ALPHA = {"alpha", "0badf00d"};

static const char* const BODY =
    "{\"file\":\"tarnctl state\",\"format\":1,\"tool\":\"tarnctl 9\",\"server\":\"alpha\","
    "\"machine\":\"0badf00d\",\"journal\":\"success\",\"verdict\":\"counts\",\"exit\":3,"
    "\"complete\":true,\"severities\":{\"count\":4,\"damage\":0,\"note\":2,\"unreadable\":0,"
    "\"urgent\":0},\"codes\":{\"R04\":4,\"S02\":2},\"completed\":1700000000,\"volumes\":["
    "{\"volume\":\"/v\",\"extent_size\":1048576,\"total\":2164663517184,\"used\":10,"
    "\"free\":2164663517174,\"leaked\":4,\"room\":5000000},{\"volume\":\"a\\\\xff\","
    "\"volume_hex\":\"61ff\",\"extent_size\":0,\"total\":2164663517184,\"used\":null,"
    "\"free\":null,\"leaked\":null,\"room\":null}],\"history\":[{\"completed\":1699000000,"
    "\"volumes\":[{\"volume\":\"/v\",\"extent_size\":1048576,\"total\":2164663517184,\"used\":9,"
    "\"free\":2164663517175,\"leaked\":0,\"room\":\"9007199254740993\"}]}]";

class state_file : public testing::Test {
protected:
    void put(const std::string& text) const {
        std::ofstream(path(), std::ios::binary | std::ios::trunc) << text;
    }
    [[nodiscard]] std::string path() const { return place_.file("state"); }
    [[nodiscard]] state_reading read() const { return read_state(path(), ALPHA); }
    [[nodiscard]] state_reading read(const std::string& text) const {
        put(text);
        return read();
    }

    scratch_dir place_;
};

TEST_F(state_file, has_a_checksum_of_castagnoli) {
    EXPECT_EQ(slow_crc32c("123456789"), 0xE3069283U);
}

TEST_F(state_file, is_read) {
    const state_reading reading = read(sealed_state(BODY));
    ASSERT_EQ(reading.kind, state_kind::known) << reading.reason;
    const state_record& record = reading.record;
    EXPECT_EQ(record.tool, "tarnctl 9");
    EXPECT_EQ(record.machine, ALPHA);
    EXPECT_EQ(record.journal, "success");
    EXPECT_EQ(record.verdict, "counts");
    EXPECT_EQ(record.exit, 3);
    EXPECT_TRUE(record.complete);
    EXPECT_EQ(record.severities.at("count"), 4u);
    EXPECT_EQ(record.codes, (std::map<std::string, uint64_t>{{"R04", 4}, {"S02", 2}}));
    EXPECT_EQ(record.last.completed, 1700000000u);
    ASSERT_EQ(record.last.volumes.size(), 2u);
    EXPECT_EQ(record.last.volumes[0].volume, "/v");
    EXPECT_EQ(record.last.volumes[0].used, 10u);
    EXPECT_EQ(record.last.volumes[0].free, 2164663517174u);
    EXPECT_EQ(record.last.volumes[0].leaked, 4u);
    EXPECT_EQ(record.last.volumes[0].room, 5000000u);
    EXPECT_EQ(record.last.volumes[1].volume, "a\xff");
    EXPECT_FALSE(record.last.volumes[1].used.has_value());
    ASSERT_EQ(record.history.size(), 1u);
    EXPECT_EQ(record.history[0].completed, 1699000000u);
    EXPECT_EQ(record.history[0].volumes.at(0).room, 9007199254740993u);
}

TEST_F(state_file, is_written_as_it_is_read) {
    EXPECT_EQ(state_text(read(sealed_state(BODY)).record), sealed_state(BODY));
}

TEST_F(state_file, that_was_cut_anywhere_is_not_known) {
    const std::string whole = sealed_state(BODY);
    for (size_t size = 0; size < whole.size(); size++) {
        EXPECT_EQ(read(whole.substr(0, size)).kind, state_kind::damaged) << size;
    }
    EXPECT_EQ(read(whole + "\n").kind, state_kind::damaged);
}

// Another bit of each byte.
TEST_F(state_file, with_any_changed_byte_is_not_known) {
    const std::string whole = sealed_state(BODY);
    for (size_t i = 0; i < whole.size(); i++) {
        std::string changed = whole;
        changed[i] = static_cast<char>(static_cast<uint8_t>(changed[i]) ^ 1 << i % 8);
        EXPECT_EQ(read(changed).kind,
                  i < STATE_BEGIN.size() ? state_kind::not_a_state : state_kind::damaged)
            << i;
    }
}

struct changed_field {
    const char* name;
    const char* what;
    const char* by;
    state_kind kind;
};
static constexpr changed_field CHANGES[] = {
    {"newer", "\"format\":1,", "\"format\":2,", state_kind::newer},
    {"newer_with_other_fields", "\"format\":1,\"tool\"", "\"format\":7,\"tale\"",
     state_kind::newer},
    {"other_server", "alpha", "beta", state_kind::foreign},
    {"other_machine", "0badf00d", "0badf00e", state_kind::foreign},
    {"no_machine", "0badf00d", "", state_kind::foreign},
    {"no_such_verdict", "\"counts\"", "\"fine\"", state_kind::damaged},
    {"verdict_and_exit_differ", "\"exit\":3", "\"exit\":0", state_kind::damaged},
    {"no_such_exit", "\"exit\":3", "\"exit\":8", state_kind::damaged},
    {"exit_is_text", "\"exit\":3", "\"exit\":\"3\"", state_kind::damaged},
    {"no_completed", "\"completed\":1700000000,", "", state_kind::damaged},
    {"negative_time", "1700000000", "-1700000000", state_kind::damaged},
    {"time_is_a_fraction", "1700000000", "1700000000.5", state_kind::damaged},
    {"figure_is_no_number", "\"used\":10", "\"used\":\"ten\"", state_kind::damaged},
    {"figure_is_too_large", "\"used\":10", "\"used\":\"99999999999999999999\"",
     state_kind::damaged},
    {"figure_is_missing", "\"used\":10,", "", state_kind::damaged},
    {"volumes_are_no_list", "\"history\":[", "\"history\":[5,", state_kind::damaged},
    {"format_is_text", "\"format\":1,", "\"format\":\"x\",", state_kind::damaged},
    {"no_json", "\"complete\":true", "\"complete\":true}", state_kind::damaged},
};

TEST_F(state_file, with_a_right_checksum_and_wrong_fields_is_not_known) {
    for (const changed_field& one : CHANGES) {
        const std::string text = changed_state(sealed_state(BODY), one.what, one.by);
        ASSERT_NE(text, "") << one.name;
        const state_reading reading = read(text);
        EXPECT_EQ(reading.kind, one.kind) << one.name << ": " << reading.reason;
        EXPECT_NE(reading.reason, "") << one.name;
    }
}

TEST_F(state_file, that_is_something_else_is_not_known) {
    EXPECT_EQ(read().kind, state_kind::missing);
    EXPECT_EQ(read("journal_root = /x\n").kind, state_kind::not_a_state);
    EXPECT_EQ(read("{\"file\":\"tarnctl inventory\"}").kind, state_kind::not_a_state);
    EXPECT_EQ(read_state(place_.path(), ALPHA).kind, state_kind::unreadable);
    EXPECT_EQ(read_state("/dev/zero", ALPHA).kind, state_kind::unreadable);
    const std::string fifo = place_.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(read_state(fifo, ALPHA).kind, state_kind::unreadable);
}

TEST_F(state_file, of_endless_size_is_not_read_to_its_end) {
    put(std::string(STATE_BEGIN));
    ASSERT_EQ(truncate(path().c_str(), off_t{1} << 40), 0);
    EXPECT_EQ(read().kind, state_kind::not_a_state);
}

TEST_F(state_file, that_cannot_be_read_is_unreadable_whichever_call_fails) {
    put(sealed_state(BODY));
    for (uint64_t n = 1;; n++) {
        const io_fault_at fault(n, EIO);
        const state_reading reading = read();
        if (!fault.fired()) {
            EXPECT_EQ(reading.kind, state_kind::known);
            EXPECT_GT(n, 3u);  // stat, open, read
            break;
        }
        EXPECT_EQ(reading.kind, state_kind::unreadable) << n;
        EXPECT_EQ(reading.reason, "it cannot be read: Input/output error");
    }
}

static check_report report_with(std::vector<finding> findings) {
    check_report report;
    report.journal_status = "abnormal";
    report.findings = std::move(findings);
    report.figures = {{"/proc", 1048576, 5, 7, std::nullopt, {}}, {"/none", 0, {}, {}, {}, {}}};
    return report;
}

// R01 follows from T01: the report is urgent, and so the state must not say "0 urgent".
TEST_F(state_file, counts_consequences_too) {
    finding cause;
    cause.code = finding_code::T01;
    cause.level = severity::damage;
    finding consequence;
    consequence.code = finding_code::R01;
    consequence.level = severity::urgent;
    consequence.because = 0;
    finding unread;
    unread.code = finding_code::X01;
    unread.level = severity::note;
    const state_record record = state_of(report_with({cause, consequence, unread}), ALPHA, 77);
    EXPECT_EQ(record.severities,
              (std::map<std::string, uint64_t>{
                  {"urgent", 1}, {"damage", 1}, {"count", 0}, {"note", 0}, {"unreadable", 1}}));
    EXPECT_EQ(record.codes, (std::map<std::string, uint64_t>{{"R01", 1}, {"T01", 1}, {"X01", 1}}));
    EXPECT_EQ(record.verdict, "urgent");
    EXPECT_EQ(record.exit, 5);
    EXPECT_FALSE(record.complete);
    EXPECT_EQ(record.journal, "abnormal");
    EXPECT_EQ(record.last.completed, 77u);
}

TEST_F(state_file, notes_the_room_of_volumes_that_were_looked_at) {
    const state_record record = state_of(report_with({}), ALPHA, 77);
    ASSERT_EQ(record.last.volumes.size(), 2u);
    EXPECT_EQ(record.last.volumes[0].used, 5u);
    EXPECT_EQ(record.last.volumes[0].room, 0u);  // /proc has none
    EXPECT_FALSE(record.last.volumes[1].room.has_value());
}

TEST_F(state_file, keeps_a_name_of_any_bytes) {
    check_report report = report_with({});
    report.figures[0].volume = "/a\xff\n\"\\";
    put(state_text(state_of(report, ALPHA, 77)));
    const state_reading reading = read();
    ASSERT_EQ(reading.kind, state_kind::known) << reading.reason;
    EXPECT_EQ(reading.record.last.volumes[0].volume, "/a\xff\n\"\\");
}
