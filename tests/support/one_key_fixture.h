// A volume for the one-key procedures, and runs of both that keep their output.
#pragma once

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "cli/operations.h"
#include "fri/fri_file.h"
#include "map/map_file.h"
#include "options.h"
#include "support/log_capture.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "support/stdout_capture.h"
#include "tbl/tbl_file.h"
#include "volume/one_key.h"

// Volume 1 has one map, lea 0 in extent 1; its table is all noise. There is no journal.
class one_key : public testing::Test {
protected:
    one_key() { make_volume(1); }
    ~one_key() override {
        EXPECT_EQ(current_tbl.fd, 0);
        EXPECT_EQ(current_fri.fd, 0);
        EXPECT_EQ(current_map.fd, 0);
    }

    void make_volume(unsigned number) const {
        make_sample_volume(root(number), 0x11);
        make_dat(live("EP_DAT_00000", number), 0x77, 0);
        make_filled_map(map(number), 63, 1, {{0, 1}});
        set_tbl_word(live("EP_TBL", number), 1, 0x8009);
    }
    std::string root(unsigned number = 1) const { return volumes_.volume(number); }
    std::string live(const std::string& name, unsigned number = 1) const {
        return root(number) + "/@EP/" + name;
    }
    std::string map(unsigned number = 1) const { return root(number) + "/@iSCSITrg/LUN_Extent_1"; }

    sample_volumes volumes_;
    log_capture log_;
};

class one_key_repair_of_a_volume : public one_key {
protected:
    one_key_repair_of_a_volume() {
        snprintf(opt_ctx.volpath, sizeof opt_ctx.volpath, "%s", root().c_str());
    }
    int repair() {
        stdout_capture out;
        const int result = one_key_repair(words_.count(), words_.values(), 0);
        text_ = out.text();
        return result;
    }

    arguments words_{{}};
    std::string text_;
};

class one_key_check : public one_key {
protected:
    int check(std::vector<std::string> options = {}) {
        arguments words(std::move(options));
        stdout_capture out;
        const int result = one_key_check_all_vol(words.count(), words.values(), 0);
        text_ = out.text();
        return result;
    }
    bool printed(const std::string& part) const { return text_.find(part) != std::string::npos; }

    std::string text_;
};
