// Writing the state file: it is replaced as a whole or not at all, whatever fails, and nothing else
// is ever replaced.
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

#include "ctl/check/state_file.h"
#include "ctl/support/sealed_state.h"
#include "ctl/whole_file.h"
#include "support/io_faults.h"
#include "support/scratch_file.h"

namespace fs = std::filesystem;

static std::string text_of(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

class save : public testing::Test {
protected:
    save() { testing::internal::CaptureStderr(); }
    ~save() override {
        if (!taken_) {
            (void)testing::internal::GetCapturedStderr();
        }
    }
    std::string errors() {
        taken_ = true;
        return testing::internal::GetCapturedStderr();
    }
    void put(const std::string& text) const {
        std::ofstream(path(), std::ios::binary | std::ios::trunc) << text;
    }
    [[nodiscard]] std::string path() const { return place_.file("state"); }
    [[nodiscard]] state_reading read() const { return read_state(path(), this_machine()); }
    [[nodiscard]] std::string only_file() const {
        std::string names;
        for (const auto& entry : fs::directory_iterator(place_.path())) {
            names += entry.path().filename().string() + " ";
        }
        return names;
    }
    // A state of this machine that was completed then.
    [[nodiscard]] static std::string old_state(uint64_t completed) {
        return state_text(state_of({}, this_machine(), completed));
    }

    scratch_dir place_;
    bool taken_ = false;
};

TEST_F(save, makes_a_file) {
    EXPECT_EQ(save_state(path(), {}, {}), 0);
    ASSERT_EQ(read().kind, state_kind::known);
    EXPECT_TRUE(read().record.history.empty());
    EXPECT_EQ(only_file(), "state ");
    EXPECT_EQ(fs::status(path()).permissions() & fs::perms::owner_all,
              fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(errors(), "");
}

TEST_F(save, carries_the_history_over) {
    put(old_state(1000));
    EXPECT_EQ(save_state(path(), {}, {}), 0);
    EXPECT_EQ(save_state(path(), {}, {}), 0);
    const state_record record = read().record;
    ASSERT_EQ(record.history.size(), 2u);
    EXPECT_EQ(record.history[0].completed, 1000u);
    EXPECT_GT(record.history[1].completed, 1000u);
    EXPECT_LE(record.history[1].completed, record.last.completed);
}

// 30 checks, this one among them.
TEST_F(save, keeps_the_last_30_checks) {
    state_record record = state_of({}, this_machine(), 1040);
    for (uint64_t time = 1000; time < 1040; time++) {
        record.history.push_back({time, {}});
    }
    put(state_text(record));
    EXPECT_EQ(save_state(path(), {}, {}), 0);
    const std::vector<state_moment> history = read().record.history;
    ASSERT_EQ(history.size(), 29u);
    EXPECT_EQ(history.front().completed, 1012u);
    EXPECT_EQ(history.back().completed, 1040u);
}

TEST_F(save, drops_a_history_of_the_future_and_puts_it_in_order) {
    state_record record = state_of({}, this_machine(), 1000);
    record.history = {{2000, {}}, {uint64_t{1} << 40, {}}, {500, {}}};
    put(state_text(record));
    EXPECT_EQ(save_state(path(), {}, {}), 0);
    const std::vector<state_moment> history = read().record.history;
    ASSERT_EQ(history.size(), 3u);
    EXPECT_EQ(history[0].completed, 500u);
    EXPECT_EQ(history[1].completed, 1000u);
    EXPECT_EQ(history[2].completed, 2000u);
}

TEST_F(save, replaces_a_damaged_file_and_says_so) {
    for (const std::string& text :
         {std::string(), old_state(1000).substr(0, 100), old_state(1000) + "x"}) {
        put(text);
        EXPECT_EQ(save_state(path(), {}, {}), 0);
        EXPECT_EQ(read().kind, state_kind::known);
    }
    const std::string line =
        "tarnctl: " + path() + ": it was cut or changed. It is replaced; its history is lost.\n";
    EXPECT_EQ(errors(), line + line + line);
}

// What must not be replaced keeps its bytes.
TEST_F(save, refuses_what_is_no_state_of_this_server) {
    const std::string mine = old_state(1000);
    const std::string machine = field_of(mine, "machine");
    for (const std::string& text :
         {std::string("journal_root = /x\n"), std::string("{}"),
          changed_state(mine, field_of(mine, "server"), "\"server\":\"stranger\""),
          changed_state(mine, machine, "\"machine\":\"x\""),
          changed_state(mine, "\"format\":1", "\"format\":2")}) {
        ASSERT_NE(text, "");
        put(text);
        EXPECT_EQ(save_state(path(), {}, {}), 32);
        EXPECT_EQ(text_of(path()), text);
    }
    const std::string lines = errors();
    const std::string head = "tarnctl: refused: the state is not written to " + path() + ": ";
    const std::string tail = ". Move it away, or name another file. The result above holds.\n";
    EXPECT_EQ(lines, head + "it is no state file of tarnctl" + tail + head +
                         "it is no state file of tarnctl" + tail + head +
                         "it is from another server, stranger" + tail + head +
                         "it is from another machine with this server's name" + tail + head +
                         "it was written by a newer version (format 2)" + tail);
}

TEST_F(save, refuses_links_directories_and_pipes) {
    put(old_state(1000));
    fs::create_symlink(path(), place_.file("link"));
    fs::create_directory(place_.file("directory"));
    ASSERT_EQ(mkfifo(place_.file("fifo").c_str(), 0600), 0);
    for (const char* name : {"link", "directory", "fifo"}) {
        EXPECT_EQ(save_state(place_.file(name), {}, {}), 32) << name;
    }
    EXPECT_TRUE(fs::is_symlink(place_.file("link")));
    EXPECT_EQ(text_of(path()), old_state(1000));
}

// A volume is known by its real path: a directory whose name only begins like it is not in it.
TEST_F(save, refuses_volumes_and_the_journal) {
    fs::create_directories(place_.file("v/below"));
    fs::create_directory(place_.file("v2"));
    fs::create_directory_symlink(place_.file("v"), place_.file("link"));
    server_files server;
    server.volumes.emplace_back();
    server.volumes[0].root = place_.file("link");
    server.volumes[0].state = volume_state::sound;
    server.journal = place_.file("v2/EP_JNL");
    for (const char* name : {"v/state", "v/below/state", "link/state", "v/../v/state", "v2/EP_JNL",
                             "v2/../v2/EP_JNL"}) {
        EXPECT_EQ(save_state(place_.file(name), {}, server), 32) << name;
        EXPECT_FALSE(fs::exists(place_.file(name))) << name;
    }
    EXPECT_EQ(save_state(place_.file("v2/state"), {}, server), 0);
}

TEST_F(save, fails_where_there_is_no_directory) {
    EXPECT_EQ(save_state(place_.file("no/state"), {}, {}), 8);
    EXPECT_EQ(errors(), "tarnctl: cannot write the state to " + place_.file("no/state") +
                            ": No such file or directory. The result above holds.\n");
}

// The old state or the new one, whole, and nothing beside it; and success only with the new one.
TEST_F(save, leaves_a_whole_file_whichever_call_fails) {
    const std::string before = old_state(1000);
    failed_calls failed;
    for (uint64_t n = 1;; n++) {
        put(before);
        int status = 0;
        bool fired = false;
        {
            const io_fault_at fault(n, ENOSPC);
            status = save_state(path(), {}, {});
            fired = failed.add(fault);
        }
        const std::string after = text_of(path());
        EXPECT_TRUE(after == before || read().kind == state_kind::known) << n << after;
        EXPECT_EQ(only_file(), "state ") << n;
        if (status == 0) {
            EXPECT_NE(after, before) << n;
        }
        if (!fired) {
            EXPECT_EQ(status, 0);
            break;
        }
    }
    const std::string calls = failed.in_order();
    EXPECT_TRUE(calls.ends_with("open write sync rename open sync")) << calls;
}

TEST_F(save, says_that_the_disk_is_full) {
    put(old_state(1000));
    {
        const io_fault_at fault(1, ENOSPC, {io_call::write});
        EXPECT_EQ(save_state(path(), {}, {}), 8);
    }
    {
        const io_fault_at fault(2, EIO, {io_call::sync});  // of the directory
        EXPECT_EQ(save_state(path(), {}, {}), 8);
    }
    EXPECT_EQ(errors(), "tarnctl: cannot write the state to " + path() +
                            ": No space left on device. The result above holds.\n"
                            "tarnctl: cannot write the state to " +
                            path() + ": Input/output error. The result above holds.\n");
}

TEST_F(save, goes_on_after_a_short_write) {
    const io_fault_at fault(1, 0, {io_call::write});
    EXPECT_EQ(save_state(path(), {}, {}), 0);
    EXPECT_TRUE(fault.fired());
    EXPECT_EQ(read().kind, state_kind::known);
}

TEST_F(save, removes_what_a_process_of_its_number_left) {
    const std::string left = path() + ".tmp." + std::to_string(getpid());
    std::ofstream(left) << "half";
    EXPECT_EQ(save_state(path(), {}, {}), 0);
    EXPECT_EQ(only_file(), "state ");
    EXPECT_EQ(read().kind, state_kind::known);
}
