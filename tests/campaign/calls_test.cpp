// How many expensive system calls start-up replay makes: opens and syncs, on four volumes with
// about 500 maps each.
#include <gtest/gtest.h>

#include "campaign/workshop.h"
#include "system/support/shell.h"

static unsigned long long calls_of(const program_run& run, call_kind kind) {
    return run.calls[static_cast<size_t>(kind)];
}

TEST(calls, of_startup_replay_on_four_volumes_of_500_maps) {
    const workshop shop;
    ASSERT_TRUE(shop.make("sample", "--crash --volumes 4 --luns 490 --extents 500 --seed 3"));
    shop.put_on_bench(shop.path("sample"));
    const program_run run = shop.run("--startup-replay");
    ASSERT_EQ(run.status, 0) << (run.log.empty() ? "" : run.log.back());
    EXPECT_EQ(tarn_lab("verify " + shop.bench()).status, 0);
    EXPECT_LE(calls_of(run, call_kind::open), 4300u);
    EXPECT_GE(calls_of(run, call_kind::open), 2 * 4 * 490u);  // every LUN, twice
    EXPECT_LE(calls_of(run, call_kind::sync), 36u);
    EXPECT_EQ(calls_of(run, call_kind::syncfs), 4u);  // every volume once
    EXPECT_EQ(calls_of(run, call_kind::flock), 5u);   // the volumes, the journal's directory
}
