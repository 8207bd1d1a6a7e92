// Stop signals during the one-key procedures: where a run ends, and which files it leaves.
#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>

#include "support/begun_swap.h"
#include "support/io_faults.h"
#include "support/one_key_fixture.h"
#include "support/stop_signal_defaults.h"
#include "volume/stop_signals.h"
#include "volume/table_swap.h"

namespace fs = std::filesystem;

// Raises SIGTERM at the n-th call of a kind; `when` says which calls count, null: all.
static struct {
    io_call kind;
    uint64_t n;
    bool (*when)();
    uint64_t calls;
} stop_plan;

static io_verdict stop_there(io_call call, size_t wanted) {
    const bool counts = call == stop_plan.kind && (stop_plan.when == nullptr || stop_plan.when());
    if (counts && ++stop_plan.calls == stop_plan.n) {
        raise(SIGTERM);
    }
    return {0, wanted};
}

static bool no_table_is_open() {
    return current_tbl.fd == 0;
}

// Both rebuilt files were written; what follows is the sync of their directories.
static bool the_rebuild_is_closed() {
    return current_tbl.fd == 0 && current_fri.fd == 0 &&
           file_exists(std::string(opt_ctx.volpath) + "/@EP_FIX/EP_FRI");
}

class one_key_stopped : public one_key_repair_of_a_volume {
protected:
    one_key_stopped() { stop_signals_block(); }
    ~one_key_stopped() override {
        io_fault = nullptr;
        stop_signals_forget();
    }
    int repair_until(io_call kind, uint64_t n, bool (*when)() = nullptr) {
        stop_plan = {kind, n, when, 0};
        io_fault = stop_there;
        const int result = repair();
        io_fault = nullptr;
        EXPECT_GE(stop_plan.calls, n) << "no such call";
        EXPECT_EQ(log_.count("stops this run"), 1u);
        return result;
    }
    void expect_untouched() const {
        EXPECT_EQ(tbl_word_of(live("EP_TBL"), 1), 0x8009);
        EXPECT_FALSE(file_exists(live("EP_TBL.bkp")));
        EXPECT_FALSE(file_exists(root() + "/@EP_FIX"));
    }

    const stop_signal_defaults defaults_;
};

TEST_F(one_key_stopped, during_the_replay_rebuilds_nothing) {
    EXPECT_EQ(repair_until(io_call::open, 1), -1);
    EXPECT_EQ(text_.find("TARN_INFO: CHECK volume"), std::string::npos);
    expect_untouched();
}

TEST_F(one_key_stopped, during_the_rebuild_imports_no_further_map) {
    make_filled_map(root() + "/@iSCSITrg/LUN_Extent_2", 63, 1, {{0, 2}});
    EXPECT_EQ(repair_until(io_call::mkdir, 1), -1);
    EXPECT_NE(text_.find("TARN_INFO: import volume"), std::string::npos);
    EXPECT_EQ(text_.find("TARN_INFO: import MAP"), std::string::npos);
    expect_untouched();
}

TEST_F(one_key_stopped, after_the_last_map_swaps_nothing) {
    EXPECT_EQ(repair_until(io_call::sync, 1, the_rebuild_is_closed), -1);
    EXPECT_NE(text_.find("TARN_INFO: Rebuild EP_FRI"), std::string::npos);
    expect_untouched();
}

TEST_F(one_key_stopped, during_the_swap_completes_it) {
    stop_plan = {io_call::link, 1, nullptr, 0};
    io_fault = stop_there;
    EXPECT_EQ(repair(), 0);
    EXPECT_EQ(stop_plan.calls, 2u);
    EXPECT_FALSE(log_.has("stops this run"));
    EXPECT_EQ(tbl_word_of(live("EP_TBL"), 1), 0x8001);
    EXPECT_FALSE(file_exists(root() + "/@EP_FIX"));
}

TEST_F(one_key_stopped, before_an_interrupted_swap_is_finished_leaves_it_for_the_next_run) {
    put_begun_swap(root(), 0x22, 0x33);
    EXPECT_EQ(repair_until(io_call::stat, 1), -1);
    EXPECT_EQ(uuid_in(live("EP_TBL")), uuid_of(0x11));
    EXPECT_TRUE(file_exists(root() + "/@EP_FIX/swap"));
}

class one_key_check_stopped : public one_key_check {
protected:
    one_key_check_stopped() {
        set_tbl_word(live("EP_TBL"), 1, 0x8001);
        make_volume(2);
        set_tbl_word(live("EP_TBL", 2), 1, 0x8001);
        stop_signals_block();
        io_fault = stop_there;
    }
    ~one_key_check_stopped() override {
        io_fault = nullptr;
        stop_signals_forget();
    }

    const stop_signal_defaults defaults_;
};

TEST_F(one_key_check_stopped, before_the_first_volume_checks_none) {
    raise(SIGHUP);
    EXPECT_EQ(check(), -1);
    EXPECT_FALSE(printed("REPLAY volume"));
}

TEST_F(one_key_check_stopped, during_the_rebuild_imports_no_further_map) {
    stop_plan = {io_call::mkdir, 1, nullptr, 0};
    EXPECT_EQ(check(), -1);
    EXPECT_TRUE(printed("TARN_INFO: import volume " + root() + "\n"));
    EXPECT_FALSE(printed("import MAP"));
    EXPECT_FALSE(file_exists(root() + "/@EP_CHK"));
}

// The table was compared, and its directory is being removed.
TEST_F(one_key_check_stopped, after_the_table_checks_no_map) {
    stop_plan = {io_call::spawn, 1, no_table_is_open, 0};
    EXPECT_EQ(check(), -1);
    EXPECT_TRUE(printed("TARN_INFO: import MAP(" + map() + ")\n"));
    EXPECT_FALSE(printed("data-node"));
    EXPECT_FALSE(printed("Free-List"));
}
