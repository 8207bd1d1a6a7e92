// Commands run from their command line, on a sound volume.
#pragma once

#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "options.h"
#include "support/log_capture.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/stdout_capture.h"

using words = std::vector<std::string>;

class command_fixture : public testing::Test {
protected:
    std::string root() const { return volumes_->volume(1); }
    std::string live(const std::string& name) const { return root() + "/@EP/" + name; }
    std::string lun() const { return root() + "/@iSCSITrg/LUN_Extent_1"; }

    // Volume 1 is sound: a map of one extent, counted in the table, and a journal that records one
    // change of each kind of file. Volume 2 is not a volume.
    void put_files(uint32_t status) {
        volumes_.reset();  // removes the old tree before the new one is made
        volumes_ = std::make_unique<sample_volumes>();
        make_sample_volume(root(), 0x11);
        make_jnl(volumes_->journal(), status, put_mapped_lun(root(), 4095));
    }
    int run(const words& command) {
        opt_ctx = option_record{};
        arguments run(command);
        const stdout_capture out;
        return run_command(run.count(), run.values());
    }
    // The words followed by the paths of volume 1.
    words with_paths(words command) const {
        const words paths = {"--fripath", live("EP_FRI"), "--tblpath", live("EP_TBL"),
                             "--mappath", lun(),          "--volpath", root()};
        command.insert(command.end(), paths.begin(), paths.end());
        return command;
    }
    // The forms that write; each of them makes a change that needs a sync.
    std::vector<words> writing_commands() const {
        const std::string made = root() + "/made";
        const std::string journal = volumes_->journal();
        return {with_paths({"--rpjnl", "fri", "--jnlpath", journal}),
                with_paths({"--rpjnl", "tbl", "--jnlpath", journal}),
                with_paths({"--rpjnl", "map", "--jnlpath", journal}),
                with_paths({"--rpjnl", "vol", "--jnlpath", journal}),
                {"--rpvjnl"},
                {"--startup-replay"},
                {"--set-status", "ro"},
                with_paths({"--vaaifix"}),
                {"--create", "fri", "--path", made, "--oldpath", live("EP_FRI")},
                {"--create", "tbl", "--path", made, "--oldpath", live("EP_TBL")},
                {"--create", "map", "--path", made, "--oldpath", lun()},
                with_paths({"--change-uuid", "fri"}),
                with_paths({"--change-uuid", "tbl"}),
                with_paths({"--import-volume"}),
                with_paths({"--finalize"}),
                with_paths({"--reconstruct"}),
                with_paths({"--fullck"}),
                {"--onekeycheck"},
                with_paths({"--onekeyrepair"})};
    }

    std::unique_ptr<sample_volumes> volumes_ = std::make_unique<sample_volumes>();
    log_capture log_;
};
