// What a quick look sees while a service writes: a finding that was there for a moment only is
// none.
#include <cstdlib>
#include <gtest/gtest.h>

#include "ctl/health/facts.h"
#include "ctl/support/sealed.h"
#include "support/fault_hook.h"
#include "system/support/private_root.h"

static constexpr uint64_t LAST_ID = 4164;   // in the header of a journal, 4 bytes
static constexpr uint64_t INDEX_BYTE = 20;  // in the first node of an index

// What happens beside the look, before each of its calls.
static struct {
    std::string sample;
    uint64_t calls;
    bool moves;          // the journal gets a new transaction id
    uint64_t damage_at;  // call before which the index's header is damaged; 0: none
} beside;

static void damage_index() {
    const std::string index = beside.sample + "/volume1/@EP/EP_FRI";
    uint8_t byte = file_bytes(index, INDEX_BYTE, 1)[0];
    byte ^= 1;
    write_file_bytes(index, INDEX_BYTE, &byte, 1);
}

static io_verdict happen(io_call, size_t wanted) {
    beside.calls++;
    if (beside.moves) {
        const auto id = static_cast<uint32_t>(1000 + beside.calls);
        put_sealed(beside.sample + "/journal/EP_JNL", LAST_ID, &id, sizeof id);
    }
    if (beside.calls == beside.damage_at) {
        damage_index();
    }
    return {0, wanted};
}

// The codes of the findings, and how many calls were made, on a new sample.
struct facts_seen {
    std::string codes;
    uint64_t calls = 0;
};

static facts_seen facts_beside(bool moves, uint64_t damage_at) {
    const scratch_dir place;
    const std::string sample = make_sample(place, "s", 5, " --extents 500");
    const std::string words = in_a_process_of_its_own([&] {
        setenv("TARN_PLATFORM_CONF", (sample + "/platform.conf").c_str(), 1);
        beside = {sample, 0, moves, damage_at};
        const fault_hook hook(happen);
        const server_facts facts = gather_facts();
        std::string codes;
        for (const finding& one : facts.report.findings) {
            codes += " " + std::string(finding_row_of(one.code)->name);
        }
        return std::to_string(beside.calls) + codes + facts.problem;
    });
    const size_t blank = words.find(' ');
    return {blank == std::string::npos ? "" : words.substr(blank + 1), std::stoull(words)};
}

// There are four looks as long as the service writes. Each makes as many calls as the others; what
// is made once (reading the configuration) comes first, and is less than four calls.
TEST(health_facts, of_a_service_that_writes_count_if_two_looks_see_them) {
    EXPECT_EQ(facts_beside(false, 0).codes, "");
    EXPECT_EQ(facts_beside(false, 1).codes, "H01");
    const facts_seen moving = facts_beside(true, 0);
    EXPECT_EQ(moving.codes, "");
    const uint64_t of_a_look = moving.calls / 4;
    EXPECT_EQ(facts_beside(true, 1).codes, "H01");
    EXPECT_EQ(facts_beside(true, moving.calls - 2 * of_a_look + 1).codes, "H01");
    EXPECT_EQ(facts_beside(true, moving.calls - of_a_look + 1).codes, "");
    EXPECT_EQ(facts_beside(false, moving.calls - of_a_look + 1).codes, "");  // never reached
}
