// Every command closes the descriptors that it opened, on success and whichever of its calls fails.
#include <algorithm>
#include <cerrno>
#include <utility>

#include "fri/fri_file.h"
#include "jnl/jnl_file.h"
#include "map/map_file.h"
#include "store/descriptor.h"
#include "support/command_fixture.h"
#include "support/injected_failures.h"
#include "support/io_faults.h"
#include "support/open_files.h"
#include "support/standard_input.h"
#include "tbl/tbl_file.h"

class command_descriptors : public command_fixture {
protected:
    // The forms that read, and those that stop after their first load at the root of another
    // volume.
    std::vector<words> other_commands() const {
        const std::string journal = volumes_->journal();
        return {with_paths({"--ckjnl", "fri", "--jnlpath", journal}),
                with_paths({"--ckjnl", "tbl", "--jnlpath", journal}),
                with_paths({"--ckjnl", "map", "--jnlpath", journal}),
                with_paths({"--ckjnl", "vol", "--jnlpath", journal}),
                {"--ckvjnl"},
                {"--vaaick", "log"},
                with_paths({"--metack", "--jnlpath", journal}),
                with_paths({"--freeck"}),
                with_paths({"--check-map"}),
                with_paths({"--import"}),
                {"--search", "fri", "-m", "-p", live("EP_FRI")},
                {"--search", "tbl", "-m", "-p", live("EP_TBL")},
                {"--search", "map", "-m", "-p", lun()},
                {"--search", "jnl", "-m", "-p", journal},
                {"--punch", "-p", root(), "-o", "1", "-l", "1"},
                {"--ckvbuf"}};
    }
    std::vector<words> all_commands() const {
        std::vector<words> all = writing_commands();
        const std::vector<words> others = other_commands();
        all.insert(all.end(), others.begin(), others.end());
        return all;
    }
    static void expect_all_closed() {
        EXPECT_EQ(current_fri.fd, 0);
        EXPECT_EQ(current_tbl.fd, 0);
        EXPECT_EQ(current_map.fd, 0);
        EXPECT_EQ(current_jnl.fd, 0);
    }
    // An unmap buffer, and a volume of a map without table and index.
    void put_special_maps() const {
        make_filled_map(live("EP_BUF"), 63, 0, {});
        make_directories(volumes_->volume(2) + "/@EP");
        make_filled_map(volumes_->volume(2) + "/@iSCSITrg/LUN_Extent_1", 63, 0, {});
    }
    // The number of calls of the run. `failing`: the one that fails, 0 for none.
    uint64_t calls_of(const words& command, uint64_t failing, std::vector<io_call> kinds) {
        put_files(0xFFFFFFFF);
        put_special_maps();
        const standard_input yes("YES\n");
        const io_fault_at fault(failing, EIO, std::move(kinds));
        (void)run(command);
        return fault.calls();
    }
    // Expects everything to be closed. Returns false if something is still open.
    bool closes_all(const words& command, uint64_t failing, uint64_t* calls,
                    std::vector<io_call> kinds = {}) {
        const size_t before = open_files();
        *calls = calls_of(command, failing, std::move(kinds));
        expect_all_closed();
        EXPECT_EQ(open_files(), before)
            << testing::PrintToString(command) << ", failing call " << failing;
        return open_files() == before;
    }
};

TEST_F(command_descriptors, are_closed_whichever_call_fails) {
    put_files(0xFFFFFFFF);
    uint64_t first = 0;  // a different one for each command
    for (const words& command : all_commands()) {
        uint64_t calls = 0;
        bool closed = closes_all(command, 0, &calls);
        EXPECT_GT(calls, 0u);
        const uint64_t step = 2 * calls / injected_failures() + 1;
        for (uint64_t n = 1 + first++ % step; n <= calls && closed; n += step) {
            uint64_t ignored = 0;
            closed = closes_all(command, n, &ignored);
        }
    }
}

// A command that takes several locks releases those that it holds.
TEST_F(command_descriptors, are_closed_whichever_lock_is_held_by_another_run) {
    put_files(0xFFFFFFFF);
    uint64_t most = 0;
    for (const words& command : all_commands()) {
        uint64_t locks = 0;
        for (uint64_t n = 1; closes_all(command, n, &locks, {io_call::lock}) && locks >= n; n++) {
            most = std::max(most, n);
        }
    }
    EXPECT_EQ(most, 3u) << "the locks of two volumes and of the journal";
}
