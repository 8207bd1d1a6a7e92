// The replay into memory, held against the built program: what is read through the overlay is what
// start-up replay makes of a second, equal sample; and the first sample stays as it was.
#include "ctl/check/replay_memory.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "ctl/support/everything.h"
#include "fri/fri_file.h"
#include "jnl/jnl_file.h"
#include "journal_status.h"
#include "map/map_file.h"
#include "store/log.h"
#include "store/overlay.h"
#include "support/mask.h"
#include "support/open_files.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"
#include "system/support/lab_sample.h"
#include "system/support/private_root.h"
#include "system/support/shell.h"
#include "tbl/tbl_file.h"

namespace fs = std::filesystem;

static constexpr size_t PLENTY = 1 << 20;  // blocks

// Paths below the root of all files of both volumes, ascending.
static std::set<std::string> volume_files(const std::string& root) {
    std::set<std::string> files;
    for (const std::string volume : {"/volume1", "/volume2"}) {
        for (const auto& entry : fs::recursive_directory_iterator(root + volume)) {
            if (entry.is_regular_file()) {
                files.insert(entry.path().lexically_relative(root));
            }
        }
    }
    return files;
}

static bool is_zero(const std::vector<uint8_t>& bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == 0; });
}

// Whether both files have the same bytes at `offset`, read through the seam and past it; the seam
// must not call them a hole unless they are zero.
static bool same_bytes(int seen, int disk, uint64_t offset, size_t len) {
    std::vector<uint8_t> one(len);
    std::vector<uint8_t> other(len);
    const ssize_t got = io_read_at(seen, one.data(), len, offset);
    return got > 0 && pread(disk, other.data(), len, static_cast<off_t>(offset)) == got &&
           one == other &&
           (is_zero(one) || io_next_data(seen, offset, offset + len) < offset + len);
}

// Compares a whole file as the seam shows it with one on the disk: where neither has data, both are
// zero. "" if they are equal.
static std::string difference(const std::string& name, int seen, int disk) {
    struct stat64 status = {};
    if (fstat64(disk, &status) != 0 || io_size(seen) != status.st_size) {
        return name + " has " + std::to_string(io_size(seen)) + " bytes";
    }
    const auto size = static_cast<uint64_t>(status.st_size);
    constexpr size_t STEP = 4096;  // what a file system has or has not
    uint64_t at = 0;
    while (at < size) {
        const off_t found = lseek(disk, static_cast<off_t>(at), SEEK_DATA);
        const uint64_t on_disk = found < 0 ? size : static_cast<uint64_t>(found);
        at = std::min(io_next_data(seen, at, size), on_disk);
        if (at < size && !same_bytes(seen, disk, at, STEP)) {
            return name + " differs at byte " + std::to_string(at) + " or soon after";
        }
        at += STEP;
    }
    return "";
}

static std::string first_difference(const std::string& seen_root, const std::string& disk_root) {
    const std::set<std::string> names = volume_files(disk_root);
    if (volume_files(seen_root) != names) {
        return "the names differ";
    }
    for (const std::string& name : names) {
        const scoped_fd seen(io_open((seen_root + "/" + name).c_str(), O_RDONLY, 0));
        const scoped_fd disk(open((disk_root + "/" + name).c_str(), O_RDONLY | O_CLOEXEC));
        const std::string found = difference(name, seen.get(), disk.get());
        if (!found.empty()) {
            return found;
        }
    }
    return "";
}

static std::string end_of(const memory_replay& replay) {
    static const char* const ENDS[] = {"not needed", "replayed", "refused"};
    std::string words = ENDS[static_cast<size_t>(replay.end)];
    if (replay.status) {
        char status[16];
        snprintf(status, sizeof status, " %08x", *replay.status);
        words += status;
    }
    return words + (replay.ran_out ? ", ran out" : "");
}

// The same, and the log.
static std::string words_of(const memory_replay& replay) {
    std::string words = end_of(replay);
    for (const std::string& line : replay.log) {
        words += "\n" + mask_line_number(line);
    }
    return words;
}

static void use_sample(const std::string& sample) {
    setenv("TARN_PLATFORM_CONF", (sample + "/platform.conf").c_str(), 1);
}

// In a process that is told where the sample is: the platform's configuration is read once. The
// result is words_of.
static std::string replay_words(const std::string& sample, size_t blocks = PLENTY) {
    return in_a_process_of_its_own([&] {
        use_sample(sample);
        const io_overlay overlay(blocks);
        return words_of(replay_into_memory(overlay));
    });
}

// The same, compared with an equal sample that the program has replayed.
static std::string replay_and_compare(const std::string& sample, const std::string& replayed) {
    use_sample(sample);
    const io_overlay overlay(PLENTY);
    const bool lost = !first_difference(sample, replayed).empty();
    const memory_replay replay = replay_into_memory(overlay);
    if (replay.end != replay_end::replayed) {
        return words_of(replay);
    }
    const std::string found = first_difference(sample, replayed);
    return end_of(replay) + (lost ? "; changes were lost" : "; nothing was lost") +
           (found.empty() ? "" : "; " + found);
}

static constexpr const char* REPLAYED = "replayed ffffffff; changes were lost";

// Two equal samples of a seed; the program has replayed one of them.
class two_samples {
public:
    explicit two_samples(unsigned seed)
        : seen(make_sample(place_, "seen", seed, " --crash")),
          replayed(make_sample(place_, "replayed", seed, " --crash")),
          status(tarn_on(replayed, "--startup-replay").status) {}

private:
    scratch_dir place_;

public:
    std::string seen;
    std::string replayed;
    int status;  // of start-up replay
};

class replay_memory : public testing::TestWithParam<unsigned> {};

TEST_P(replay_memory, reads_like_start_up_replay_and_leaves_every_byte_and_time) {
    unsigned lost = 0;
    for (unsigned seed = GetParam(); seed < GetParam() + 10; seed++) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const two_samples samples(seed);
        const auto before = everything(samples.seen);
        const std::string words = in_a_process_of_its_own(
            [&samples] { return replay_and_compare(samples.seen, samples.replayed); });
        EXPECT_EQ(everything(samples.seen), before);
        if (samples.status != 0) {
            EXPECT_EQ(words.rfind("refused ffffffff\nERR: ", 0), 0u) << words;
        } else if (words != "replayed ffffffff; nothing was lost") {
            EXPECT_EQ(words, REPLAYED);
            lost++;
        }
    }
    EXPECT_GE(lost, 5u);
}

INSTANTIATE_TEST_SUITE_P(seeds_from, replay_memory, testing::Values(1u, 11u, 21u));

TEST(replay_memory_of_a_sample, works_where_everything_is_mounted_read_only) {
    const std::string reason = why_no_private_root();
    if (!reason.empty() && getenv("TARN_TESTS_SKIP_NOTHING") == nullptr) {
        GTEST_SKIP() << reason;
    }
    const two_samples samples(5);
    ASSERT_EQ(samples.status, 0);
    const scratch_dir root;
    const std::string words = in_a_process_of_its_own([&]() -> std::string {
        const std::string problem = enter_private_root(
            root.path(),
            {{samples.seen, samples.seen, true}, {samples.replayed, samples.replayed, false}});
        const std::string table = samples.seen + "/volume1/@EP/EP_TBL";
        if (!problem.empty() || open(table.c_str(), O_RDWR | O_CLOEXEC) >= 0 || errno != EROFS) {
            return "no read-only mount: " + problem;
        }
        return replay_and_compare(samples.seen, samples.replayed);
    });
    EXPECT_EQ(words, REPLAYED);
}

// Of this seed's crash, the first block of the newest transaction is there and damaged.
TEST(replay_memory_of_a_sample, refuses_what_start_up_replay_refuses) {
    const two_samples samples(23);
    EXPECT_EQ(samples.status, 255);
    const std::string words = replay_words(samples.seen);
    EXPECT_EQ(words.rfind("refused ffffffff\n", 0), 0u) << words;
    EXPECT_NE(words.find("Can't determine the last complete commit"), std::string::npos) << words;
}

// One crashed sample, two volumes.
class replay_memory_of_one : public testing::Test {
protected:
    scratch_dir place_;
    const std::string sample_ = make_sample(place_, "s", 5, " --crash");
    const std::string journal_ = sample_ + "/journal/EP_JNL";
};

TEST_F(replay_memory_of_one, is_not_needed_without_a_journal_or_after_a_clean_shutdown) {
    fs::remove(journal_);
    EXPECT_EQ(replay_words(sample_), "not needed");
    make_jnl(journal_, JNL_STATUS_INIT, {});
    EXPECT_EQ(replay_words(sample_), "not needed 00000000");
    fs::remove(journal_);
    make_jnl(journal_, JNL_STATUS_SUCCESS, {});
    EXPECT_EQ(replay_words(sample_), "not needed 25521814");
}

TEST_F(replay_memory_of_one, refuses_a_journal_that_is_marked_bad_or_unknown) {
    fs::remove(journal_);
    make_jnl(journal_, JNL_STATUS_BAD, {});
    EXPECT_EQ(replay_words(sample_), "refused 66656800\nERR: replay_into_memory(#) the journal " +
                                         journal_ + " is marked bad");
    fs::remove(journal_);
    make_jnl(journal_, 0x1234, {});
    EXPECT_EQ(replay_words(sample_), "refused 00001234\nERR: replay_into_memory(#) the journal " +
                                         journal_ + " has the unknown status 00001234");
}

TEST_F(replay_memory_of_one, refuses_while_a_volume_is_missing) {
    fs::rename(sample_ + "/volume2", sample_ + "/elsewhere");
    const std::string volume = sample_ + "/volume2";
    EXPECT_EQ(replay_words(sample_),
              "refused ffffffff\nERR: vaai_startup_replay(#) volume " + volume + " is not there");
    fs::create_directory(volume);
    EXPECT_EQ(replay_words(sample_), "refused ffffffff\nERR: vaai_startup_replay(#) volume " +
                                         volume + " is an empty directory: is it mounted?");
}

TEST_F(replay_memory_of_one, says_that_the_overlay_ran_out) {
    const std::string words = replay_words(sample_, 3);
    EXPECT_EQ(words.rfind("refused ffffffff, ran out\nERR: ", 0), 0u) << words;
}

TEST_F(replay_memory_of_one, writes_nothing_when_its_overlay_is_not_on) {
    const auto before = everything(sample_);
    const std::string words = in_a_process_of_its_own([this] {
        use_sample(sample_);
        const io_overlay overlay(PLENTY);
        io_overlay_on = nullptr;
        return words_of(replay_into_memory(overlay));
    });
    EXPECT_EQ(words, "refused\nERR: replay_into_memory(#) nothing to write into, or no silence");
    EXPECT_EQ(everything(sample_), before);
}

TEST_F(replay_memory_of_one, prints_nothing_and_leaves_nothing_open) {
    fs::remove_all(sample_ + "/volume1/@EP_trash");  // the listing complains on standard error
    const std::string words = in_a_process_of_its_own([this]() -> std::string {
        use_sample(sample_);
        scratch_file printed;
        for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
            dup2(printed.fd(), fd);
        }
        const io_overlay overlay(PLENTY);
        const size_t open_before = open_files();
        const memory_replay replay = replay_into_memory(overlay);
        printf("after");
        (void)fflush(stdout);
        (void)write(STDERR_FILENO, "wards", 5);
        const bool closed = current_tbl.fd == 0 && current_fri.fd == 0 && current_map.fd == 0 &&
                            current_jnl.fd == 0 && log_sink == nullptr;
        const std::vector<uint8_t> text = printed.bytes(0, printed.size());
        return end_of(replay) + "; " + std::string(text.begin(), text.end()) +
               (open_files() == open_before ? "" : "; something is open") +
               (closed ? "" : "; something is current");
    });
    EXPECT_EQ(words, "replayed ffffffff; afterwards");
}

TEST_F(replay_memory_of_one, can_be_done_again_on_what_it_left) {
    const std::string words = in_a_process_of_its_own([this] {
        use_sample(sample_);
        const io_overlay overlay(PLENTY);
        const memory_replay once = replay_into_memory(overlay);
        const size_t blocks = overlay.block_count();
        const memory_replay twice = replay_into_memory(overlay);
        return words_of(once) + "; " + words_of(twice) +
               (overlay.block_count() == blocks ? "" : "; more blocks");
    });
    EXPECT_EQ(words, "replayed ffffffff; replayed ffffffff");
}
