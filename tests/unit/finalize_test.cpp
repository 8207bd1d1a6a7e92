#include <cerrno>
#include <gtest/gtest.h>
#include <string>

#include "cli/operations.h"
#include "fri/fri_file.h"
#include "options.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/paths.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/stdout_capture.h"
#include "tbl/tbl_file.h"
#include "volume/consistency.h"

class finalize_command : public testing::Test {
protected:
    finalize_command() {
        make_sample_volume(volumes_.volume(1), 0x11);
        snprintf(opt_ctx.tblpath, sizeof opt_ctx.tblpath, "%s", tbl().c_str());
        snprintf(opt_ctx.fripath, sizeof opt_ctx.fripath, "%s", fri().c_str());
    }
    ~finalize_command() override {
        EXPECT_EQ(current_tbl.fd, 0);
        EXPECT_EQ(current_fri.fd, 0);
    }

    std::string tbl() const { return volumes_.volume(1) + "/@EP/EP_TBL"; }
    std::string fri() const { return volumes_.volume(1) + "/@EP/EP_FRI"; }

    sample_volumes volumes_;
    log_capture log_;
};

TEST_F(finalize_command, of_an_index_without_groups_sets_its_count_to_the_capacity) {
    stdout_capture out;
    EXPECT_EQ(finalize(), 0);
    EXPECT_EQ(fri_group_count_of(fri()), 0x1F800000u);
    EXPECT_EQ(fri_group_head_of(fri()), 0u);
}

TEST_F(finalize_command, logs_the_file_that_does_not_load) {
    unlink(tbl().c_str());
    EXPECT_EQ(finalize(), -1);
    EXPECT_TRUE(log_.has("ERR: finalize(#) Fail to load TBL " + tbl() + "\n"));
    unlink(fri().c_str());
    EXPECT_EQ(finalize(), -1);
    EXPECT_TRUE(log_.has("ERR: finalize(#) Fail to load FRI " + fri() + "\n"));
}

TEST_F(finalize_command, logs_that_the_groups_could_not_be_linked) {
    const single_entry_path path;
    set_header_u64(fri(), 64, 72, 1);  // one group to link
    set_fri_word(fri(), 0, 0);         // which is not in a hole
    uint64_t loading_reads = 0;
    {
        const io_fault_at count(0, 0, {io_call::read});
        ASSERT_EQ(load_fri(fri().c_str()), 0);
        ASSERT_EQ(load_tbl(tbl().c_str()), 0);
        loading_reads = count.calls();
        close_fri();
        close_tbl();
    }
    stdout_capture out;
    const io_fault_at fault(loading_reads + 1, EIO, {io_call::read});
    EXPECT_EQ(finalize(), -1);
    EXPECT_TRUE(log_.has("ERR: finalize(#) Fail to finalize the link process\n"));
}
