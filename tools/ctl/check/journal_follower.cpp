#include "ctl/check/journal_follower.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>

#include "ctl/check/silence.h"
#include "jnl/jnl_block.h"
#include "jnl/jnl_walk.h"
#include "store/crc32c.h"
#include "view/header_view.h"

static constexpr size_t BLOCKS_MAX = 65536;  // 32 MiB

// What the ring holds, from the newest block back.
struct ring_history {
    std::vector<jnl_block> blocks;
    uint64_t newest;  // number in the ring of the first one
};

static int take_block(void* context, const jnl_block* block, uint64_t number, uint64_t) {
    auto* history = static_cast<ring_history*>(context);
    if (history->blocks.empty()) {
        history->newest = number;
    }
    if (history->blocks.size() < BLOCKS_MAX / 2) {
        history->blocks.push_back(*block);
    }
    return 0;
}

// A list that was cut in the middle of its oldest transaction begins with the next one.
static void drop_incomplete(std::vector<jnl_block>* blocks) {
    const auto begins = [](const jnl_block& block) { return block.ej_header.jnl_seq_num == 0; };
    blocks->erase(blocks->begin(), std::find_if(blocks->begin(), blocks->end(), begins));
}

bool journal_follower::begin(const std::string& path) {
    header_view view;
    fd_.emplace(open_header(path, JNL_CONST_NODES, JNL_VAR_NODES, &jnl_.header, &view));
    jnl_.fd = fd_->get();
    const uint64_t total = jnl_.header.jnl_total_count;
    if (jnl_.fd == 0 || view.bad_nodes != 0 || total == 0) {
        return false;
    }
    ring_history history = {{}, 0};
    const silence out(stdout);
    if (jnl_walk_commits(&jnl_, ~uint32_t{0}, "check", take_block, &history) < 0) {
        return false;
    }
    blocks_ = std::move(history.blocks);
    std::reverse(blocks_.begin(), blocks_.end());
    drop_incomplete(&blocks_);
    if (blocks_.empty()) {
        return false;
    }
    last_id_ = blocks_.back().ej_header.jnl_transid;
    first_id_ = last_id_;
    next_ = jnl_next_block(history.newest, total);
    last_start_ = blocks_.size() - 1 - blocks_.back().ej_header.jnl_seq_num;
    return true;
}

// The next transaction, if all of its blocks are there. Sets lost_ when a later one is in its
// place.
bool journal_follower::take_next() {
    const size_t before = blocks_.size();
    uint64_t at = next_;
    for (;;) {
        jnl_block block = {};
        if (jnl_block_get(&jnl_, &block, at) != jnl_block_state::good ||
            block.ej_header.jnl_transid != last_id_ + 1 ||
            block.ej_header.jnl_seq_num != blocks_.size() - before) {
            const auto ahead = static_cast<int32_t>(block.ej_header.jnl_transid - last_id_);
            lost_ = lost_ || ahead > 1 || blocks_.size() >= BLOCKS_MAX;
            blocks_.resize(before);
            return false;
        }
        blocks_.push_back(block);
        at = jnl_next_block(at, jnl_.header.jnl_total_count);
        if (block.ej_header.jnl_flags == JNL_FLAG_LAST) {
            last_start_ = before;
            last_id_++;
            next_ = at;
            return true;
        }
    }
}

bool journal_follower::poll() {
    while (!lost_ && take_next()) {
    }
    return !lost_;
}

static void seal(jnl_header* header) {
    auto* bytes = reinterpret_cast<uint8_t*>(header);
    for (size_t at = 0; at < sizeof *header; at += META_NODE_SIZE) {
        meta_node node;
        memcpy(&node, bytes + at, sizeof node);
        node.checksum = 0;
        uint32_t checksum = 0;
        tarn_crc32c(&node, sizeof node, &checksum);
        memcpy(bytes + at, &checksum, sizeof checksum);
    }
}

static bool write_at(int fd, const void* bytes, size_t size, uint64_t offset) {
    return io_write_at(fd, bytes, size, offset) == static_cast<ssize_t>(size);
}

bool journal_follower::write(const std::string& path) const {
    jnl_header header = jnl_.header;
    const uint64_t budget = jnl_commit_budget(&header);
    const uint64_t widened = (budget + (last_id_ - first_id_) + 1) / 2;
    header.jnl_sync_count = static_cast<uint32_t>(std::min<uint64_t>(widened, ~uint32_t{0} / 2));
    header.jnl_total_count = blocks_.size();
    header.jnl_last_trans_id = last_id_;
    header.jnl_last_record_start = last_start_;
    header.jnl_empty_record_start = 0;  // the ring is full
    seal(&header);
    const int opened = io_open(path.c_str(), O_RDWR | O_NONBLOCK, 0);
    if (opened <= 0) {
        return false;
    }
    const scoped_fd fd(opened);
    constexpr size_t CONST_SIZE = JNL_CONST_NODES * META_NODE_SIZE;
    const auto* bytes = reinterpret_cast<const uint8_t*>(&header);
    return write_at(opened, bytes, CONST_SIZE, 0) &&
           write_at(opened, bytes + CONST_SIZE, sizeof header - CONST_SIZE,
                    META_VAR_NODE_BASE * META_NODE_SIZE) &&
           write_at(opened, blocks_.data(), blocks_.size() * sizeof(jnl_block),
                    METADATA_DATA_OFFSET);
}
