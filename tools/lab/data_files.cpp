#include "lab/data_files.h"

#include <algorithm>
#include <cstdio>
#include <set>

namespace lab {

constexpr uint64_t NOISY_EXTENTS = 4;  // the first ones of each data file, in use or not
constexpr size_t NOISE_SIZE = 4096;
constexpr size_t PART_SIZE = 512;
constexpr uint64_t MOST_PARTS = 3;  // of an extent

std::string data_path(const volume& vol, uint64_t number) {
    char name[32];
    (void)snprintf(name, sizeof name, "/@EP/EP_DAT_%05u", static_cast<unsigned>(number));
    return vol.root + name;
}

uint64_t extents_a_data_file(const volume& vol) {
    constexpr uint64_t MOST_BYTES = uint64_t{1} << 42;
    return MOST_BYTES / vol.extent_size;
}

// Number of the file's extents among the first `reached` extents of the volume.
static uint64_t extents_of_file(const volume& vol, uint64_t number, uint64_t reached) {
    const uint64_t room = extents_a_data_file(vol);
    const uint64_t first = number * room;
    return reached > first ? std::min(reached - first, room) : 0;
}

// The bytes of all extents in groups that were ever used, and at least a gibibyte.
uint64_t data_file_size(const volume& vol, uint64_t number) {
    constexpr uint64_t LEAST_BYTES = uint64_t{1} << 30;
    const uint64_t used = extents_of_file(vol, number, vol.tbl.size()) * vol.extent_size;
    return METADATA_DATA_OFFSET + std::max(LEAST_BYTES, used);
}

extent_place place_of_extent(const volume& vol, uint64_t lpa) {
    const uint64_t room = extents_a_data_file(vol);
    return {lpa / room, METADATA_DATA_OFFSET + lpa % room * vol.extent_size};
}

// Often the first or the last one of the extent.
static uint64_t pick_part(random_stream* random, uint64_t parts) {
    const uint64_t choice = random_below(random, 8);
    return choice == 0 ? 0 : choice == 1 ? parts - 1 : random_below(random, parts);
}

std::vector<chunk> data_of(const model& m, size_t volume_index, uint64_t lpa) {
    const volume& vol = m.volumes[volume_index];
    const extent_place place = place_of_extent(vol, lpa);
    const uint64_t in_file = lpa % extents_a_data_file(vol);
    if (in_file < NOISY_EXTENTS) {
        const uint64_t noise = scramble(vol.noise, 40 + place.file * NOISY_EXTENTS + in_file);
        return {{0, content::bytes, noise_bytes(noise, NOISE_SIZE)}};
    }
    random_stream random = random_of(scramble(vol.noise, 60), lpa);
    if (random_below(&random, 1000) >= m.sample.data) {
        return {};
    }
    std::set<uint64_t> numbers;
    for (uint64_t left = random_between(&random, 1, MOST_PARTS); left > 0; left--) {
        numbers.insert(pick_part(&random, vol.extent_size / PART_SIZE));
    }
    std::vector<chunk> parts;
    for (const uint64_t number : numbers) {
        parts.push_back({number * PART_SIZE, content::bytes,
                         noise_bytes(scramble(random.state, number), PART_SIZE)});
    }
    return parts;
}

static std::vector<bool> written_extents(const volume& vol, uint64_t number) {
    const uint64_t room = extents_a_data_file(vol);
    std::vector<bool> written(NOISY_EXTENTS, true);
    for (const uint64_t lpa : vol.taken) {
        if (lpa / room == number) {
            written.resize(std::max<uint64_t>(written.size(), lpa % room + 1), false);
            written[lpa % room] = true;
        }
    }
    return written;
}

static bool is_free(const volume& vol, uint64_t lpa) {
    return lpa >= vol.tbl.size() || (vol.tbl[lpa] & TBL_USED_BIT) == 0;
}

void add_extents(const model& m, const file_ref& file, file_image* image) {
    const volume& vol = m.volumes[file.index];
    const std::vector<bool> written = written_extents(vol, file.number);
    for (uint64_t extent = 0; extent < written.size(); extent++) {
        if (!written[extent]) {
            continue;
        }
        const uint64_t lpa = file.number * extents_a_data_file(vol) + extent;
        for (chunk& part : data_of(m, file.index, lpa)) {
            part.offset += place_of_extent(vol, lpa).offset;
            part.may_be_zero = is_free(vol, lpa);
            image->chunks.push_back(std::move(part));
        }
    }
}

}  // namespace lab
