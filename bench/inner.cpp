// The inner operations of the whole-volume procedures, under Google Benchmark.
#include <benchmark/benchmark.h>
#include <vector>

#include "store/crc32c.h"

static void checksum_blocks(benchmark::State& state, const crc32c_routines* routines) {
    if (routines == nullptr) {
        state.SkipWithError("this processor has no instruction for it");
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
