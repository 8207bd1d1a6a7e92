#include "lab/crash.h"

#include <cstddef>
#include <cstring>

#include "lab/metadata.h"
#include "store/crc32c.h"

namespace lab {

constexpr uint64_t STREAM_CRASH = 2;

crash_plan plan_crash(uint64_t seed) {
    random_stream random = random_of(seed, STREAM_CRASH);
    crash_plan plan;
    const uint64_t torn = random_below(&random, 100);
    plan.torn = torn < 40   ? torn_kind::none
                : torn < 68 ? torn_kind::header_old
                : torn < 98 ? torn_kind::header_new
                            : torn_kind::damaged_start;
    plan.loss =
        static_cast<loss_kind>(random_below(&random, static_cast<uint64_t>(loss_kind::count)));
    plan.kept_percent = static_cast<unsigned>(random_between(&random, 5, 95));
    plan.salt = random_next(&random);
    return plan;
}

// A block whose first half only was written.
static jnl_block half_written(const jnl_block& block, const jnl_block& older) {
    jnl_block mixed = older;
    memcpy(&mixed, &block, sizeof block / 2);
    return mixed;
}

// Later blocks may be half written too if the header was written first; the search reads them.
static void tear_block(model* m, const transaction& t, uint64_t i, random_stream* random) {
    ring& journal = m->journal;
    jnl_block& place = journal.blocks[(journal.next_block + i) % journal.blocks.size()];
    const jnl_block older = place;
    const bool damaged_start = i == 0 && m->plan.torn == torn_kind::damaged_start;
    if (!damaged_start) {
        place = random_chance(random, 95) ? t.blocks[i] : half_written(t.blocks[i], older);
    } else if (random_chance(random, 50)) {
        place = half_written(t.blocks[i], older);
    } else {
        place = t.blocks[i];
        place.record[random_below(random, sizeof place.record)] ^= 0x10;
    }
}

void tear(model* m, transaction* t) {
    random_stream random = random_of(m->plan.salt, t->blocks.size());
    undo_writes(m, m->journal.commits + 1);
    stamp(m, t);
    const bool header_old = m->plan.torn == torn_kind::header_old;
    const uint64_t missing =
        random_below(&random, t->blocks.size());  // at least this one is missing
    const bool in_order = random_chance(&random, 50);
    for (uint64_t i = 0; i < t->blocks.size(); i++) {
        const bool start_is_damaged = i == 0 && m->plan.torn == torn_kind::damaged_start;
        const bool written = in_order ? i < missing : i != missing && random_chance(&random, 50);
        if (start_is_damaged || written || (header_old && random_chance(&random, 30))) {
            tear_block(m, *t, i, &random);
        }
    }
    if (!header_old) {
        name_in_header(&m->journal, *t);
    }
}

// The number of the block that holds the datum. Header blocks are all 0.
static uint64_t block_of(const datum& where) {
    switch (where.kind) {
        case datum_kind::tbl_entry:
            return tbl_block_of(where.key);
        case datum_kind::fri_entry:
            return fri_block_of(where.key);
        case datum_kind::map_entry:
            return map_node_of(where.key);
        default:
            return 0;
    }
}

static uint64_t name_of_file(const datum& where) {
    const bool of_map = where.kind == datum_kind::map_entry || where.kind == datum_kind::map_count;
    return where.file * 2 + (of_map ? 1 : 0);
}

static uint64_t name_of_block(const datum& where) {
    return scramble(scramble(static_cast<uint64_t>(where.kind), where.file), block_of(where));
}

// Whether write number `i` of those inside the budget reached the disk.
static bool reached_disk(const model& m, size_t i) {
    const metadata_write& write = m.writes[i];
    const uint64_t salt = m.plan.salt;
    const auto kept = [&m, salt](uint64_t name) {
        return scramble(salt, name) % 100 < m.plan.kept_percent;
    };
    const uint64_t chosen = salt % m.writes.size();
    switch (m.plan.loss) {
        case loss_kind::all:
            return false;
        case loss_kind::uniform:
            return kept(i);
        case loss_kind::all_but_one:  // are missing
            return i == chosen;
        case loss_kind::only_one:  // is missing
            return i != chosen;
        case loss_kind::by_commit:
            return kept(write.commit);
        case loss_kind::by_file:
            return kept(name_of_file(write.where));
        case loss_kind::by_block: {
            const uint64_t first = m.writes.front().commit - 1;
            const uint64_t span = m.journal.commits - first + 1;
            return write.commit <= first + scramble(salt, name_of_block(write.where)) % span;
        }
        default:
            return true;
    }
}

void lose_writes(model* m) {
    for (size_t i = m->writes.size(); i > 0; i--) {
        put_datum(m, m->writes[i - 1].where, m->writes[i - 1].before);
    }
    for (size_t i = 0; i < m->writes.size(); i++) {
        if (reached_disk(*m, i)) {
            put_datum(m, m->writes[i].where, m->writes[i].after);
        }
    }
}

static bool checksum_is_right(jnl_block block) {
    const uint32_t stored = block.checksum;
    seal(&block);
    const uint32_t right = block.checksum;
    return stored == right;
}

// The search reads the block that the header names. If that block was never written (a checksum of
// 0) or holds an older transaction, the search steps back to the previous transaction. It cannot
// step over a damaged block, and it cannot step back from the first transaction. In the latter case
// only transaction 1 at block 0 is known to be the first.
std::string reason_to_refuse(const model& m) {
    const ring& journal = m.journal;
    if (m.plan.torn == torn_kind::none || m.plan.torn == torn_kind::header_old ||
        (m.sample.transactions == 0 && !m.aged)) {
        return "";
    }
    const uint64_t start = journal.header.jnl_last_record_start;
    const jnl_block& first = journal.blocks[start];
    if (first.checksum != 0 && !checksum_is_right(first)) {
        return "the first block of the newest transaction is present but damaged";
    }
    const uint32_t id = journal.header.jnl_last_trans_id;
    if (journal.commits == 0 && (id != 1 || start != 0)) {
        return "the very first transaction is torn and is not transaction 1 at block 0";
    }
    return "";
}

std::string crash_in_words(const model& m) {
    constexpr const char* TORN[] = {
        "the newest transaction is complete",
        "the newest transaction is torn and not in the header yet",
        "the newest transaction is torn and the header names it",
        "the newest transaction's first block is damaged",
    };
    constexpr const char* LOST[] = {
        "no metadata write is missing",
        "all metadata writes are missing",
        "some metadata writes are missing",
        "all metadata writes but one are missing",
        "one metadata write is missing",
        "the metadata writes of whole commits are missing",
        "the metadata writes to whole files are missing",
        "some blocks hold what they held earlier",
    };
    static_assert(sizeof LOST / sizeof LOST[0] == static_cast<size_t>(loss_kind::count));
    return std::string(TORN[static_cast<size_t>(m.plan.torn)]) + "; in the last " +
           std::to_string(m.journal.budget) + " commits, " + LOST[static_cast<size_t>(m.plan.loss)];
}

}  // namespace lab
