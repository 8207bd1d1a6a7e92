// Power failures during a swap: the run is cut before each of its calls, and any part of the names
// that it changed and did not sync is lost. The next runs must end with a sound pair of files.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>
#include <unistd.h>

#include "cli/operations.h"
#include "store/descriptor.h"
#include "store/keep_journal.h"
#include "support/stdout_capture.h"
#include "support/swap_fixture.h"
#include "volume/one_key.h"

namespace fs = std::filesystem;

// Names below the volume's root, in both directories, and their inodes.
using names = std::map<std::string, uint64_t>;

// One change of names: what each of them leads to afterwards, 0 for nothing.
struct name_change {
    names to;
};

struct recorded_swap {
    std::string root;
    std::string vault;  // keeps a name for every inode
    bool links_fail;
    names first;
    names now;
    std::vector<name_change> pending;  // in their order
    names durable;
    std::set<names> outcomes;  // of every cut
};
static recorded_swap recording;

static names names_now() {
    names found;
    for (const char* directory : {"@EP", "@EP_FIX"}) {
        const std::string path = recording.root + "/" + directory;
        for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
            const std::string name = entry.path().filename();
            found[std::string(directory) + "/" + name] = inode_of(entry.path());
            const std::string kept = recording.vault + "/" + std::to_string(inode_of(entry.path()));
            (void)link(entry.path().c_str(), kept.c_str());  // already kept: the same file
        }
    }
    return found;
}

// The directory that is open to be synced; "" for none.
static std::string directory_being_synced() {
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code ignored;
        const std::string target = fs::read_symlink(entry.path(), ignored);
        for (const char* directory : {"@EP", "@EP_FIX"}) {
            if (target == recording.root + "/" + directory) {
                return directory;
            }
        }
    }
    return "";
}

static void apply_change(const name_change& change, names* to) {
    for (const auto& [name, inode] : change.to) {
        (*to)[name] = inode;
        if (inode == 0) {
            to->erase(name);
        }
    }
}

static void note_change() {
    const names after = names_now();
    name_change change;
    for (const auto& [name, inode] : recording.now) {
        if (after.find(name) == after.end()) {
            change.to[name] = 0;
        }
    }
    for (const auto& [name, inode] : after) {
        const auto before = recording.now.find(name);
        if (before == recording.now.end() || before->second != inode) {
            change.to[name] = inode;
        }
    }
    if (!change.to.empty()) {
        recording.pending.push_back(change);
    }
    recording.now = after;
}

// What a power failure leaves at this moment: every subset of the changes that are not synced.
static void note_outcomes() {
    for (unsigned subset = 0; subset < 1u << recording.pending.size(); subset++) {
        names outcome = recording.durable;
        for (size_t i = 0; i < recording.pending.size(); i++) {
            if ((subset >> i & 1) != 0) {
                apply_change(recording.pending[i], &outcome);
            }
        }
        recording.outcomes.insert(outcome);
    }
}

static void make_durable(const std::string& directory) {
    std::vector<name_change> rest;
    for (const name_change& change : recording.pending) {
        bool synced = false;
        for (const auto& [name, inode] : change.to) {
            synced = synced || name.rfind(directory + "/", 0) == 0;
        }
        if (synced) {
            apply_change(change, &recording.durable);
        } else {
            rest.push_back(change);
        }
    }
    recording.pending = rest;
}

static io_verdict record(io_call call, size_t wanted) {
    note_change();
    note_outcomes();
    if (call == io_call::sync && !directory_being_synced().empty()) {
        make_durable(directory_being_synced());
    }
    return {call == io_call::link && recording.links_fail ? EPERM : 0, wanted};
}

class swap_that_is_cut : public swap_fixture, public testing::WithParamInterface<bool> {
protected:
    swap_that_is_cut() {
        make_filled_map(root() + "/@iSCSITrg/LUN_Extent_1", 63, 1, {{0, 5}});
        make_dat(live("EP_DAT_00000"), 0x11, 0);
        make_tbl(live("EP_TBL.bkp"), uuid_of(0x55));
        recording = {};
        recording.root = root();
        recording.vault = volumes_.root() + "/vault";
        recording.links_fail = GetParam();
        make_directories(recording.vault);
        recording.first = recording.now = recording.durable = names_now();
    }

    void restore(const names& state) const {
        for (const char* directory : {"@EP", "@EP_FIX"}) {
            fs::remove_all(root() + "/" + directory);
            make_directories(root() + "/" + directory);
        }
        for (const auto& [name, inode] : state) {
            fs::create_hard_link(recording.vault + "/" + std::to_string(inode),
                                 root() + "/" + name);
        }
    }
    // The states that a cut between two renames leaves, in the order of the swap.
    static std::vector<std::string> states_between_renames() {
        if (recording.links_fail) {
            return {"original another, original none", "none original, original none",
                    "rebuilt original, original none", "rebuilt original, none original",
                    "rebuilt original, rebuilt original"};
        }
        return {"original another, original none", "original original, original none",
                "rebuilt original, original none", "rebuilt original, original original",
                "rebuilt original, rebuilt original"};
    }
    // Whether some cut left these four files, with or without the marker.
    bool has_outcome(const std::string& state, bool with_marker) const {
        const auto fits = [&](const names& outcome) {
            const auto inode = [&](const char* name) {
                const auto found = outcome.find(name);
                return found != outcome.end() ? found->second : 0;
            };
            return names_of({inode("@EP/EP_TBL"), inode("@EP/EP_TBL.bkp"), inode("@EP/EP_FRI"),
                             inode("@EP/EP_FRI.bkp")}) == state &&
                   (inode("@EP_FIX/swap") != 0) == with_marker;
        };
        return std::any_of(recording.outcomes.begin(), recording.outcomes.end(), fits);
    }
    int repair() {
        arguments words({});
        const stdout_capture out;
        keep_journal_forget();
        return one_key_repair(words.count(), words.values(), 0);
    }
    void expect_sound_pair(size_t outcome) {
        const bool begun = file_exists(fix("swap"));
        if (!recording.links_fail) {
            expect_nothing_lost();
        }
        const int result = repair();
        EXPECT_EQ(result, begun ? 0 : -1) << outcome;
        EXPECT_FALSE(file_exists(root() + "/@EP_FIX")) << outcome;
        const bool swapped = inode_of(live("EP_TBL")) == rebuilt_[0];
        EXPECT_TRUE(swapped || !begun) << outcome;
        if (swapped) {
            expect_swapped();
        } else {
            EXPECT_EQ(inode_of(live("EP_TBL")), original_[0]) << outcome;
            EXPECT_EQ(inode_of(live("EP_FRI")), original_[1]) << outcome;
        }
    }
};

TEST_P(swap_that_is_cut, ends_with_a_sound_pair_and_the_original_kept) {
    io_fault = record;
    EXPECT_EQ(begin_and_finish(), 0);
    io_fault = nullptr;
    note_change();
    note_outcomes();
    for (const std::string& state : states_between_renames()) {
        EXPECT_TRUE(has_outcome(state, true)) << "no cut left " << state;
    }
    EXPECT_TRUE(has_outcome("original another, original none", false)) << "not begun";
    EXPECT_TRUE(has_outcome("rebuilt original, rebuilt original", false)) << "finished";
    size_t number = 0;
    for (const names& outcome : recording.outcomes) {
        restore(outcome);
        expect_sound_pair(number++);
    }
}

INSTANTIATE_TEST_SUITE_P(without_links, swap_that_is_cut, testing::Bool());
