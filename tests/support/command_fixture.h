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
        make_dat(live("EP_DAT_00000"), 0x11, 0);
        make_filled_map(lun(), 63, 1, {{0, 300}});
        set_tbl_word(live("EP_TBL"), 300, 0x8001);
        jnl_block index = {};
        index.ej_header.jnl_entry_count = 1;
        index.entry[0].type = FILE_TYPE_FRI;
        memcpy(index.entry[0].uuid, uuid_of(0x11).data(), UUID_SIZE);
        index.entry[0].fri.new_entry = {0, 0, 0x8FFF};  // 4095 free extents from extent 0 on
        make_jnl(volumes_->journal(), status,
                 {xcopy_block(uuid_of_number(1), 300, 0x8001),
                  tbl_block(uuid_of(0x11), 300, 0x8001), index});
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
