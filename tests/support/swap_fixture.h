// A volume whose table and index were rebuilt and wait in the work directory: live files of uuid
// 11..., rebuilt ones of uuid 22... and 33....
#pragma once

#include <array>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>

#include "options.h"
#include "support/begun_swap.h"
#include "support/log_capture.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "volume/table_swap.h"

inline uint64_t inode_of(const std::string& path) {
    struct stat64 status = {};
    return lstat64(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

class swap_fixture : public testing::Test {
protected:
    swap_fixture() {
        make_sample_volume(root(), 0x11);
        put_rebuilt_files(root(), 0x22, 0x33);
        snprintf(opt_ctx.volpath, sizeof opt_ctx.volpath, "%s", root().c_str());
        EXPECT_EQ(table_swap_form(&swap_, root().c_str()), 0);
        for (const char* name : {"EP_TBL", "EP_FRI"}) {
            original_.push_back(inode_of(live(name)));
            rebuilt_.push_back(inode_of(fix(name)));
        }
    }

    std::string root() const { return volumes_.volume(1); }
    std::string live(const std::string& name) const { return root() + "/@EP/" + name; }
    std::string fix(const std::string& name) const { return root() + "/@EP_FIX/" + name; }
    int begin_and_finish() {
        return table_swap_begin(&swap_) == 0 && table_swap_finish(&swap_) == 0 ? 0 : -1;
    }
    // Like the next run of the program.
    int find_and_finish() {
        EXPECT_EQ(table_swap_form(&swap_, root().c_str()), 0);
        EXPECT_EQ(table_swap_find(&swap_), swap_found::marker);
        return table_swap_finish(&swap_);
    }
    // "TABLE BACKUP, INDEX BACKUP" of these four inodes: original, rebuilt, another or none.
    std::string names_of(const std::array<uint64_t, 4>& inodes) const {
        std::string text;
        for (size_t i = 0; i < inodes.size(); i++) {
            text += i == 0 ? "" : i == 2 ? ", " : " ";
            text += inodes[i] == 0                  ? "none"
                    : inodes[i] == original_[i / 2] ? "original"
                    : inodes[i] == rebuilt_[i / 2]  ? "rebuilt"
                                                    : "another";
        }
        return text;
    }
    void expect_swapped() const {
        EXPECT_EQ(inode_of(live("EP_TBL")), rebuilt_[0]);
        EXPECT_EQ(inode_of(live("EP_FRI")), rebuilt_[1]);
        EXPECT_EQ(inode_of(live("EP_TBL.bkp")), original_[0]);
        EXPECT_EQ(inode_of(live("EP_FRI.bkp")), original_[1]);
        EXPECT_FALSE(file_exists(live("EP_TBL.bkp.new")));
        EXPECT_FALSE(file_exists(live("EP_FRI.bkp.new")));
        EXPECT_FALSE(file_exists(fix("swap")));
    }
    // Nothing is lost: a table and an index are live, and the originals have a name.
    void expect_nothing_lost() const {
        for (size_t i = 0; i < 2; i++) {
            const std::string path = live(i == 0 ? "EP_TBL" : "EP_FRI");
            const uint64_t now = inode_of(path);
            EXPECT_TRUE(now == original_[i] || now == rebuilt_[i]) << path;
            EXPECT_TRUE(now == original_[i] || inode_of(path + ".bkp") == original_[i]) << path;
            EXPECT_TRUE(now == rebuilt_[i] ||
                        inode_of(fix(i == 0 ? "EP_TBL" : "EP_FRI")) == rebuilt_[i]);
        }
    }

    sample_volumes volumes_;
    log_capture log_;
    table_swap swap_;
    std::vector<uint64_t> original_;  // inodes: table, index
    std::vector<uint64_t> rebuilt_;
};
