// bench-peers thin MAPPINGS [--scattered]: prints pool metadata with that many mappings over 16
// devices, in the format that thin_restore reads.
// bench-peers qcow2 IMAGE: permutes the places of the clusters of an image with fully allocated
// metadata.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "spread.h"

static constexpr uint64_t DEVICES = 16;

// The mappings of one device; sequential mappings are one range.
static void print_device(const spread& mappings, uint64_t first, uint64_t end) {
    if (mappings.among == 0) {
        printf("<range_mapping origin_begin=\"0\" data_begin=\"%" PRIu64 "\" length=\"%" PRIu64
               "\" time=\"0\"/>\n",
               first, end - first);
        return;
    }
    for (uint64_t i = first; i < end; i++) {
        printf("<single_mapping origin_block=\"%" PRIu64 "\" data_block=\"%" PRIu64
               "\" time=\"0\"/>\n",
               i - first, spread_extent(mappings, i));
    }
}

static int print_thin(const spread& mappings) {
    printf(
        "<superblock uuid=\"\" time=\"0\" transaction=\"1\" data_block_size=\"2048\" "
        "nr_data_blocks=\"%" PRIu64 "\">\n",
        spread_extents(mappings));
    for (uint64_t device = 0; device < DEVICES; device++) {
        const uint64_t first = mappings.mappings * device / DEVICES;
        const uint64_t end = mappings.mappings * (device + 1) / DEVICES;
        printf("<device dev_id=\"%" PRIu64 "\" mapped_blocks=\"%" PRIu64
               "\" transaction=\"0\" creation_time=\"0\" snap_time=\"0\">\n",
               device, end - first);
        print_device(mappings, first, end);
        printf("</device>\n");
    }
    printf("</superblock>\n");
    return 0;
}

static uint32_t big_u32(const uint8_t* at) {
    uint32_t value = 0;
    memcpy(&value, at, sizeof value);
    return __builtin_bswap32(value);
}

static uint64_t big_u64(const uint8_t* at) {
    uint64_t value = 0;
    memcpy(&value, at, sizeof value);
    return __builtin_bswap64(value);
}

// An image whose first-level table points to its second-level tables.
struct image {
    uint8_t* bytes;
    const uint8_t* l1;
    uint64_t per_table;
};

static uint8_t* entry_of(const image& image, uint64_t cluster) {
    const uint64_t table = big_u64(image.l1 + cluster / image.per_table * 8) & 0x00fffffffffffe00;
    return image.bytes + table + cluster % image.per_table * 8;
}

static int permute_qcow2(const char* path) {
    const int fd = open(path, O_RDWR);
    struct stat status {};
    if (fd < 0 || fstat(fd, &status) != 0) {
        perror(path);
        return 1;
    }
    const auto size = static_cast<size_t>(status.st_size);
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) {
        perror(path);
        return 1;
    }
    auto* bytes = static_cast<uint8_t*>(memory);
    const uint64_t cluster_size = uint64_t{1} << big_u32(bytes + 20);
    const uint64_t clusters = big_u64(bytes + 24) / cluster_size;
    const image image = {bytes, bytes + big_u64(bytes + 40), cluster_size / 8};
    uint64_t random = 0x9E3779B97F4A7C15;
    for (uint64_t i = clusters - 1; i > 0; i--) {
        random = random * 6364136223846793005 + 1442695040888963407;
        uint8_t* one = entry_of(image, i);
        uint8_t* other = entry_of(image, (random >> 20) % (i + 1));
        uint8_t kept[8];
        memcpy(kept, one, sizeof kept);
        memmove(one, other, sizeof kept);
        memcpy(other, kept, sizeof kept);
    }
    munmap(memory, size);
    close(fd);
    return 0;
}

int main(int argc, char** argv) {
    if (argc >= 3 && strcmp(argv[1], "thin") == 0) {
        const uint64_t mappings = strtoull(argv[2], nullptr, 10);
        const bool is_scattered = argc > 3 && strcmp(argv[3], "--scattered") == 0;
        return print_thin(is_scattered ? scattered(mappings) : spread{mappings, 0});
    }
    if (argc == 3 && strcmp(argv[1], "qcow2") == 0) {
        return permute_qcow2(argv[2]);
    }
    fprintf(stderr, "usage: bench-peers thin MAPPINGS [--scattered] | qcow2 IMAGE\n");
    return 2;
}
