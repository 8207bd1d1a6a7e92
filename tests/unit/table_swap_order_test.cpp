// The order of a swap's renames: the table before the index, and for each of them the live file to
// its backup before the rebuilt file to its name.
#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "store/descriptor.h"
#include "support/swap_fixture.h"

// The files of the four names before each rename.
static struct {
    bool links_fail;
    std::function<std::string()> names;
    std::vector<std::string> seen;
} history;

static io_verdict note_renames(io_call call, size_t wanted) {
    if (call == io_call::rename) {
        history.seen.push_back(history.names());
    }
    return {call == io_call::link && history.links_fail ? EPERM : 0, wanted};
}

class swap_order : public swap_fixture {
protected:
    // Table and its backup, index and its backup: before each rename, and at the end.
    std::vector<std::string> steps(bool links_fail) {
        EXPECT_EQ(table_swap_begin(&swap_), 0);
        const auto names = [this] {
            return names_of({inode_of(live("EP_TBL")), inode_of(live("EP_TBL.bkp")),
                             inode_of(live("EP_FRI")), inode_of(live("EP_FRI.bkp"))});
        };
        history = {links_fail, names, {}};
        io_fault = note_renames;
        EXPECT_EQ(table_swap_finish(&swap_), 0);
        io_fault = nullptr;
        history.seen.push_back(names());
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
