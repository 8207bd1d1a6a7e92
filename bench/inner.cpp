// The inner operations of the whole-volume procedures, under Google Benchmark.
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>
#include <vector>

#include "spread.h"
#include "store/crc32c.h"
#include "store/descriptor.h"
#include "tbl/tbl_file.h"
#include "tbl/tbl_freelist.h"
#include "tbl/tbl_group_image.h"
#include "tbl/tbl_ref_counts.h"

static void checksum_blocks(benchmark::State& state, const crc32c_routines* routines) {
    if (routines == nullptr) {
        state.SkipWithError("this processor has no CRC-32C instruction");
        return;
    }
    const auto count = static_cast<size_t>(state.range(0));
    const std::vector<uint8_t> blocks(count * 512, 0x5A);
    std::vector<uint32_t> checksums(count);
    for ([[maybe_unused]] auto _ : state) {
        routines->blocks(blocks.data(), count, checksums.data());
        benchmark::DoNotOptimize(checksums.data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(blocks.size()));
}
BENCHMARK_CAPTURE(checksum_blocks, portable, &crc32c_portable)->Arg(1)->Arg(1024);
BENCHMARK_CAPTURE(checksum_blocks, processor, crc32c_of_processor())->Arg(1)->Arg(1024);

// Makes an empty table on tmpfs the current table.
class empty_table {
public:
    empty_table() {
        char path[] = "/dev/shm/bench-inner-XXXXXX";
        const int fd = mkstemp(path);
        if (fd <= 0 || io_truncate(fd, TBL_FILE_SIZE) != 0) {
            perror(path);
            exit(1);
        }
        unlink(path);
        current_tbl.fd = fd;
    }
    ~empty_table() {
        io_close(current_tbl.fd);
        current_tbl.fd = 0;
    }
    empty_table(const empty_table&) = delete;
    empty_table& operator=(const empty_table&) = delete;
};

// Counts one reference at a time, unlike the import's loop over a node.
static void count_references(benchmark::State& state, const spread& mappings) {
    const empty_table table;
    std::vector<uint64_t> extents;
    for (uint64_t i = 0; i < mappings.mappings; i++) {
        extents.push_back(spread_extent(mappings, i));
    }
    for ([[maybe_unused]] auto _ : state) {
        ref_counts* counts = ref_counts_open();
        (void)ref_counts_begin_scan(counts);
        for (const uint64_t lpa : extents) {
            benchmark::DoNotOptimize(ref_counts_add(counts, lpa));
        }
        ref_counts_end_scan(counts);
        ref_counts_close(counts);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(extents.size()));
}
BENCHMARK_CAPTURE(count_references, sequential, spread{1 << 22, 0});
BENCHMARK_CAPTURE(count_references, scattered, scattered(1 << 22));

static void load_group(benchmark::State& state) {
    const empty_table table;
    tbl_group_image image;
    uint64_t group = 0;
    for ([[maybe_unused]] auto _ : state) {
        if (!tbl_group_load(current_tbl.fd, &image, group++ % 1024)) {
            state.SkipWithError("the group cannot be read");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(TBL_GROUP_ENTRIES));
}
BENCHMARK(load_group);

static void link_group(benchmark::State& state) {
    const empty_table table;
    uint64_t group = 0;
    for ([[maybe_unused]] auto _ : state) {
        uint16_t head = 0;
        if (link_free_tbl_entry_in_group(group++ % 1024, &head) < 0) {
            state.SkipWithError("the group cannot be linked");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(TBL_GROUP_ENTRIES));
}
BENCHMARK(link_group);
