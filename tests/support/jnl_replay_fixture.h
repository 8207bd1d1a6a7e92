// Shared by the tests of replay: the files, a ring that begins at block 1, a run and its lines.
#pragma once

#include <gtest/gtest.h>

#include "jnl/jnl_replay.h"
#include "store/descriptor.h"
#include "store/keep_journal.h"
#include "support/jnl_builder.h"
#include "support/log_capture.h"
#include "support/stdout_capture.h"

enum : int32_t { TBL_FILE = 1, FRI_FILE = 2, VAR0 = 3, MAP_FILE = 4 };

class jnl_replay_fixture : public testing::Test {
protected:
    jnl_replay_fixture() { keep_journal_forget(); }
    ~jnl_replay_fixture() override { keep_journal_forget(); }

    // Keeps all lines except those about the unwritten block where the history ends.
    int replay(int32_t type) {
        history_.load();
        log_.clear();
        const int result = jnl_file_type_replay(type);
        lines_.clear();
        for (const std::string& line : log_.lines()) {
            if (line != "jnl_block_read(#) jnl block all zero value @block 0\n") {
                lines_.push_back(line);
            }
        }
        return result;
    }
    // Runs a type of file to which the newest block does not apply.
    void expect_untouched(int32_t type) {
        const std::string before = files_.all_bytes();
        EXPECT_EQ(replay(type), 0);
        EXPECT_EQ(lines_, log_lines({}));
        EXPECT_EQ(files_.all_bytes(), before);
    }
    // "ERR: __jnl_<kind>_type_replay(#) <text>\n"
    static std::string logged(const std::string& kind, const std::string& text) {
        return "ERR: __jnl_" + kind + "_type_replay(#) " + text + "\n";
    }
    // The message about a whole block of a history kind.
    static std::string blames(const std::string& kind, const std::string& word, int type,
                              uint64_t block) {
        return logged(kind, "Fail to replay " + word + " " + std::to_string(type) +
                                " type file, block_num " + std::to_string(block) + " entry 0");
    }

    journalled_files files_;
    raw_history history_{64, 1};
    stdout_capture out_;
    log_capture log_;
    std::vector<std::string> lines_;
};
