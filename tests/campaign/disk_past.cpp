#include "campaign/disk_past.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

disk_node::~disk_node() {
    if (base_fd >= 0) {
        close(base_fd);
    }
}

static std::string parent_of(const std::string& name) {
    const size_t slash = name.rfind('/');
    return slash == std::string::npos ? "" : name.substr(0, slash);
}

static bool is_below(const std::string& name, const std::string& directory) {
    return name == directory || name.rfind(directory + "/", 0) == 0;
}

static std::string file_system_of(const std::string& name) {
    return name.substr(0, name.find('/'));
}

static std::string below_root(const cut_run& run, const std::string& path) {
    return fs::path(path).lexically_normal().lexically_relative(run.root).string();
}

static node_ref new_node(disk_past* past, const std::string& name) {
    past->nodes.push_back(std::make_shared<disk_node>());
    past->nodes.back()->file = name;
    return past->nodes.back();
}

static void take_tree(const cut_run& run, disk_past* past) {
    std::map<file_id, node_ref> copies;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(run.before)) {
        const std::string name = entry.path().lexically_relative(run.before);
        struct stat status = {};
        ASSERT_EQ(lstat(entry.path().c_str(), &status), 0);
        node_ref& file = copies[{status.st_dev, status.st_ino}];
        if (file == nullptr) {
            file = new_node(past, name);
            file->base = entry.path();
            file->base_fd = open(file->base.c_str(), O_RDONLY | O_CLOEXEC);
            file->base_size = static_cast<uint64_t>(status.st_size);
            file->base_mode = status.st_mode & 07777;
            file->is_directory = S_ISDIR(status.st_mode);
        }
        past->before[name] = file;
    }
    for (const auto& [id, name] : run.files) {
        past->by_id[id] = past->before.at(name);
    }
    past->now = past->before;
}

disk_block block_before(const disk_node& file, uint64_t number) {
    disk_block bytes = {};
    if (!file.base.empty()) {
        EXPECT_GE(
            pread(file.base_fd, bytes.data(), DISK_BLOCK, static_cast<off_t>(number * DISK_BLOCK)),
            0);
    }
    return bytes;
}

static disk_block block_now(const disk_node& file, uint64_t number) {
    const auto found = file.blocks.find(number);
    return found != file.blocks.end() ? found->second.values.back() : block_before(file, number);
}

static void take_write(const operation& op, size_t at, disk_node* file) {
    const uint64_t end = op.number + op.bytes.size();
    for (uint64_t pos = op.number; pos < end;) {
        const uint64_t number = pos / DISK_BLOCK;
        const uint64_t part = std::min(end, (number + 1) * DISK_BLOCK) - pos;
        disk_block bytes = block_now(*file, number);
        memcpy(bytes.data() + pos % DISK_BLOCK, op.bytes.data() + (pos - op.number), part);
        file->blocks[number].add(at, bytes);
        pos += part;
    }
    if (end > file->size.now(file->base_size)) {
        file->size.add(at, end);
    }
}

// The numbers of the blocks from `first` on that held data before the run.
static std::vector<uint64_t> base_blocks_from(const disk_node& file, uint64_t first) {
    std::vector<uint64_t> numbers;
    auto at = static_cast<off_t>(first * DISK_BLOCK);
    while (!file.base.empty() && (at = lseek(file.base_fd, at, SEEK_DATA)) >= 0) {
        numbers.push_back(static_cast<uint64_t>(at) / DISK_BLOCK);
        at = static_cast<off_t>((numbers.back() + 1) * DISK_BLOCK);
    }
    return numbers;
}

// Data beyond the new end is gone. No file is cut in the middle of a block.
static void take_truncation(const operation& op, size_t at, disk_node* file) {
    const uint64_t first = (op.number + DISK_BLOCK - 1) / DISK_BLOCK;
    ASSERT_TRUE(op.number % DISK_BLOCK == 0 || op.number >= file->size.now(file->base_size));
    for (const uint64_t number : base_blocks_from(*file, first)) {
        (void)file->blocks[number];
    }
    for (auto one = file->blocks.lower_bound(first); one != file->blocks.end(); ++one) {
        one->second.add(at, {});
    }
    file->size.add(at, op.number);
}

static bool rename_file(name_map* names, const name_change& change) {
    const auto from = names->find(change.path);
    const auto to = names->find(change.other);
    if (from == names->end()) {
        return false;
    }
    const node_ref file = from->second;
    if (to == names->end() || to->second != file) {  // if both are names of one file, both stay
        names->erase(from);
        (*names)[change.other] = file;
    }
    return true;
}

bool change_name(name_map* names, const name_change& change) {
    const std::string parent = parent_of(change.other.empty() ? change.path : change.other);
    const auto found = names->find(change.path);
    if (!parent.empty() && names->count(parent) == 0) {
        return false;
    }
    switch (change.kind) {
        case op_kind::create:
            (*names)[change.path] = change.made;
            return true;
        case op_kind::mkdir:
            return names->emplace(change.path, change.made).second;
        case op_kind::rename:
            return rename_file(names, change);
        case op_kind::link:
            if (found != names->end()) {
                (*names)[change.other] = found->second;
            }
            return found != names->end();
        default:
            return names->erase(change.path) == 1;
    }
}

void remove_tree(name_map* names, const std::map<std::string, bool>& removed) {
    for (auto name = removed.rbegin(); name != removed.rend(); ++name) {  // leaves first
        const auto next = names->upper_bound(name->first);
        const bool empty = next == names->end() || !is_below(next->first, name->first);
        if (name->second && empty) {
            names->erase(name->first);
        }
    }
}

static std::map<std::string, bool> names_below(const name_map& names,
                                               const std::string& directory) {
    std::map<std::string, bool> found;
    for (const auto& [name, file] : names) {
        if (is_below(name, directory)) {
            found[name] = true;
        }
    }
    return found;
}

// The change is durable, and so is the one that gave the file its old name, directory included.
static void cover_change(disk_past* past, size_t index, bool with_directory) {
    name_change& change = past->changes[index];
    change.covered = true;
    if (change.needs != NO_CHANGE) {
        cover_change(past, change.needs, true);
    }
    const auto directory = past->makers.find(parent_of(change.path));
    if (with_directory && directory != past->makers.end()) {
        cover_change(past, directory->second, true);
    }
}

static void cover_node(disk_node* file) {
    file->size.covered = file->size.changes.size();
    file->mode.covered = file->mode.changes.size();
    for (auto& [number, one] : file->blocks) {
        one.covered = one.changes.size();
    }
}

static void take_made(const operation& op, disk_past* past, name_change* change) {
    change->made = new_node(past, change->path);
    change->made->is_directory = op.kind == op_kind::mkdir;
    change->made->base_mode = op.kind == op_kind::mkdir ? 0700 : op.number;
    if (op.kind == op_kind::create) {
        past->by_id[op.file] = change->made;
    }
}

static void take_name_change(const cut_run& run, const operation& op, size_t at, disk_past* past) {
    name_change change = {op.kind, at, below_root(run, op.path), "", nullptr, NO_CHANGE, false,
                          false,   {}};
    const auto maker = past->makers.find(change.path);
    const size_t made_by = maker != past->makers.end() ? maker->second : NO_CHANGE;
    const size_t index = past->changes.size();
    past->makers.erase(change.path);
    if (op.kind == op_kind::rename || op.kind == op_kind::link) {
        change.other = below_root(run, op.other);
        change.needs = made_by;
        past->makers[change.other] = index;
        if (op.kind == op_kind::link && made_by != NO_CHANGE) {
            past->makers[change.path] = made_by;
        }
    } else if (op.kind == op_kind::create || op.kind == op_kind::mkdir) {
        take_made(op, past, &change);
        past->makers[change.path] = index;
    }
    if (op.kind == op_kind::remove_tree) {
        change.removed = names_below(past->now, change.path);
        remove_tree(&past->now, change.removed);
    } else {
        ASSERT_TRUE(change_name(&past->now, change)) << "operation " << at << " " << change.path;
    }
    past->changes.push_back(change);
}

// The directory that holds the name.
static std::string changed_directory(const name_change& change) {
    return parent_of(change.other.empty() ? change.path : change.other);
}

static void take_directory_sync(const std::string& directory, disk_past* past) {
    for (size_t i = 0; i < past->changes.size(); i++) {
        if (changed_directory(past->changes[i]) == directory) {
            cover_change(past, i, false);
        }
    }
}

static void take_full_sync(const std::string& file_system, disk_past* past) {
    for (size_t i = 0; i < past->changes.size(); i++) {
        if (file_system_of(changed_directory(past->changes[i])) == file_system) {
            cover_change(past, i, false);
        }
    }
    for (const node_ref& file : past->nodes) {
        if (file_system_of(file->file) == file_system) {
            cover_node(file.get());
        }
    }
}

static void take_data(const operation& op, size_t at, disk_past* past) {
    const auto found = past->by_id.find(op.file);
    ASSERT_TRUE(found != past->by_id.end()) << "operation " << at << " on an unknown file";
    disk_node* file = found->second.get();
    switch (op.kind) {
        case op_kind::write:
            return take_write(op, at, file);
        case op_kind::truncate:
            return take_truncation(op, at, file);
        case op_kind::mode:
            return file->mode.add(at, op.number);
        default:
            return cover_node(file);
    }
}

static void take_operation(const cut_run& run, size_t at, disk_past* past) {
    const operation& op = run.operations[at];
    const auto found = past->by_id.find(op.file);
    switch (op.kind) {
        case op_kind::write:
        case op_kind::truncate:
        case op_kind::mode:
        case op_kind::sync_file:
            return take_data(op, at, past);
        case op_kind::sync_directory:
            return take_directory_sync(below_root(run, op.path), past);
        case op_kind::sync_all:
            return take_full_sync(
                file_system_of(found != past->by_id.end() ? found->second->file
                                                          : below_root(run, op.path)),
                past);
        default:
            return take_name_change(run, op, at, past);
    }
}

disk_past past_of(const cut_run& run, size_t at) {
    disk_past past;
    take_tree(run, &past);
    for (size_t op = 0; op < at && !testing::Test::HasFatalFailure(); op++) {
        take_operation(run, op, &past);
    }
    return past;
}
