#include "ctl/check/map_contents.h"

#include "ctl/check/map_nodes.h"

// Spreads the bits of a number over all of them.
static uint64_t mixed(uint64_t number) {
    number = (number ^ number >> 30) * 0xBF58476D1CE4E5B9;
    number = (number ^ number >> 27) * 0x94D049BB133111EB;
    return number ^ number >> 31;
}

map_contents contents_of(const map_check& map, progress_line* progress) {
    constexpr uint64_t TARGET = MAP_LPA_MASK | uint64_t{0xFFF} << 48;  // extent and pool row
    map_contents contents;
    const auto add_node = [&](const map_node_view& node) {
        for (uint32_t slot = 0; slot < node.entries; slot++) {
            const map_entry entry = entry_of(node, slot);
            if (map_entry_is_mapped(&entry) != 0) {
                const uint64_t lea = node.first_lea + slot;
                contents.mapped++;
                contents.end = lea + 1;
                contents.contents += mixed(mixed(lea + 1) + (entry.word & TARGET));
            }
        }
    };
    const map_reading reading = read_map_nodes(map, add_node, progress);
    contents.whole = reading.error == 0 && reading.damaged == 0;
    return contents;
}
