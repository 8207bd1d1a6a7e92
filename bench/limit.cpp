// bench-limit MAP...: a lower bound for the time that a rebuild takes. Reads the maps in large
// reads, verifies every block's checksum with the fastest routine, counts the references in a plain
// array and writes that array as checksummed blocks into the working directory. bench-limit
// --read-only MAP...: only reads and verifies. bench-limit --rewrite TABLE: reads, verifies and
// rewrites the blocks that hold data.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "map/map_format.h"
#include "store/crc32c.h"
#include "store/data_node.h"
#include "tbl/tbl_format.h"

// Blocks of one transfer: they stay in the second-level cache while they are used. The array is
// page-aligned: in measurements, reads into it were twice as fast as reads into a vector.
static constexpr size_t RUN = 512;
alignas(4096) static data_node nodes[RUN];
static uint32_t checksums[RUN];

// The number of references to each extent. Reserves address space for every possible extent, and
// uses memory only for those that are counted.
struct counts {
    uint16_t* of;
    uint64_t end;  // one past the highest extent counted
};

[[noreturn]] static void give_up(const char* what) {
    perror(what);
    exit(1);
}

// Verifies the first `count` blocks; leaves their correct checksums in `checksums`.
static void verify(size_t count) {
    tarn_crc32c_blocks(nodes, count, checksums);
    for (size_t i = 0; i < count; i++) {
        if (nodes[i].checksum != 0 && nodes[i].checksum != checksums[i]) {
            fprintf(stderr, "checksum mismatch\n");
            exit(1);
        }
    }
}

static counts empty_counts() {
    const size_t size = TBL_TOTAL_COUNT * sizeof(uint16_t);
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) {
        give_up("mmap");
    }
    madvise(memory, size, MADV_HUGEPAGE);
    return {static_cast<uint16_t*>(memory), 0};
}

static void count_node(const data_node& node, counts& references) {
    for (size_t slot = 0; slot < MAP_NODE_ENTRIES; slot++) {
        uint64_t word = 0;
        memcpy(&word, node.payload + slot * sizeof word, sizeof word);
        const uint64_t lpa = word & MAP_LPA_MASK;
        if ((word & MAP_MAPPED_BIT) != 0 && lpa < TBL_TOTAL_COUNT) {
            references.of[lpa]++;
            references.end = std::max(references.end, lpa + 1);
        }
    }
}

static void read_map(const char* path, bool count_them, counts& references) {
    const int fd = open(path, O_RDONLY);
    if (fd < 0) {
        give_up(path);
    }
    off_t offset = METADATA_DATA_OFFSET;
    for (;;) {
        const ssize_t got = pread(fd, nodes, sizeof nodes, offset);
        if (got < 0) {
            give_up(path);
        }
        const size_t count = static_cast<size_t>(got) / sizeof(data_node);
        if (count == 0) {
            break;
        }
        verify(count);
        for (size_t i = 0; count_them && i < count; i++) {
            count_node(nodes[i], references);
        }
        offset += got;
    }
    close(fd);
}

static data_node table_block(const counts& references, size_t block) {
    data_node node{};
    const size_t first = block * TBL_BLOCK_ENTRIES;
    const size_t end = std::min<size_t>(first + TBL_BLOCK_ENTRIES, references.end);
    for (size_t entry = first; entry < end; entry++) {
        const auto word = static_cast<uint16_t>(
            references.of[entry] != 0 ? TBL_USED_BIT | references.of[entry] : 0);
        memcpy(node.payload + (entry - first) * sizeof word, &word, sizeof word);
    }
    return node;
}

static void write_table(const counts& references) {
    const int fd = open("bench-limit.out", O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) {
        give_up("bench-limit.out");
    }
    const size_t blocks = (references.end + TBL_BLOCK_ENTRIES - 1) / TBL_BLOCK_ENTRIES;
    for (size_t block = 0; block < blocks; block += RUN) {
        const size_t count = std::min(RUN, blocks - block);
        for (size_t i = 0; i < count; i++) {
            nodes[i] = table_block(references, block + i);
        }
        tarn_crc32c_blocks(nodes, count, checksums);
        for (size_t i = 0; i < count; i++) {
            nodes[i].checksum = checksums[i];
        }
        if (write(fd, nodes, count * sizeof(data_node)) < 0) {
            give_up("bench-limit.out");
        }
    }
    close(fd);
    unlink("bench-limit.out");
}

static void rewrite(const char* path) {
    const int fd = open(path, O_RDWR);
    if (fd < 0) {
        give_up(path);
    }
    off_t offset = METADATA_DATA_OFFSET;
    while (lseek(fd, offset, SEEK_DATA) == offset) {
        const ssize_t got = pread(fd, nodes, sizeof nodes, offset);
        const size_t count = got < 0 ? 0 : static_cast<size_t>(got) / sizeof(data_node);
        verify(count);
        tarn_crc32c_blocks(nodes, count, checksums);
        for (size_t i = 0; i < count; i++) {
            nodes[i].checksum = checksums[i];
        }
        if (got <= 0 || pwrite(fd, nodes, static_cast<size_t>(got), offset) != got) {
            give_up(path);
        }
        offset += got;
    }
    close(fd);
}

int main(int argc, char** argv) {
    if (argc == 3 && strcmp(argv[1], "--rewrite") == 0) {
        rewrite(argv[2]);
        return 0;
    }
    const bool read_only = argc > 1 && strcmp(argv[1], "--read-only") == 0;
    counts references = empty_counts();
    for (int i = read_only ? 2 : 1; i < argc; i++) {
        read_map(argv[i], !read_only, references);
    }
    if (!read_only) {
        write_table(references);
    }
    return 0;
}
