// Every whole-volume procedure on both paths, the bulk path and the single-entry path, on random
// volumes, many of them damaged: the same lines on standard output and in the log, the same result,
// the same bytes in every file. And with calls to the system that fail, on either path: a result
// that says so, or a recorded reason, or the bytes of the run that nothing disturbed.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "cli/operations.h"
#include "fri/fri_entries.h"
#include "map/map_file.h"
#include "options.h"
#include "store/descriptor.h"
#include "store/keep_journal.h"
#include "support/injected_failures.h"
#include "support/log_capture.h"
#include "support/paths.h"
#include "support/random_volume.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/stdout_capture.h"
#include "tbl/tbl_file.h"
#include "tbl/tbl_show.h"
#include "volume/consistency.h"
#include "volume/full_check.h"
#include "volume/import.h"
#include "volume/import_volume.h"
#include "volume/map_check.h"
#include "volume/reconstruct.h"
#include "volume/volume_paths.h"

static constexpr size_t FAILURE_LINES_MAX = 40;  // of the log, for one failing call
// For each procedure, others for each.
#ifdef __SANITIZE_ADDRESS__
static constexpr unsigned VOLUMES = 10;
#else
static constexpr unsigned VOLUMES = 40;
#endif

static uint64_t volume_seed;  // of the volume that a procedure runs on

struct outcome {
    int result;
    uint64_t failures;  // recorded as reasons to keep the journal
    std::string output;
    std::vector<std::string> log;
    std::string contents;
};

static int check_loaded() {
    const int result = load_map(opt_ctx.mappath) != 0
                           ? -1
                           : do_check_map(opt_ctx.map_kind, opt_ctx.repair, opt_ctx.volpath);
    close_map();
    return result;
}

static int import_loaded() {
    int result = -1;
    if (load_fri(opt_ctx.fripath) == 0 && load_tbl(opt_ctx.tblpath) == 0 &&
        load_map(opt_ctx.mappath) == 0) {
        result = import_loaded(opt_ctx.mappath, opt_ctx.map_kind, opt_ctx.volpath);
    }
    close_map();
    close_tbl();
    close_fri();
    return result;
}

static int rebuild_for_repair() {
    return do_import_volume(FIX_DIR);
}

// Live files that a reconstruction left, and that are right where the maps are sound.
static void put_rebuilt_in_place() {
    const std::string root = opt_ctx.volpath;
    if (do_reconstruct_volume() == 0) {
        std::filesystem::rename(root + "/@EP_FIX/EP_TBL", root + "/@EP/EP_TBL");
        std::filesystem::rename(root + "/@EP_FIX/EP_FRI", root + "/@EP/EP_FRI");
    }
}

// One entry of the live table changed; where it is free before and after, nothing is wrong.
static void change_one_rebuilt_entry() {
    const std::string table = opt_ctx.tblpath;
    put_rebuilt_in_place();
    randomness random(volume_seed);
    const uint64_t lpa = below(random, 5 * TBL_GROUP_ENTRIES);
    const auto flipped = static_cast<uint16_t>(1u << below(random, 16));
    set_tbl_word(table, lpa, static_cast<uint16_t>(tbl_word_of(table, lpa) ^ flipped));
}

// Lists of a rebuilt volume that run into used entries, loop, end early or end in a used tail, and
// groups whose next one lies outside the index. Every other volume stays as it was rebuilt.
static void damage_rebuilt_lists() {
    const option_record live = opt_ctx;  // a reconstruction turns the paths to its own files
    put_rebuilt_in_place();
    opt_ctx = live;
    randomness random(volume_seed);
    if (one_in(random, 2)) {
        return;
    }
    for (uint64_t i = 1 + below(random, 4); i > 0; i--) {
        const uint64_t lpa = below(random, RANDOM_GROUPS * TBL_GROUP_ENTRIES);
        const uint64_t next = below(random, TBL_GROUP_ENTRIES);
        const uint64_t marks =
            uint64_t{TBL_USED_BIT} * below(random, 2) | uint64_t{TBL_TAIL_BIT} * below(random, 2);
        set_tbl_word(opt_ctx.tblpath, lpa, static_cast<uint16_t>(next | marks));
    }
    if (one_in(random, 3)) {
        const uint64_t group = below(random, RANDOM_GROUPS);
        set_fri_word(opt_ctx.fripath, group,
                     fri_word_of(opt_ctx.fripath, group) ^ (1 + below(random, 7)) << 32);
    }
}

static int list_groups() {
    const int result = load_tbl(opt_ctx.tblpath);
    for (uint64_t group = 0; group < 5 && result == 0; group++) {
        (void)list_tbl_group_freelist(group, true, false);
    }
    close_tbl();
    return result;
}

static void take_as_it_is() {
}

struct procedure {
    const char* name;
    void (*prepare)();  // what the volume holds before
    int (*run)();
    int32_t kind;
    int32_t repair;
};
static const procedure procedures[] = {
    {"check", take_as_it_is, check_loaded, MAP_KIND_LUN, 0},
    {"check and repair", take_as_it_is, check_loaded, MAP_KIND_LUN, 1},
    {"check of an unmap buffer", take_as_it_is, check_loaded, MAP_KIND_UNMAP_BUFFER, 0},
    {"check and repair of an unmap buffer", take_as_it_is, check_loaded, MAP_KIND_UNMAP_BUFFER, 1},
    {"import", take_as_it_is, import_loaded, MAP_KIND_LUN, 0},
    {"import of an unmap buffer", take_as_it_is, import_loaded, MAP_KIND_UNMAP_BUFFER, 0},
    {"import of a volume", take_as_it_is, rebuild_for_repair, MAP_KIND_LUN, 0},
    {"import of a volume after repair", take_as_it_is, rebuild_for_repair, MAP_KIND_LUN, 1},
    {"finalize", take_as_it_is, finalize, MAP_KIND_LUN, 0},
    {"check of the free lists", take_as_it_is, check_freelist_consistent, MAP_KIND_LUN, 0},
    {"repair of the index", take_as_it_is, fix_fri_tbl_metadata_to_consistent, MAP_KIND_LUN, 0},
    {"full check", put_rebuilt_in_place, check_full_volume, MAP_KIND_LUN, 0},
    {"full check after a change", change_one_rebuilt_entry, check_full_volume, MAP_KIND_LUN, 0},
    {"listing of the free lists", take_as_it_is, list_groups, MAP_KIND_LUN, 0},
    {"check of damaged free lists", damage_rebuilt_lists, check_freelist_consistent, MAP_KIND_LUN,
     0},
    {"repair of an index of damaged lists", damage_rebuilt_lists,
     fix_fri_tbl_metadata_to_consistent, MAP_KIND_LUN, 0},
    {"listing of damaged free lists", damage_rebuilt_lists, list_groups, MAP_KIND_LUN, 0},
    {"reconstruction", take_as_it_is, do_reconstruct_volume, MAP_KIND_LUN, 0},
};

static void set_options(const std::string& root, const procedure& procedure) {
    opt_ctx = {};
    snprintf(opt_ctx.volpath, PATH_TEXT_SIZE, "%s", root.c_str());
    snprintf(opt_ctx.tblpath, PATH_TEXT_SIZE, "%s/@EP/EP_TBL", root.c_str());
    snprintf(opt_ctx.fripath, PATH_TEXT_SIZE, "%s/@EP/EP_FRI", root.c_str());
    snprintf(opt_ctx.mappath, PATH_TEXT_SIZE, "%s/@iSCSITrg/LUN_Extent_1", root.c_str());
    opt_ctx.map_kind = procedure.kind;
    opt_ctx.repair = procedure.repair;
}

// One failure under way: the n-th call of a kind, or that one and all after it. n 0: none, the
// calls are counted.
struct io_failure {
    io_call kind;
    uint64_t n;
    int error;
    bool for_good;
};
static struct {
    io_failure failure;
    std::map<io_call, uint64_t> calls;
} injected;

static io_verdict inject(io_call call, size_t wanted) {
    const io_failure& failure = injected.failure;
    const uint64_t n = ++injected.calls[call];
    const bool reached = failure.for_good ? n >= failure.n : n == failure.n;
    return {failure.n != 0 && call == failure.kind && reached ? failure.error : 0, wanted};
}

static outcome run_on(const std::string& root, uint64_t seed, const procedure& procedure,
                      const io_failure& failure = {}) {
    volume_seed = seed;
    put_random_volume(root, seed);
    set_options(root, procedure);
    log_capture log;
    stdout_capture output;
    outcome all;
    procedure.prepare();
    keep_journal_forget();
    injected = {failure, {}};
    {
        const fault_hook hook(inject);
        all.result = procedure.run();
    }
    all.failures = keep_journal_failures().count;
    all.output = output.text();
    all.log = log.lines();
    all.contents = contents_of(root);
    return all;
}

class both_paths : public testing::TestWithParam<size_t> {};

TEST_P(both_paths, give_the_same_lines_results_and_bytes) {
    const sample_volumes volumes;
    const std::string root = volumes.volume(1);
    const procedure& procedure = procedures[GetParam()];
    unsigned good = 0;
    const uint64_t first = GetParam() * VOLUMES;
    for (uint64_t seed = first; seed < first + VOLUMES; seed++) {
        const outcome by_runs = run_on(root, seed, procedure);
        const single_entry_path path;
        const outcome by_entries = run_on(root, seed, procedure);
        ASSERT_EQ(by_runs.result, by_entries.result) << procedure.name << ", volume " << seed;
        ASSERT_EQ(by_runs.output, by_entries.output) << procedure.name << ", volume " << seed;
        ASSERT_EQ(by_runs.log, by_entries.log) << procedure.name << ", volume " << seed;
        ASSERT_TRUE(by_runs.contents == by_entries.contents)
            << procedure.name << ", volume " << seed << ": the files differ";
        good += by_runs.result == 0 ? 1 : 0;
    }
    // The volumes are not all too damaged to say anything. A listing fails at a group whose list
    // has several heads, as most random ones have.
    EXPECT_TRUE(good > VOLUMES / 8 || procedure.run == list_groups);
}

// One of the calls that `calls` counts: a kind first, since some kinds are called most.
static io_failure any_failure(const std::map<io_call, uint64_t>& calls, randomness& random) {
    auto kind = calls.begin();
    std::advance(kind, below(random, calls.size()));
    const int errors[] = {EIO, ENOSPC, EACCES};
    return {kind->first, 1 + below(random, kind->second), errors[below(random, std::size(errors))],
            one_in(random, 2)};
}

static std::string shown(const io_failure& failure) {
    return "call " + std::to_string(failure.n) + (failure.for_good ? " and on" : "") + " of kind " +
           std::to_string(static_cast<int>(failure.kind)) + ", error " +
           std::to_string(failure.error);
}

// A display that fails; a work directory that stays when all is done.
static bool says_so_in_the_log_only(const procedure& procedure, const outcome& disturbed,
                                    const outcome& undisturbed) {
    if (procedure.run == list_groups) {
        return disturbed.log.size() > undisturbed.log.size();
    }
    return std::any_of(disturbed.log.begin(), disturbed.log.end(), [](const std::string& line) {
        return line.starts_with("ERR: remove_work_dir(");
    });
}

// What failed may not look like what passed.
static void expect_honest(const procedure& procedure, const outcome& disturbed,
                          const outcome& undisturbed) {
    EXPECT_LE(disturbed.log.size(), undisturbed.log.size() + FAILURE_LINES_MAX);
    if (disturbed.result != 0 || disturbed.failures != 0) {
        return;
    }
    if (says_so_in_the_log_only(procedure, disturbed, undisturbed)) {
        return;
    }
    EXPECT_EQ(undisturbed.result, 0);
    EXPECT_TRUE(disturbed.output == undisturbed.output) << "other lines are printed";
    EXPECT_TRUE(disturbed.contents == undisturbed.contents) << "the files differ";
}

TEST_P(both_paths, hide_no_failure) {
    const sample_volumes volumes;
    const std::string root = volumes.volume(1);
    const procedure& procedure = procedures[GetParam()];
    randomness random(GetParam());
    for (uint64_t i = 0; i < injected_failures() && !HasFailure(); i++) {
        const uint64_t seed = 10000 * GetParam() + i / 4;  // four failures on each volume
        std::optional<single_entry_path> path;
        if (i % 2 == 1) {
            path.emplace();
        }
        const outcome undisturbed = run_on(root, seed, procedure);
        const io_failure failure = any_failure(injected.calls, random);
        const outcome disturbed = run_on(root, seed, procedure, failure);
        SCOPED_TRACE(std::string(procedure.name) + (path ? ", entry by entry" : "") + ", volume " +
                     std::to_string(seed) + ", " + shown(failure));
        expect_honest(procedure, disturbed, undisturbed);
    }
}

INSTANTIATE_TEST_SUITE_P(over, both_paths,
                         testing::Range(size_t{0}, sizeof procedures / sizeof procedures[0]));
