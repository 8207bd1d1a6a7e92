// The order of a swap's renames: the table before the index, and for each of them the live file to
// its backup before the rebuilt file to its name.
#include <cerrno>
#include <string>
#include <vector>

#include "store/descriptor.h"
#include "support/swap_fixture.h"

// The files of the four names before each rename.
static struct {
    std::string live_dir;
    std::vector<uint64_t> original;  // inodes: table, index
    std::vector<uint64_t> rebuilt;
    bool links_fail;
    std::vector<std::string> seen;
} history;

static std::string file_at(const std::string& name, size_t which) {
    const uint64_t inode = inode_of(history.live_dir + name);
    if (inode == 0) {
        return "none";
    }
    return inode == history.original[which]  ? "original"
           : inode == history.rebuilt[which] ? "rebuilt"
                                             : "another";
}

static void note_names() {
    history.seen.push_back(file_at("EP_TBL", 0) + " " + file_at("EP_TBL.bkp", 0) + ", " +
                           file_at("EP_FRI", 1) + " " + file_at("EP_FRI.bkp", 1));
}

static io_verdict note_renames(io_call call, size_t wanted) {
    if (call == io_call::rename) {
        note_names();
    }
    return {call == io_call::link && history.links_fail ? EPERM : 0, wanted};
}

class swap_order : public swap_fixture {
protected:
    // Table and its backup, index and its backup: before each rename, and at the end.
    std::vector<std::string> steps(bool links_fail) {
        EXPECT_EQ(table_swap_begin(&swap_), 0);
        history = {root() + "/@EP/", original_, rebuilt_, links_fail, {}};
        io_fault = note_renames;
        EXPECT_EQ(table_swap_finish(&swap_), 0);
        io_fault = nullptr;
        note_names();
        return history.seen;
    }
};

TEST_F(swap_order, is_the_backup_of_the_table_the_table_the_backup_of_the_index_the_index) {
    EXPECT_EQ(steps(false), (std::vector<std::string>{
                                "original none, original none",         // to EP_TBL.bkp
                                "original original, original none",     // to EP_TBL
                                "rebuilt original, original none",      // to EP_FRI.bkp
                                "rebuilt original, original original",  // to EP_FRI
                                "rebuilt original, rebuilt original",
                            }));
}

TEST_F(swap_order, is_the_same_without_links) {
    EXPECT_EQ(steps(true), (std::vector<std::string>{
                               "original none, original none",
                               "none original, original none",
                               "rebuilt original, original none",
                               "rebuilt original, none original",
                               "rebuilt original, rebuilt original",
                           }));
}
