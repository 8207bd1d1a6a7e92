#include "volume/volume_journal.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "cli/operations.h"
#include "fri/fri_file.h"
#include "handles/handle_set.h"
#include "jnl/jnl_file.h"
#include "journal_status.h"
#include "map/map_file.h"
#include "options.h"
#include "store/descriptor.h"
#include "support/log_capture.h"
#include "support/open_files.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "support/stdout_capture.h"
#include "tbl/tbl_file.h"
#include "volume/discovery.h"

class volume_journal : public testing::Test {
protected:
    volume_journal() {
        make_sample_volume(volume(), 0x11);
        make_jnl(jnl_, JNL_STATUS_ABNORMAL, {});
        snprintf(opt_ctx.volpath, sizeof opt_ctx.volpath, "%s", volume().c_str());
    }

    std::string volume() const { return volumes_.volume(1); }

    void make_maps(unsigned count) const {
        for (unsigned i = 0; i < count; i++) {
            make_map(volume() + "/@iSCSITrg/LUN_Extent_" + std::to_string(i), uuid_of_number(i),
                     uuid_of(0x11));
        }
    }

    // The uuid of the map that discovery lists at `position`.
    static uuid_bytes listed_uuid(unsigned position) {
        path_entry list = {};
        init_path_list(&list);
        EXPECT_EQ(enum_all_vaai_luns(&list), 0);
        const path_entry* entry = list.next;
        for (unsigned i = 0; i < position; i++) {
            entry = entry->next;
        }
        EXPECT_NE(entry, &list);
        uuid_bytes uuid = file_bytes(entry->name, 20, UUID_SIZE);
        free_path_list(&list);
        return uuid;
    }

    size_t printed(const std::string& line) {
        const std::string text = out_.text();
        size_t count = 0;
        for (size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1)) {
            count++;
        }
        return count;
    }

    static void expect_everything_closed() {
        EXPECT_EQ(current_fri.fd, 0);
        EXPECT_EQ(current_tbl.fd, 0);
        EXPECT_EQ(current_map.fd, 0);
        EXPECT_EQ(current_jnl.fd, 0);
    }

    // Replays a volume of `count` maps whose journal gives extent 7 first to the last map, then to
    // the first one, and extent 8 to the last one only.
    void replay_two_images(unsigned count, size_t passes) {
        make_maps(count);
        const uuid_bytes first = listed_uuid(0);
        const uuid_bytes last = listed_uuid(count - 1);
        make_jnl(jnl_, JNL_STATUS_ABNORMAL,
                 {xcopy_block(last, 8, 0x8001), xcopy_block(last, 7, 0x8002),
                  xcopy_block(first, 7, 0x8003)});
        const size_t printed_before = printed("TARN_INFO: REPLAY TBL ");
        EXPECT_EQ(replay_vol_journal(none_.count(), none_.values(), 0), 0);
        EXPECT_EQ(printed("TARN_INFO: REPLAY TBL ") - printed_before, passes);
        EXPECT_EQ(tbl_word_of(tbl_, 7), 0x8003) << "the newer image";
        EXPECT_EQ(tbl_word_of(tbl_, 8), 0x8001) << "known through the last batch only";
        EXPECT_EQ(lookup_handle(first.data(), FILE_TYPE_MAP), nullptr);
        EXPECT_EQ(lookup_handle(last.data(), FILE_TYPE_MAP), nullptr);
        expect_everything_closed();
    }

    sample_volumes volumes_;
    const std::string fri_ = volume() + "/@EP/EP_FRI";
    const std::string tbl_ = volume() + "/@EP/EP_TBL";
    const std::string jnl_ = volumes_.journal();
    arguments none_{{}};
    stdout_capture out_;
    log_capture log_;
};

TEST_F(volume_journal, without_maps_the_table_is_replayed_once) {
    make_jnl(jnl_, JNL_STATUS_ABNORMAL, {tbl_block(uuid_of(0x11), 5, 0x8003)});
    EXPECT_EQ(replay_vol_journal(none_.count(), none_.values(), 0), 0);
    EXPECT_EQ(printed("TARN_INFO: REPLAY TBL " + tbl_ + "\n"), 1u);
    EXPECT_EQ(tbl_word_of(tbl_, 5), 0x8003);
    const std::string history_ends = "jnl_block_read(#) jnl block all zero value @block 63\n";
    EXPECT_EQ(log_.lines(), log_lines({history_ends, history_ends}));  // one walk each
}

TEST_F(volume_journal, with_1_map_the_table_is_replayed_once) {
    replay_two_images(1, 1);
}

TEST_F(volume_journal, with_256_maps_the_table_is_replayed_twice) {
    replay_two_images(256, 2);
}

TEST_F(volume_journal, with_257_maps_the_second_pass_keeps_the_newer_image) {
    replay_two_images(257, 2);
}

TEST_F(volume_journal, with_600_maps_the_third_pass_keeps_the_newer_image) {
    replay_two_images(600, 3);
}

static size_t most_open_files;

static io_verdict note_open_files(io_call call, size_t wanted) {
    if (call == io_call::open) {
        most_open_files = std::max(most_open_files, open_files());
    }
    return {0, wanted};
}

TEST_F(volume_journal, no_more_than_256_maps_are_open_at_a_time) {
    make_maps(300);
    most_open_files = 0;
    const size_t before = open_files();
    io_fault = note_open_files;
    EXPECT_EQ(replay_vol_journal(none_.count(), none_.values(), 0), 0);
    io_fault = nullptr;
    // 256 maps, the table, and the journal, which stays open from the first replay on.
    EXPECT_LE(most_open_files, before + 258);
    EXPECT_GT(most_open_files, before + 255);
    EXPECT_EQ(open_files(), before);
}

TEST_F(volume_journal, replay_goes_through_index_table_and_maps_in_order) {
    make_maps(1);
    EXPECT_EQ(replay_vol_journal(none_.count(), none_.values(), 0), 0);
    EXPECT_EQ(out_.text(), "TARN_INFO: REPLAY volume " + volume() + "\n" +  //
                               "TARN_INFO: REPLAY FRI " + fri_ + "\n" +     //
                               "TARN_INFO: FRI " + fri_ + " replay successfully\n" +
                               "TARN_INFO: UNMAP " + volume() + "/@EP/EP_BUF doesn't exist\n" +
                               "TARN_INFO: ROD " + volume() + "/@EP/EP_ROD doesn't exist\n" +
                               "TARN_INFO: REPLAY TBL " + tbl_ + "\n" + "TARN_INFO: TBL " + tbl_ +
                               " replay successfully\n" + "TARN_INFO: REPLAY VAAI-LUN " + volume() +
                               "/@iSCSITrg/LUN_Extent_0\n");
    EXPECT_EQ(opt_ctx.jnlpath, jnl_);  // from the configuration
}

TEST_F(volume_journal, check_goes_through_index_table_and_maps_in_order) {
    make_maps(1);
    EXPECT_EQ(check_vol_journal(none_.count(), none_.values(), 0), 0);
    const std::string map = volume() + "/@iSCSITrg/LUN_Extent_0";
    EXPECT_EQ(out_.text(), "TARN_INFO: CHECK volume " + volume() + "\n" +  //
                               "TARN_INFO: CHECK FRI " + fri_ + "\n" +     //
                               "TARN_INFO: FRI " + fri_ + " check successfully\n" +
                               "TARN_INFO: CHECK TBL " + tbl_ + "\n" +  //
                               "TARN_INFO: TBL " + tbl_ + " check successfully\n" +
                               "TARN_INFO: UNMAP " + volume() + "/@EP/EP_BUF doesn't exist\n" +
                               "TARN_INFO: ROD " + volume() + "/@EP/EP_ROD doesn't exist\n" +
                               "TARN_INFO: CHECK VAAI-LUN " + map + "\n" +  //
                               "TARN_INFO: MAP " + map + " check successfully\n");
}

TEST_F(volume_journal, a_path_that_is_not_a_volume_is_refused) {
    strcpy(opt_ctx.volpath, "/tmp");
    EXPECT_EQ(check_vol_journal(none_.count(), none_.values(), 0), -1);
    EXPECT_EQ(replay_vol_journal(none_.count(), none_.values(), 0), -1);
    EXPECT_EQ(out_.text(),
              "TARN_INFO: /tmp is not a VAAI volume\n"
              "TARN_INFO: /tmp is not a VAAI volume\n");
}

TEST_F(volume_journal, a_volume_with_neither_table_nor_index_is_skipped) {
    remove(fri_.c_str());
    remove(tbl_.c_str());
    EXPECT_EQ(check_vol_journal(none_.count(), none_.values(), 0), 0);
    EXPECT_EQ(replay_vol_journal(none_.count(), none_.values(), 0), 0);
    EXPECT_EQ(out_.text(), "TARN_INFO: CHECK volume " + volume() + "\n" + "TARN_INFO: FRI " + fri_ +
                               " fripath doesn't exist\n" + "TARN_INFO: TBL " + tbl_ +
                               " tblpath doesn't exist\n" + "TARN_INFO: Skip CHECK volume " +
                               volume() + "\n" + "TARN_INFO: REPLAY volume " + volume() + "\n" +
                               "TARN_INFO: FRI " + fri_ + " fripath isn't exist\n" +
                               "TARN_INFO: TBL " + tbl_ + " tblpath isn't exist\n");
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(volume_journal, a_volume_with_a_table_but_no_index_fails_at_its_index) {
    remove(fri_.c_str());
    EXPECT_EQ(check_vol_journal(none_.count(), none_.values(), 0), -1);
    EXPECT_EQ(log_.count("ERR: check_fri_journal(#) Fail to load FRI " + fri_ + "\n"), 1u);
    EXPECT_EQ(replay_vol_journal(none_.count(), none_.values(), 0), -1);
    EXPECT_EQ(log_.count("ERR: replay_fri_journal(#) Fail to load FRI " + fri_ + "\n"), 1u);
    expect_everything_closed();
}

TEST_F(volume_journal, a_map_that_does_not_load_ends_the_replay_and_empties_the_handle_set) {
    make_maps(3);
    make_directories(volume() + "/@Snapshot/FAMILY_1");  // a directory: listed, and no file
    EXPECT_EQ(replay_vol_journal(none_.count(), none_.values(), 0), -1);
    EXPECT_EQ(log_.last(), "ERR: replay_vol_journal(#) Fail to load " + volume() +
                               "/@Snapshot/FAMILY_1 on volumes " + volume() +
                               " for replaying TBL\n");
    EXPECT_EQ(printed("REPLAY TBL"), 0u);
    EXPECT_EQ(lookup_handle(uuid_of_number(0).data(), FILE_TYPE_MAP), nullptr);
    expect_everything_closed();
}

TEST_F(volume_journal, a_list_that_cannot_be_made_ends_the_walk) {
    make_empty_file(volume() + "/@EP_trash");  // not a directory
    EXPECT_EQ(check_vol_journal(none_.count(), none_.values(), 0), -1);
    EXPECT_EQ(log_.last(),
              "ERR: check_vol_journal(#) Fail to enum all vaailuns on volumes " + volume() + "\n");
    EXPECT_EQ(replay_vol_journal(none_.count(), none_.values(), 0), -1);
    EXPECT_EQ(log_.last(),
              "ERR: replay_vol_journal(#) Fail to enum all vaailuns on volumes " + volume() + "\n");
    EXPECT_EQ(printed("REPLAY TBL"), 0u);
}

TEST_F(volume_journal, all_volumes_are_replayed_and_the_last_one_stays_in_volpath) {
    make_sample_volume(volumes_.volume(2), 0x22);
    make_jnl(jnl_, JNL_STATUS_ABNORMAL,
             {tbl_block(uuid_of(0x11), 5, 0x8003), tbl_block(uuid_of(0x22), 6, 0x8004)});
    EXPECT_EQ(check_all_vol_journal(none_.count(), none_.values()), -1);
    EXPECT_EQ(opt_ctx.volpath, volumes_.volume(1));  // the first failure ends the loop
    EXPECT_EQ(replay_all_vol_journal(none_.count(), none_.values(), 0), 0);
    EXPECT_EQ(opt_ctx.volpath, volumes_.volume(2));
    EXPECT_EQ(tbl_word_of(tbl_, 5), 0x8003);
    EXPECT_EQ(tbl_word_of(volumes_.volume(2) + "/@EP/EP_TBL", 6), 0x8004);
    EXPECT_EQ(check_all_vol_journal(none_.count(), none_.values()), 0);
    EXPECT_EQ(opt_ctx.volpath, volumes_.volume(2));
}

TEST_F(volume_journal, the_first_volume_that_fails_ends_the_replay_of_all) {
    make_sample_volume(volumes_.volume(2), 0x22);
    make_jnl(jnl_, JNL_STATUS_ABNORMAL, {tbl_block(uuid_of(0x22), 6, 0x8004)});
    remove(tbl_.c_str());
    EXPECT_EQ(replay_all_vol_journal(none_.count(), none_.values(), 0), -1);
    EXPECT_EQ(tbl_word_of(volumes_.volume(2) + "/@EP/EP_TBL", 6), 0);
}

TEST_F(volume_journal, leftover_words_stop_the_walk_over_all_volumes) {
    arguments check({"x"});
    EXPECT_EQ(check_all_vol_journal(check.count(), check.values()), -1);
    arguments replay({"x"});
    EXPECT_EQ(replay_all_vol_journal(replay.count(), replay.values(), 0), -1);
    EXPECT_EQ(out_.text(), "none-option argv element:x \nnone-option argv element:x \n");
}

TEST_F(volume_journal, a_failing_enumeration_ends_the_walk_over_all_volumes) {
    volumes_.let_platform_fail();
    EXPECT_EQ(check_all_vol_journal(none_.count(), none_.values()), -1);
    EXPECT_EQ(log_.last(), "ERR: check_all_vol_journal(#) Fail to enum all volumes\n");
    EXPECT_EQ(replay_all_vol_journal(none_.count(), none_.values(), 0), -1);
    EXPECT_EQ(log_.last(), "ERR: replay_all_vol_journal(#) Fail to enum all volumes\n");
}

TEST_F(volume_journal, without_a_journal_path_a_volume_is_neither_checked_nor_replayed) {
    volumes_.let_platform_fail();
    EXPECT_EQ(check_vol_journal(none_.count(), none_.values(), 0), -1);
    EXPECT_EQ(replay_vol_journal(none_.count(), none_.values(), 0), -1);
    EXPECT_EQ(out_.text(), "TARN_INFO: CHECK volume " + volume() + "\n" +
                               "TARN_INFO: REPLAY volume " + volume() + "\n");
}
