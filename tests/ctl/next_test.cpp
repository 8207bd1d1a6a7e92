// The next command of a finding does no harm, whatever else is wrong.
#include <gtest/gtest.h>

#include "ctl/check/fold.h"
#include "ctl/reports.h"

using enum finding_code;

static std::string next_of(const check_report& report, size_t number = 0) {
    check_report chosen = report;
    choose_next(&chosen);
    return chosen.findings[number].next;
}

static finding in_file(finding_code code, const std::string& file) {
    return found(code, "/volume1", file);
}

constexpr const char* REBUILD = "tarn --onekeyrepair --volpath /volume1";

TEST(next, is_the_catalogues_with_the_paths_of_the_finding) {
    EXPECT_EQ(next_of(report_of({run_of(R01, 5, 1)})), REBUILD);
    EXPECT_EQ(next_of(report_of({run_of(R04, 5, 1)})), "tarnctl check --volume /volume1 --all");
    EXPECT_EQ(next_of(report_of({in_file(M01, "@iSCSITrg/LUN_7/LUN_7_Extent_0")})),
              "tarn --check-map --mappath /volume1/@iSCSITrg/LUN_7/LUN_7_Extent_0");
    EXPECT_EQ(next_of(report_of({found(F12)})),
              "tarn --freeck --fripath /volume1/@EP/EP_FRI --tblpath /volume1/@EP/EP_TBL");
}

TEST(next, quotes_paths_that_a_shell_would_read_otherwise) {
    EXPECT_EQ(next_of(report_of({found(R01, "/my volume")})),
              "tarn --onekeyrepair --volpath '/my volume'");
    EXPECT_EQ(next_of(report_of({in_file(M01, "@iSCSITrg/a\nVOLUME/x_Extent_0")})),
              "tarn --check-map --mappath $'/volume1/@iSCSITrg/a\\x0aVOLUME/x_Extent_0'");
}

TEST(next, keeps_the_one_that_the_check_chose) {
    finding chosen = run_of(R01, 5, 1);
    chosen.next = "tarnctl check";
    EXPECT_EQ(next_of(report_of({chosen, found(R04)})), "tarnctl check");
}

TEST(next, names_the_kind_of_a_map_that_is_no_luns) {
    EXPECT_EQ(next_of(report_of({in_file(M03, "@EP/EP_ROD")})),
              "tarn --check-map --mappath /volume1/@EP/EP_ROD --rod --repair");
    EXPECT_EQ(next_of(report_of({in_file(M01, "@EP/EP_BUF")})),
              "tarn --check-map --mappath /volume1/@EP/EP_BUF --unmap");
}

TEST(next, never_repairs_the_count_of_an_unmap_buffer) {
    EXPECT_EQ(next_of(report_of({in_file(M03, "@EP/EP_BUF")})),
              "tarn --check-map --mappath /volume1/@EP/EP_BUF --unmap");
}

TEST(next, of_a_finding_without_a_volume_names_none) {
    EXPECT_EQ(next_of(report_of({found(X01, "", "/journal/EP_JNL")})), "tarnctl check");
    EXPECT_EQ(next_of(report_of({found(R01, "")})), "tarnctl explain R01");
    EXPECT_EQ(next_of(report_of({found(M01)})), "tarnctl explain M01");
}

TEST(next, rebuilds_when_only_the_index_is_lost) {
    for (const finding_code code : {H01, H02, H03, H05}) {
        EXPECT_EQ(next_of(report_of({in_file(code, "@EP/EP_FRI"), run_of(R01, 5, 1)}), 0), REBUILD);
        EXPECT_EQ(next_of(report_of({in_file(code, "@EP/EP_FRI"), run_of(R01, 5, 1)}), 1), REBUILD);
        EXPECT_EQ(next_of(report_of({in_file(code, "@EP/EP_TBL")})),
                  "tarnctl check --volume /volume1");
    }
}

TEST(next, never_rebuilds_beside_what_a_rebuild_makes_worse) {
    for (const finding_code code : {H01, H02, H03, H05, M01, M05, M06, M07, M08, M11, R02,
                                    R04, R06, R07, P01, P02, D01, D03, D05, S01, S02, X01}) {
        const finding_row* row = finding_row_of(code);
        EXPECT_EQ(next_of(report_of({run_of(R01, 5, 1), found(code)})),
                  std::string("tarnctl explain ") + row->name);
        EXPECT_EQ(next_of(report_of({run_of(R01, 5, 1), found(code, "/volume2")})), REBUILD);
    }
    for (const finding_code code : {J02, J03, J04, J08, X01}) {
        EXPECT_EQ(next_of(report_of({run_of(R01, 5, 1), found(code, "")})),
                  std::string("tarnctl explain ") + finding_row_of(code)->name);
    }
}

TEST(next, rebuilds_beside_everything_that_a_rebuild_puts_right) {
    for (const finding_code code : {T01, T02, T03, T04, F01, F02, F03, F04, F05, F06, F07, F08, F09,
                                    F10, F11, F12, M02, M03, M04, R03, R05, P03, D02, D04, J05}) {
        EXPECT_EQ(next_of(report_of({run_of(R01, 5, 1), found(code)})), REBUILD)
            << finding_row_of(code)->name;
    }
}

TEST(next, rebuilds_beside_a_leak_that_a_damaged_block_explains) {
    finding leak = run_of(R04, 5, 1);
    leak.because = 0;
    EXPECT_EQ(next_of(report_of({found(T01), leak})), REBUILD);
}

TEST(next, replays_before_anything_is_rebuilt_or_repaired) {
    check_report report =
        report_of({run_of(R01, 5, 1), found(J01, ""), in_file(M03, "@EP/EP_ROD")});
    report.journal_status = "abnormal";
    EXPECT_EQ(next_of(report, 0), "tarnctl explain J01");
    EXPECT_EQ(next_of(report, 2), "tarnctl explain J01");
    report.journal_status = "success";
    EXPECT_EQ(next_of(report, 0), REBUILD);
}

TEST(next, replays_only_a_server_without_damage) {
    check_report report = report_of({found(J01, ""), run_of(R04, 5, 1), found(F10)});
    report.journal_status = "abnormal";
    EXPECT_EQ(next_of(report), "tarn --startup-replay");
    report.findings[2] = found(P01, "/volume2");
    EXPECT_EQ(next_of(report), "tarnctl explain P01");
    report.findings[2] = found(X01, "/volume2");
    EXPECT_EQ(next_of(report), "tarnctl explain X01");
}

TEST(next, repairs_the_count_of_a_map_only_if_its_nodes_are_sound) {
    const finding count = in_file(M03, "@iSCSITrg/a");
    const std::string repair = "tarn --check-map --mappath /volume1/@iSCSITrg/a --repair";
    EXPECT_EQ(next_of(report_of({count})), repair);
    EXPECT_EQ(next_of(report_of({count, in_file(M01, "@iSCSITrg/b")})), repair);
    for (const finding_code code : {H01, H03, M01, M05, X01}) {
        EXPECT_EQ(next_of(report_of({count, in_file(code, "@iSCSITrg/a")})),
                  std::string("tarnctl explain ") + finding_row_of(code)->name);
    }
}
