// bench-limit MODE EXTENTS TABLE DIRECTORY MAP...: the least work that each whole-volume command
// must do, with nothing in between. Every map is read once in large reads, every block's checksum
// is verified, every reference is counted, and every table block is read or written once.
//   read    reads the maps
//   crc     and verifies their blocks
//   count   and counts the references
//   fullck  and compares TABLE with the counts
//   import  or writes a table, as checksummed blocks, into DIRECTORY
//   recon   or writes a table whose free entries are linked, and its index
// EXTENTS is more than the highest extent in use.
// bench-limit rewrite TABLE: reads, verifies and rewrites the table's blocks that hold data.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <nmmintrin.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "fri/fri_format.h"
#include "map/map_format.h"
#include "store/data_node.h"
#include "tbl/tbl_format.h"

[[noreturn]] static void give_up(const char* what) {
    perror(what);
    exit(1);
}

// Zero bytes in huge pages; only those that are used take memory.
static void* zero_pages(size_t size) {
    constexpr size_t HUGE_PAGE = 2u << 20;
    void* memory = mmap(nullptr, size + HUGE_PAGE, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) {
        give_up("mmap");
    }
    const auto at = reinterpret_cast<uintptr_t>(memory);
    auto* aligned = static_cast<uint8_t*>(memory) + (HUGE_PAGE - at % HUGE_PAGE) % HUGE_PAGE;
    madvise(aligned, size, MADV_HUGEPAGE);
    return aligned;
}

// A block of a map or of the table; the upper half of its last word is its checksum.
struct block {
    uint64_t words[DATA_NODE_SIZE / sizeof(uint64_t)];
};
static_assert(sizeof(block) == DATA_NODE_SIZE);
static constexpr size_t LAST = DATA_NODE_SIZE / sizeof(uint64_t) - 1;
static constexpr uint64_t WITHOUT_CHECKSUM = 0xFFFFFFFF;

// Blocks of one transfer: they stay in the second-level cache while they are used.
static constexpr size_t RUN = 512;
static block* blocks;
static uint32_t checksums[RUN];

// The instruction's result is ready three cycles after its start: one block alone waits for it.
template <size_t LANES>
static void sum_blocks(const block* of, uint32_t* sums) {
    uint64_t rest[LANES];
    std::fill_n(rest, LANES, 0xFFFFFFFF);
    for (size_t at = 0; at < LAST; at++) {
        for (size_t lane = 0; lane < LANES; lane++) {
            rest[lane] = _mm_crc32_u64(rest[lane], of[lane].words[at]);
        }
    }
    for (size_t lane = 0; lane < LANES; lane++) {
        const uint64_t last = of[lane].words[LAST] & WITHOUT_CHECKSUM;
        sums[lane] = ~static_cast<uint32_t>(_mm_crc32_u64(rest[lane], last));
    }
}

static void sum_run(const block* of, size_t count) {
    size_t i = 0;
    for (; i + 4 <= count; i += 4) {
        sum_blocks<4>(of + i, checksums + i);
    }
    for (; i < count; i++) {
        sum_blocks<1>(of + i, checksums + i);
    }
}

static void verify(size_t count) {
    sum_run(blocks, count);
    for (size_t i = 0; i < count; i++) {
        const auto stored = static_cast<uint32_t>(blocks[i].words[LAST] >> 32);
        if (stored != 0 && stored != checksums[i]) {
            fprintf(stderr, "checksum mismatch\n");
            exit(1);
        }
    }
}

static void seal(block* first, size_t count) {
    sum_run(first, count);
    for (size_t i = 0; i < count; i++) {
        first[i].words[LAST] = (first[i].words[LAST] & WITHOUT_CHECKSUM) | uint64_t{checksums[i]}
                                                                               << 32;
    }
}

// References are dropped into the bucket of their part of the extents, and a full bucket is counted
// at once: the counters of a part stay in the first-level cache while it is.
static constexpr unsigned PART_SHIFT = 16;
static constexpr uint64_t PART_EXTENTS = uint64_t{1} << PART_SHIFT;
static constexpr uint32_t BUCKET_ENTRIES = 1u << 13;

// Counters of one byte. At the end their sum shows whether one wrapped: nothing is compared while
// they count.
struct counts {
    uint64_t extents;
    uint8_t* of;
    uint16_t* buckets;           // BUCKET_ENTRIES offsets for each part
    std::vector<uint32_t> fill;  // of each bucket
    uint64_t references;
    uint64_t highest;  // extent in use
};

static counts make_counts(uint64_t extents) {
    const uint64_t parts = extents / PART_EXTENTS + 1;
    counts made = {extents, nullptr, nullptr, std::vector<uint32_t>(parts), 0, 0};
    made.of = static_cast<uint8_t*>(zero_pages(parts * PART_EXTENTS));
    made.buckets = static_cast<uint16_t*>(zero_pages(parts * BUCKET_ENTRIES * sizeof(uint16_t)));
    return made;
}

static void count_bucket(counts& counts, uint64_t part) {
    uint8_t* of = counts.of + part * PART_EXTENTS;
    const uint16_t* entries = counts.buckets + part * BUCKET_ENTRIES;
    for (uint32_t i = 0; i < counts.fill[part]; i++) {
        of[entries[i]]++;
    }
    counts.fill[part] = 0;
}

// A node that maps MAP_NODE_ENTRIES sequential extents.
static bool is_one_run(const uint64_t* words) {
    if (words[MAP_NODE_ENTRIES - 1] - words[0] != MAP_NODE_ENTRIES - 1) {
        return false;
    }
    uint64_t different = 0;
    for (uint64_t i = 0; i < MAP_NODE_ENTRIES; i++) {
        different |= words[i] ^ (words[0] + i);
    }
    return different == 0 && (words[0] & MAP_MAPPED_BIT) != 0;
}

static void count_run(counts& counts, uint64_t first) {
    uint8_t* of = counts.of + first;
    for (uint64_t i = 0; i < MAP_NODE_ENTRIES; i++) {
        of[i]++;
    }
    counts.references += MAP_NODE_ENTRIES;
    counts.highest = std::max(counts.highest, first + MAP_NODE_ENTRIES - 1);
}

static void count_scattered(counts& counts, const uint64_t* words) {
    uint64_t references = 0;
    uint64_t highest = counts.highest;
    for (uint64_t slot = 0; slot < MAP_NODE_ENTRIES; slot++) {
        if ((words[slot] & MAP_MAPPED_BIT) == 0) {
            continue;
        }
        const uint64_t lpa = words[slot] & MAP_LPA_MASK;
        if (lpa >= counts.extents) {
            fprintf(stderr, "an extent past EXTENTS\n");
            exit(1);
        }
        const uint64_t part = lpa >> PART_SHIFT;
        uint32_t& fill = counts.fill[part];
        counts.buckets[part * BUCKET_ENTRIES + fill++] = static_cast<uint16_t>(lpa);
        if (fill == BUCKET_ENTRIES) {
            count_bucket(counts, part);
        }
        references++;
        highest = std::max(highest, lpa);
    }
    counts.references += references;
    counts.highest = highest;
}

static void count_node(counts& counts, const uint64_t* words) {
    const uint64_t first = words[0] & MAP_LPA_MASK;
    if (is_one_run(words) && first + MAP_NODE_ENTRIES <= counts.extents) {
        count_run(counts, first);
    } else {
        count_scattered(counts, words);
    }
}

static void check_sum(const counts& counts) {
    uint64_t sum = 0;
    for (uint64_t lpa = 0; lpa <= counts.highest; lpa++) {
        sum += counts.of[lpa];
    }
    if (sum != counts.references) {
        fprintf(stderr, "a counter wrapped\n");
        exit(1);
    }
}

// How far a mode goes.
enum class stage { read, verify, count };

static void read_map(const char* path, stage last, counts& counts) {
    const int fd = open(path, O_RDONLY);
    if (fd < 0) {
        give_up(path);
    }
    off_t offset = METADATA_DATA_OFFSET;
    for (ssize_t got = 0; (got = pread(fd, blocks, RUN * sizeof(block), offset)) > 0;) {
        const size_t count = static_cast<size_t>(got) / sizeof(block);
        if (last != stage::read) {
            verify(count);
        }
        for (size_t i = 0; last == stage::count && i < count; i++) {
            count_node(counts, blocks[i].words);
        }
        offset += got;
    }
    close(fd);
}

// The entries of a group, its free ones linked in ascending order; returns its entry in the index.
static uint64_t link_group(uint16_t* words, uint64_t group) {
    uint64_t free_count = 0;
    uint16_t next = TBL_TAIL_BIT;
    for (int i = TBL_GROUP_ENTRIES - 1; i >= 0; i--) {
        const bool is_free = words[i] == 0;
        words[i] = is_free ? next : words[i];
        next = is_free ? static_cast<uint16_t>(i) : next;
        free_count += is_free ? 1 : 0;
    }
    const uint64_t head = free_count != 0 ? next : 0;
    return (FRI_INIT_BIT | free_count) << 48 | head << 36 | (group + 1);
}

static bool expand_group(const uint8_t* of, uint16_t* words) {
    uint16_t has_free = 0;
    for (uint64_t i = 0; i < TBL_GROUP_ENTRIES; i++) {
        words[i] = static_cast<uint16_t>(of[i] != 0 ? TBL_USED_BIT | of[i] : 0);
        has_free |= static_cast<uint16_t>(of[i] == 0);
    }
    return has_free != 0;
}

// Blocks first .. first + count - 1 of the table that the counts give, in the middle of `words`.
struct table_run {
    uint64_t first;
    uint64_t count;
    uint64_t entries;  // of the whole table
    uint16_t* words;   // of the groups that the run touches
    uint64_t group;    // the first of these
};

static table_run expand_run(const counts& counts, uint64_t first, uint64_t entries,
                            std::vector<uint64_t>* index) {
    static auto* words = static_cast<uint16_t*>(
        zero_pages((RUN * TBL_BLOCK_ENTRIES / TBL_GROUP_ENTRIES + 3) * TBL_GROUP_ENTRIES * 2));
    const uint64_t all = (entries + TBL_BLOCK_ENTRIES - 1) / TBL_BLOCK_ENTRIES;
    const uint64_t count = std::min<uint64_t>(RUN, all - first);
    const uint64_t group = first * TBL_BLOCK_ENTRIES / TBL_GROUP_ENTRIES;
    const uint64_t end = std::min((first + count) * TBL_BLOCK_ENTRIES, entries);
    for (uint64_t g = group; g * TBL_GROUP_ENTRIES < end; g++) {
        uint16_t* at = words + (g - group) * TBL_GROUP_ENTRIES;
        const bool has_free = expand_group(counts.of + g * TBL_GROUP_ENTRIES, at);
        if (index != nullptr) {
            (*index)[g] = has_free ? link_group(at, g) : uint64_t{FRI_INIT_BIT} << 48 | (g + 1);
        }
    }
    return {first, count, entries, words, group};
}

static const uint16_t* words_of(const table_run& run, uint64_t block) {
    return run.words + block * TBL_BLOCK_ENTRIES - run.group * TBL_GROUP_ENTRIES;
}

static uint64_t entries_of(const table_run& run, uint64_t block) {
    return std::min<uint64_t>(TBL_BLOCK_ENTRIES, run.entries - block * TBL_BLOCK_ENTRIES);
}

static void compare_run(int fd, const table_run& run) {
    const size_t size = run.count * sizeof(block);
    if (pread(fd, blocks, size, static_cast<off_t>(data_node_offset(run.first))) !=
        static_cast<ssize_t>(size)) {
        give_up("table");
    }
    unsigned different = 0;
    for (uint64_t i = 0; i < run.count; i++) {
        const uint64_t count = entries_of(run, run.first + i);
        uint16_t on_disk[TBL_BLOCK_ENTRIES];
        memcpy(on_disk, blocks[i].words, count * sizeof(uint16_t));
        const uint16_t* counted = words_of(run, run.first + i);
        for (uint64_t entry = 0; entry < count; entry++) {
            const unsigned word = on_disk[entry];
            const unsigned used = word & TBL_USED_BIT ? word & (TBL_USED_BIT | TBL_COUNT_MASK) : 0u;
            different |= used ^ counted[entry];
        }
    }
    if (different != 0) {
        fprintf(stderr, "the table differs\n");
        exit(1);
    }
}

static void write_run(int fd, const table_run& run) {
    const size_t size = run.count * sizeof(block);
    for (uint64_t i = 0; i < run.count; i++) {
        const uint64_t used = entries_of(run, run.first + i) * sizeof(uint16_t);
        auto* bytes = reinterpret_cast<uint8_t*>(blocks[i].words);
        memcpy(bytes, words_of(run, run.first + i), used);
        memset(bytes + used, 0, sizeof(block) - used);
    }
    seal(blocks, run.count);
    if (pwrite(fd, blocks, size, static_cast<off_t>(data_node_offset(run.first))) !=
        static_cast<ssize_t>(size)) {
        give_up("table");
    }
}

static int create(const std::string& path, uint64_t size) {
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || ftruncate(fd, static_cast<off_t>(size)) != 0) {
        give_up(path.c_str());
    }
    return fd;
}

static void write_index(const std::string& path, const std::vector<uint64_t>& index) {
    std::vector<block> out((index.size() + FRI_BLOCK_ENTRIES - 1) / FRI_BLOCK_ENTRIES);
    for (size_t group = 0; group < index.size(); group++) {
        out[group / FRI_BLOCK_ENTRIES].words[group % FRI_BLOCK_ENTRIES] = index[group];
    }
    for (size_t first = 0; first < out.size(); first += RUN) {
        seal(&out[first], std::min(RUN, out.size() - first));
    }
    const int fd = create(path, FRI_FILE_SIZE);
    if (pwrite(fd, out.data(), out.size() * sizeof(block), METADATA_DATA_OFFSET) < 0) {
        give_up(path.c_str());
    }
    close(fd);
    unlink(path.c_str());
}

static void rewrite(const char* path) {
    const int fd = open(path, O_RDWR);
    if (fd < 0) {
        give_up(path);
    }
    off_t offset = METADATA_DATA_OFFSET;
    while (lseek(fd, offset, SEEK_DATA) == offset) {
        const ssize_t got = pread(fd, blocks, RUN * sizeof(block), offset);
        const size_t count = got < 0 ? 0 : static_cast<size_t>(got) / sizeof(block);
        verify(count);
        seal(blocks, count);
        if (got <= 0 || pwrite(fd, blocks, static_cast<size_t>(got), offset) != got) {
            give_up(path);
        }
        offset += got;
    }
    close(fd);
}

// What a mode does with the counts.
static void finish(const std::string& mode, const counts& counts, const char* table,
                   const std::string& directory) {
    const uint64_t groups = counts.highest / TBL_GROUP_ENTRIES + 1;
    const uint64_t entries = groups * TBL_GROUP_ENTRIES;
    const bool compares = mode == "fullck";
    const std::string path = directory + "/bench-limit.out";
    const int fd = compares ? open(table, O_RDONLY) : create(path, TBL_FILE_SIZE);
    if (fd < 0) {
        give_up(table);
    }
    std::vector<uint64_t> index(mode == "recon" ? groups : 0);
    for (uint64_t first = 0; first * TBL_BLOCK_ENTRIES < entries; first += RUN) {
        const table_run run = expand_run(counts, first, entries, index.empty() ? nullptr : &index);
        compares ? compare_run(fd, run) : write_run(fd, run);
    }
    close(fd);
    if (!index.empty()) {
        write_index(path + ".index", index);
    }
    if (!compares) {
        unlink(path.c_str());
    }
}

static bool has_argument(const std::string& mode, std::initializer_list<const char*> modes) {
    return std::find(modes.begin(), modes.end(), mode) != modes.end();
}

int main(int argc, char** argv) {
    blocks = static_cast<block*>(zero_pages(RUN * sizeof(block)));
    const std::string mode = argc > 1 ? argv[1] : "";
    if (argc == 3 && mode == "rewrite") {
        rewrite(argv[2]);
        return 0;
    }
    const bool reads = has_argument(mode, {"read", "crc"});
    const bool counts_only = mode == "count";
    if (argc < 6 || !(reads || counts_only || has_argument(mode, {"fullck", "import", "recon"}))) {
        fprintf(stderr, "usage: bench-limit MODE EXTENTS TABLE DIRECTORY MAP... | rewrite TABLE\n");
        return 2;
    }
    counts references = make_counts(strtoull(argv[2], nullptr, 10));
    const stage last = !reads ? stage::count : mode == "read" ? stage::read : stage::verify;
    for (int i = 5; i < argc; i++) {
        read_map(argv[i], last, references);
    }
    if (reads) {
        return 0;
    }
    for (uint64_t part = 0; part < references.fill.size(); part++) {
        count_bucket(references, part);
    }
    check_sum(references);
    if (!counts_only) {
        finish(mode, references, argv[3], argv[4]);
    }
    fflush(stdout);
    _exit(0);  // the kernel frees the memory
}
