#include "campaign/power_cut.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "campaign/copy_tree.h"

namespace fs = std::filesystem;

// Asks about one loose end after another; their numbers do not depend on the answers.
class asker {
public:
    explicit asker(const fate& decide) : decide_(decide) {}

    // How many of the changes are kept.
    size_t kept_of(const std::string& file, bool is_name, const std::vector<size_t>& changes) {
        const loose_end end = {next_++, file, is_name, changes};
        return decide_ == nullptr ? changes.size() : std::min(decide_(end), changes.size());
    }
    template <class Value>
    void settle(const std::string& file, history<Value>* all) {
        const auto first = all->changes.begin() + static_cast<ptrdiff_t>(all->covered);
        all->kept = all->covered;
        if (first != all->changes.end()) {
            all->kept += kept_of(file, false, {first, all->changes.end()});
        }
    }
    void settle(name_change* change) {
        change->kept = change->covered || change->kind == op_kind::remove_tree ||
                       kept_of(change->path, true, {change->op}) != 0;
        for (auto& [name, gone] : change->removed) {
            gone = change->covered || kept_of(name, true, {change->op}) != 0;
        }
    }

private:
    const fate& decide_;
    size_t next_ = 0;
};

static void settle(disk_past* past, const fate& decide) {
    asker asking(decide);
    for (name_change& change : past->changes) {
        asking.settle(&change);
    }
    for (const node_ref& file : past->nodes) {
        asking.settle(file->file, &file->size);
        asking.settle(file->file, &file->mode);
        for (auto& [number, one] : file->blocks) {
            asking.settle(file->file, &one);
        }
    }
}

static name_map names_left(const disk_past& past) {
    name_map names = past.before;
    for (const name_change& change : past.changes) {
        if (change.kind == op_kind::remove_tree) {
            remove_tree(&names, change.removed);
        } else if (change.kept) {
            (void)change_name(&names, change);
        }
    }
    return names;
}

static void write_node(const disk_node& file, const std::string& path) {
    if (!file.base.empty()) {
        copy_file_sparse(file.base, path);
    }
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0) << path;
    for (const auto& [number, one] : file.blocks) {
        const disk_block bytes = one.kept == 0 ? block_before(file, number) : one.left({});
        ASSERT_EQ(pwrite(fd, bytes.data(), DISK_BLOCK, static_cast<off_t>(number * DISK_BLOCK)),
                  static_cast<ssize_t>(DISK_BLOCK));
    }
    ASSERT_EQ(ftruncate(fd, static_cast<off_t>(file.size.left(file.base_size))), 0);
    ASSERT_EQ(fchmod(fd, static_cast<mode_t>(file.mode.left(file.base_mode))), 0);
    close(fd);
}

static void write_names(const name_map& names, const std::string& to) {
    std::map<const disk_node*, std::string> written;
    for (const auto& [name, file] : names) {
        const std::string path = to + "/" + name;
        if (file->is_directory) {
            ASSERT_EQ(mkdir(path.c_str(), static_cast<mode_t>(file->base_mode)), 0) << path;
            continue;
        }
        const auto [first, is_new] = written.insert({file.get(), path});
        if (is_new) {
            write_node(*file, path);
        } else {
            ASSERT_EQ(link(first->second.c_str(), path.c_str()), 0) << path;
        }
    }
}

std::vector<loose_end> loose_ends(disk_past* past) {
    std::vector<loose_end> ends;
    settle(past, [&](const loose_end& end) {
        ends.push_back(end);
        return end.changes.size();
    });
    return ends;
}

void write_state(disk_past* past, const fate& decide, const std::string& to) {
    settle(past, decide);
    ASSERT_TRUE(fs::create_directory(to));
    write_names(names_left(*past), to);
}
