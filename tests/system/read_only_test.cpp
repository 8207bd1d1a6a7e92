// The guard against volumes that cannot be written.
#include <filesystem>
#include <gtest/gtest.h>

#include "system/support/sample_server.h"
#include "system/support/tree.h"

namespace fs = std::filesystem;

static run_conditions second_read_only() {
    run_conditions conditions;
    conditions.read_only[1] = true;
    return conditions;
}

TEST(read_only, start_up_replay_marks_the_journal_and_touches_no_volume) {
    for (const uint32_t status : {0xFFFFFFFFU, 0x77777777U, 0x25521814U}) {
        const sandbox box;
        make_volumes(box);
        make_jnl(box.journal(), status, {tbl_block(uuid_of(0x11), 5, 0x8001)});
        const auto one = tree_of(box.volume(1));
        const auto two = tree_of(box.volume(2));
        const run_result got = box.run({"--startup-replay"}, second_read_only());
        EXPECT_EQ(got.status, 255) << status;
        EXPECT_EQ(got.out, "TARN_INFO: jnlPath=/var/lib/tarn/EP_JNL\n");
        EXPECT_EQ(got.log, (lines{"ERR: is_read_only_volume_exist(#) Found read-only volume "
                                  "/volume2\n",
                                  "ERR: set_journal_ro_bad_when_ro_volume_exist(#) Set journal "
                                  "/var/lib/tarn/EP_JNL Read-Only BAD\n"}));
        EXPECT_EQ(jnl_status_of(box.journal()), 0x77777777U);
        EXPECT_EQ(tree_of(box.volume(1)), one);
        EXPECT_EQ(tree_of(box.volume(2)), two);
    }
}

TEST(read_only, once_the_volume_is_writable_again_the_replay_completes) {
    const sandbox box;
    make_volumes(box);
    make_jnl(box.journal(), 0xFFFFFFFF, {tbl_block(uuid_of(0x22), 5, 0x8001)});
    EXPECT_EQ(box.run({"--startup-replay"}, second_read_only()).status, 255);
    EXPECT_EQ(box.run({"--startup-replay"}).status, 0);
    EXPECT_EQ(tbl_word_of(box.volume(2) + "/@EP/EP_TBL", 5), 0x8001);
    EXPECT_FALSE(fs::exists(box.journal()));
}

TEST(read_only, a_bad_journal_or_one_without_a_status_is_not_marked) {
    for (const uint32_t status : {0x66656800U, 0U, 5U}) {
        const sandbox box;
        make_volumes(box);
        make_jnl(box.journal(), status, {});
        EXPECT_EQ(box.run({"--startup-replay"}, second_read_only()).status, 255);
        EXPECT_EQ(jnl_status_of(box.journal()), status);
    }
}

TEST(read_only, a_read_only_space_that_is_not_a_volume_is_ignored) {
    const sandbox box;
    make_volume(box, 1, 0x11);
    make_jnl(box.journal(), 0xFFFFFFFF, {});
    EXPECT_EQ(box.run({"--startup-replay"}, second_read_only()).status, 0);
    EXPECT_FALSE(fs::exists(box.journal()));
}

TEST(read_only, volumes_that_cannot_be_enumerated_mark_the_journal_too) {
    const sandbox box;
    make_volumes(box);
    make_jnl(box.journal(), 0xFFFFFFFF, {});
    box.configure("no key and value\n");
    const run_result got = box.run({"--startup-replay", "--jnlpath", JOURNAL});
    EXPECT_EQ(got.status, 255);
    EXPECT_EQ(got.log, (lines{"/scratch/platform.conf line 1: no '='\n",
                              "ERR: enum_all_volumes(#) failed to enum volume info",
                              "ERR: is_read_only_volume_exist(#) Fail to enum all volumes\n",
                              "ERR: set_journal_ro_bad_when_ro_volume_exist(#) Set journal "
                              "/var/lib/tarn/EP_JNL Read-Only BAD\n"}));
    EXPECT_EQ(jnl_status_of(box.journal()), 0x77777777U);
}

TEST(read_only, other_commands_do_not_mark_the_journal) {
    const sandbox box;
    make_volumes(box);
    make_jnl(box.journal(), 0xFFFFFFFF, {});
    const run_result got = box.run({"--rpvjnl"}, second_read_only());
    EXPECT_EQ(got.status, 255);
    EXPECT_TRUE(got.logged("ERR: replay_fri_journal(#) Fail to load FRI /volume2/@EP/EP_FRI\n"));
    EXPECT_EQ(jnl_status_of(box.journal()), 0xFFFFFFFFU);
}
