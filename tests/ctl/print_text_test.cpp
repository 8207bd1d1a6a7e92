// What an administrator reads.
#include <fcntl.h>
#include <gtest/gtest.h>

#include "ctl/check/place_words.h"
#include "ctl/reports.h"

using enum finding_code;

constexpr const char* OPENING = "box: /volume1, journal success, last transaction 2000.\n\n";

static std::string body_of(const check_report& report, const print_style& style = {}) {
    std::string text = text_of(report, style);
    const size_t opening = std::string(OPENING).size();
    return text.starts_with(OPENING) ? text.substr(opening) : text;
}

static finding with_next(finding of, const std::string& next) {
    of.next = next;
    return of;
}

TEST(check_text, of_a_sound_server_is_three_lines) {
    EXPECT_EQ(text_of(report_of({})),
              "box: /volume1, journal success, last transaction 2000.\n"
              "\n"
              "Clean: nothing is wrong. Exit status 0.\n");
}

TEST(check_text, opens_with_what_was_looked_at) {
    check_report report = report_of({});
    report.volumes = {"/volume1", "/volume2"};
    report.journal_status = "abnormal";
    report.mode = check_mode::as_if_replayed;
    EXPECT_TRUE(
        text_of(report).starts_with("box: /volume1, /volume2, journal abnormal, last transaction "
                                    "2000. Shown as it will be after "
                                    "the\nreplay of the journal; nothing was written.\n\n"));
    report.mode = check_mode::raw;
    report.journal_status = "";
    EXPECT_TRUE(text_of(report).starts_with(
        "box: /volume1, /volume2, journal unreadable, last transaction 2000. Shown as it is on the "
        "disk,\nwithout the replay of the journal.\n\n"));
    report = report_of({});
    report.volumes.clear();
    report.journal_path = "";
    EXPECT_TRUE(text_of(report).starts_with("box: no volumes, no journal.\n\n"));
}

TEST(check_text, of_an_urgent_finding_says_whose_data_how_urgent_and_what_next) {
    finding urgent = run_of(R01, 1688012, 3);
    urgent.owners = {lun_7(8123, 3)};
    EXPECT_EQ(
        body_of(report_of({with_next(urgent, "tarn --onekeyrepair --volpath /volume1")})),
        "URGENT R01  LUN_7, bytes 8517582848 to 8520728575 (3 MiB at 7.9 GiB): mapped to "
        "extents that the\n"
        "            table calls free.\n"
        "            The next allocation may overwrite them. Do not start the service.\n"
        "            Extents 1688012-1688014 of /volume1, group 412.\n"
        "            Next: tarn --onekeyrepair --volpath /volume1\n"
        "\n"
        "Urgent: the service must not write. Keep it stopped until this is settled. Findings: "
        "1 urgent. Exit\n"
        "status 5.\n");
}

TEST(check_text, of_damage_without_owners_names_the_file) {
    finding damage = found(T01, "/volume1", "@EP/EP_TBL");
    damage.place = place_kind::block;
    damage.first = 12;
    damage.count = 2;
    damage.was = "d815f320";
    damage.ought = "00000001";
    EXPECT_EQ(
        body_of(report_of({with_next(damage, "tarnctl explain R02")})),
        "DAMAGE T01  /volume1/@EP/EP_TBL, blocks 12-13: a block of the table does not match "
        "its checksum.\n"
        "            Its counts cannot be trusted: an extent in use may look free, and be "
        "overwritten.\n"
        "            Found d815f320, should be 00000001.   Next: tarnctl explain R02\n"
        "\n"
        "Damage: something must be repaired, and data may be at risk. Findings: 1 damage. Exit "
        "status 4.\n");
}

TEST(check_text, of_a_count_names_volume_extents_and_size) {
    finding count = run_of(R04, 546, 15);
    count.detail = "One sentence.";
    EXPECT_EQ(
        body_of(report_of({with_next(count, "tarnctl check --volume /volume1 --all")})),
        "COUNT  R04  /volume1, extents 546-560 (15 MiB): in use according to the table, but in "
        "no map.\n"
        "            One sentence. Only space is lost, if every map is there. If one is missing "
        "or old, these\n"
        "            are its data, and a rebuild frees them: compare the LUNs with the service's "
        "own list\n"
        "            first.   Next: tarnctl check --volume /volume1 --all\n"
        "\n"
        "Only lost space or wrong counts: no data are at risk. Findings: 1 count. Exit status "
        "3.\n");
}

TEST(check_text, of_notes_is_short_and_without_blank_lines_between) {
    const finding torn = with_next(found(J06, "", "EP_JNL"), "tarnctl explain J06");
    finding status = with_next(found(J01, "", "EP_JNL"), "tarn --startup-replay");
    status.was = "abnormal";
    EXPECT_EQ(body_of(report_of({status, torn})),
              "NOTE   J01  the journal: not closed by a clean shutdown.\n"
              "            Found abnormal.   Next: tarn --startup-replay\n"
              "NOTE   J06  the journal: its newest transaction was not recorded to its end.\n"
              "            Next: tarnctl explain J06\n"
              "\n"
              "Clean: nothing is wrong. Findings: 2 notes. Exit status 0.\n");
}

TEST(check_text, of_what_cannot_be_read_says_that_the_check_is_incomplete) {
    check_report report =
        report_of({with_next(found(X01, "/volume1", "@EP/EP_TBL"), "tarnctl check")});
    report.complete = false;
    report.left_out = {"The lists of \x1b[31m/volume1."};
    EXPECT_EQ(
        body_of(report),
        "UNREAD X01  /volume1/@EP/EP_TBL: cannot be read.\n"
        "            What lies there is unknown, and findings that depend on it are left out. "
        "Look at the\n"
        "            disk and at the permissions.   Next: tarnctl check\n"
        "\n"
        "Not looked at: The lists of \\x1b[31m/volume1.\n"
        "Incomplete: no damage was seen, but not everything could be looked at. Findings: 1 "
        "unreadable. Exit\n"
        "status 6.\n");
}

TEST(check_text, counts_consequences_under_their_cause) {
    finding first = run_of(R01, 7, 10);
    first.number = 10;
    first.because = 0;
    finding second = run_of(R04, 70, 2);
    second.number = 2;
    second.because = 1;
    const check_report report = report_of({found(T01), first, second});
    EXPECT_NE(text_of(report).find("\n            Explains 12 more places (R01 10, R04 2), some of "
                                   "them urgent.\n"),
              std::string::npos);
    EXPECT_EQ(text_of(report).find("URGENT"), std::string::npos);
    EXPECT_NE(text_of(report, {false, false, true})
                  .find("Findings: 1 damage, and 12 places explained by them."),
              std::string::npos);
    const std::string all = text_of(report, {false, true, false});
    EXPECT_NE(all.find("URGENT R01  /volume1, extents 7-16 (10 MiB): "), std::string::npos);
    EXPECT_NE(all.find(" Follows from T01 above.\n"), std::string::npos) << all;
    EXPECT_NE(all.find(" Follows from R01 above.\n"), std::string::npos) << all;
}

static size_t count_of(const std::string& text, const std::string& what) {
    size_t count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        count++;
    }
    return count;
}

TEST(check_text, lists_at_most_100_findings_of_a_code_unless_all_are_asked_for) {
    check_report report = report_of({});
    for (uint64_t i = 0; i < 103; i++) {
        report.findings.push_back(run_of(R01, 10 * i, 1));
    }
    EXPECT_EQ(count_of(text_of(report), "URGENT R01"), 100u);
    EXPECT_NE(text_of(report).find("            3 more places of R01: list more with --all.\n"),
              std::string::npos);
    EXPECT_NE(text_of(report).find("103 urgent"), std::string::npos);
    EXPECT_EQ(count_of(text_of(report, {false, true, false}), "URGENT R01"), 103u);
}

TEST(check_text, lists_at_most_5_notes_of_a_code) {
    check_report report = report_of({});
    for (uint64_t i = 0; i < 6; i++) {
        report.findings.push_back(run_of(D02, 10 * i, 1));
    }
    EXPECT_EQ(count_of(text_of(report), "NOTE   D02"), 5u);
    EXPECT_NE(text_of(report).find("            1 more place of D02: list more with --all.\n"),
              std::string::npos);
}

TEST(check_text, says_the_rest_of_a_code_in_one_line) {
    finding rest = found(R04);
    rest.number = 500;
    const check_report report = report_of({run_of(R04, 5, 1), rest});
    EXPECT_EQ(count_of(text_of(report), "R04  "), 1u);
    EXPECT_NE(text_of(report).find("            500 more places of R04: list more with --all.\n"),
              std::string::npos);
    EXPECT_NE(text_of(report, {false, true, false}).find("            500 more places of R04.\n"),
              std::string::npos);
    EXPECT_NE(text_of(report_of({rest})).find("500 places in all."), std::string::npos);
}

TEST(check_text, names_three_owners_and_counts_the_others) {
    finding shared = run_of(R02, 4095, 2);
    shared.owners = {lun_7(0, 1),
                     {"snapshot FAMILY_3 (a/FAMILY_3)", "snapshot", "f", {}, 0},
                     {"", "trash", "@EP_trash/x\ny", {{1, 1}, {4, 2}}, 0},
                     lun_7(1, 1),
                     lun_7(2, 1)};
    EXPECT_EQ(
        subject_words(shared),
        "LUN_7, bytes 0 to 1048575 (1 MiB at 0 bytes); snapshot FAMILY_3 (a/FAMILY_3); "
        "@EP_trash/x\\ny, bytes 1048576 to 2097151 (1 MiB at 1 MiB) and 1 more range, 3 MiB in "
        "all; and 2 more maps");
    EXPECT_EQ(place_sentence(shared), "Extents 4095-4096 of /volume1, groups 0-1.");
    shared.owners[2].ranges_left_out = 9;
    EXPECT_NE(subject_words(shared).find("(1 MiB at 1 MiB) and 10 more ranges; and"),
              std::string::npos);
}

TEST(check_text, names_every_kind_of_place) {
    finding at = found(M01, "/volume1", "@iSCSITrg/a");
    const struct {
        place_kind kind;
        const char* words;
    } places[] = {{place_kind::none, "/volume1/@iSCSITrg/a"},
                  {place_kind::lpa, "/volume1, extent 5"},
                  {place_kind::group, "/volume1/@iSCSITrg/a, group 5"},
                  {place_kind::block, "/volume1/@iSCSITrg/a, block 5"},
                  {place_kind::node, "/volume1/@iSCSITrg/a, node 5"},
                  {place_kind::lea, "/volume1/@iSCSITrg/a, entry 5"},
                  {place_kind::journal_block, "/volume1/@iSCSITrg/a, journal block 5"},
                  {place_kind::byte, "/volume1/@iSCSITrg/a, byte 5"}};
    at.first = 5;
    at.count = 1;
    for (const auto& place : places) {
        at.place = place.kind;
        EXPECT_EQ(subject_words(at), place.words);
    }
    at.count = 2;
    at.place = place_kind::lea;
    EXPECT_EQ(subject_words(at), "/volume1/@iSCSITrg/a, entries 5-6");
    EXPECT_EQ(subject_words(found(S01, "")), "the server");
    EXPECT_EQ(subject_words(found(S01, "/volume1")), "/volume1");
}

TEST(check_text, shows_ranges_of_a_volume_with_no_extent_size_as_entries) {
    finding at = found(M01);
    at.owners = {lun_7(63, 63)};
    EXPECT_EQ(subject_words(at), "LUN_7, entries 63-125");
}

TEST(check_text, saturates_impossible_numbers) {
    finding at = run_of(R06, UINT64_MAX, UINT64_MAX);
    EXPECT_EQ(subject_words(at), "/volume1, extent 18446744073709551615 (15.9 EiB)");
    at.owners = {lun_7(uint64_t{1} << 48, 2)};
    EXPECT_EQ(subject_words(at),
              "LUN_7, bytes 18446744073709551615 to 18446744073709551615 (2 MiB at "
              "15.9 EiB)");
}

TEST(check_text, gives_sizes_in_the_largest_unit_with_one_decimal) {
    EXPECT_EQ(size_words(0), "0 bytes");
    EXPECT_EQ(size_words(1), "1 byte");
    EXPECT_EQ(size_words(1023), "1023 bytes");
    EXPECT_EQ(size_words(1024), "1 KiB");
    EXPECT_EQ(size_words(1536), "1.5 KiB");
    EXPECT_EQ(size_words(1048575), "1023.9 KiB");
    EXPECT_EQ(size_words(8517582848), "7.9 GiB");
    EXPECT_EQ(size_words(uint64_t{3} << 40), "3 TiB");
}

TEST(check_text, shows_the_first_lines_of_the_log) {
    finding refused = found(J08, "", "EP_JNL");
    refused.log = {"ERR: one\n", "two", "three", "four", "five"};
    EXPECT_NE(text_of(report_of({refused}))
                  .find("            Log: ERR: one\\n\n"
                        "            Log: two\n"
                        "            Log: three\n"
                        "            2 more lines of the log.\n"),
              std::string::npos);
}

TEST(check_text, escapes_names_and_values) {
    finding odd = found(M11, "/volume1", "@iSCSITrg/a\nURGENT R01  b\x1b[2J\xff");
    odd.detail = "It is\r.";
    odd.was = "\x07";
    const std::string text = text_of(report_of({odd}));
    EXPECT_NE(text.find("@iSCSITrg/a\\nURGENT R01 b\\x1b[2J\\xff: its path"), std::string::npos)
        << text;
    EXPECT_NE(text.find("It is\\r."), std::string::npos);
    EXPECT_NE(text.find("Found \\x07."), std::string::npos);
}

TEST(check_text, colors_the_severity_only_when_asked) {
    const check_report report =
        report_of({found(R01), found(M01), found(X01), found(F10), found(T04)});
    EXPECT_EQ(text_of(report).find('\x1b'), std::string::npos);
    const std::string colored = text_of(report, {true, false, false});
    for (const char* label :
         {"\x1b[1;31mURGENT\x1b[0m R01", "\x1b[31mDAMAGE\x1b[0m M01", "\x1b[35mUNREAD\x1b[0m X01",
          "\x1b[33mCOUNT\x1b[0m  F10", "\x1b[36mNOTE\x1b[0m   T04"}) {
        EXPECT_NE(colored.find(label), std::string::npos) << label;
    }
}

TEST(check_text, when_quiet_is_one_line) {
    EXPECT_EQ(
        text_of(report_of({found(R01), found(T04)}), {true, true, true}),
        "Urgent: the service must not write. Keep it stopped until this is settled. Findings: "
        "1 urgent, 1 note. Exit status 5.\n");
}

TEST(check_text, fits_100_columns_but_for_commands_and_long_names) {
    check_report report = report_of({});
    for (size_t i = 0; i < FINDING_ROW_COUNT; i++) {
        report.findings.push_back(found(FINDING_ROWS[i].code, "/volume1", "@EP/EP_TBL"));
        report.findings.back().owners = {lun_7(8123, 3), lun_7(9000, 1)};
        report.findings.back().extent_size = 1048576;
    }
    const std::string text = text_of(report);
    for (size_t at = 0; at < text.size();) {
        const size_t end = text.find('\n', at);
        EXPECT_LE(end - at, 100u) << text.substr(at, end - at);
        at = end + 1;
    }
}

TEST(check_text, that_cannot_be_written_is_a_failure) {
    FILE* full = fopen("/dev/full", "w");
    ASSERT_NE(full, nullptr);
    EXPECT_FALSE(print_check_text(full, report_of({found(R01)}), {}));
    EXPECT_EQ(errno, ENOSPC);
    (void)fclose(full);
    full = fopen("/dev/full", "w");
    EXPECT_FALSE(print_check_text(full, report_of({}), {false, false, true}));
    (void)fclose(full);
}
