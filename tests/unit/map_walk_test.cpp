#include "volume/map_walk.h"

#include <gtest/gtest.h>
#include <string>

#include "map/map_format.h"
#include "support/sample_maps.h"
#include "support/stdout_capture.h"

TEST(map_walk, the_entries_of_a_rod_map_follow_from_the_extent_shift_alone) {
    EXPECT_EQ(rod_entry_count(20), 540672u);     // (2^10 + 32) * 512
    EXPECT_EQ(rod_entry_count(9), 1073758208u);  // (2^21 + 32) * 512
    EXPECT_EQ(rod_entry_count(30), 16896u);      // (2^0 + 32) * 512
}

TEST(map_walk, a_shift_over_30_makes_the_power_of_the_rod_formula_0) {
    EXPECT_EQ(rod_entry_count(31), 16384u);  // 30 - 31 has bit 5 set: (0 + 32) * 512
    EXPECT_EQ(rod_entry_count(62), 16384u);  // 30 - 62 = -32 does too
    // 30 - 63 = -33 does not; its low bits, 31, make the power 2^31.
    EXPECT_EQ(rod_entry_count(63), 1099511644160u);  // (2^31 + 32) * 512
}

TEST(map_walk, a_scan_of_a_hundred_units_or_more_prints_0_to_100_each_once) {
    for (const uint64_t total : {100u, 101u, 1000u, 8583u}) {
        stdout_capture out;
        scan_progress progress = scan_progress_of(total);
        for (uint64_t unit = 0; unit < total; unit++) {
            scan_progress_pass(&progress, unit, unit + 1);
        }
        scan_progress_end(&progress);
        EXPECT_EQ(out.text(), progress_lines(0, 100)) << total;
    }
}

TEST(map_walk, a_scan_of_two_units_prints_one_line_a_unit_and_one_at_its_end) {
    stdout_capture out;
    scan_progress progress = scan_progress_of(2);
    scan_progress_pass(&progress, 0, 2);
    scan_progress_end(&progress);
    EXPECT_EQ(out.text(), progress_lines(0, 2));
}

TEST(map_walk, a_line_comes_at_the_first_unit_that_has_reached_its_percentage) {
    stdout_capture out;
    scan_progress progress = scan_progress_of(300);
    scan_progress_pass(&progress, 0, 1);
    scan_progress_pass(&progress, 1, 3);  // 2 * 100 / 300 is 0
    EXPECT_EQ(out.text(), progress_lines(0, 0));
    scan_progress_pass(&progress, 3, 4);  // 3 * 100 / 300 is 1
    EXPECT_EQ(out.text(), progress_lines(0, 1));
}

TEST(map_walk, each_unit_prints_when_its_percentage_has_reached_the_next_line) {
    const stdout_capture ignored;
    for (uint64_t total = 1; total < 260; total += 7) {
        scan_progress progress = scan_progress_of(total);
        uint64_t next = 0;
        for (uint64_t unit = 0; unit < total; unit++) {
            next += unit * 100 / total >= next ? 1 : 0;
            scan_progress_pass(&progress, unit, unit + 1);
            ASSERT_EQ(progress.next, next) << unit << " of " << total;
        }
    }
}

TEST(map_walk, units_passed_together_print_what_they_print_one_by_one) {
    for (uint64_t total = 1; total < 260; total += 7) {
        stdout_capture out;
        scan_progress one_by_one = scan_progress_of(total);
        for (uint64_t unit = 0; unit < total; unit++) {
            scan_progress_pass(&one_by_one, unit, unit + 1);
        }
        const std::string expected = out.text();
        scan_progress together = scan_progress_of(total);
        scan_progress_pass(&together, 0, total / 3);
        scan_progress_pass(&together, total / 3, total);
        EXPECT_EQ(out.text(), expected + expected) << total;
        EXPECT_EQ(together.next, one_by_one.next) << total;
    }
}

TEST(map_walk, counts_near_the_end_of_64_bits_do_not_overflow) {
    stdout_capture out;
    const uint64_t total = ~uint64_t{0} - 1;
    scan_progress progress = scan_progress_of(total);
    scan_progress_pass(&progress, 0, total / 2);
    EXPECT_EQ(progress.next, 50u);  // the unit total / 2, which is half of it exactly, comes next
    scan_progress_pass(&progress, total / 2, total);
    scan_progress_end(&progress);
    EXPECT_EQ(out.text(), progress_lines(0, 100));
}
