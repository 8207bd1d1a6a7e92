#include "ctl/space/extent_owners.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "map/map_format.h"
#include "store/zero_memory.h"
#include "tbl/tbl_format.h"

namespace {

constexpr uint64_t REGION_EXTENTS = uint64_t{1} << OWNER_REGION_SHIFT;
constexpr uint64_t REGIONS_MAX = (TBL_TOTAL_COUNT >> OWNER_REGION_SHIFT) + 1;
constexpr uint64_t REGION_GROUPS = REGION_EXTENTS / TBL_GROUP_ENTRIES;

// Places of a region other than those in the window, which count from 1.
constexpr uint32_t NOT_MET = 0;
constexpr uint32_t WAITS = ~uint32_t{0};  // for a later scan
constexpr uint32_t DONE = WAITS - 1;      // in an earlier one

class memory_block {
public:
    explicit memory_block(size_t size) : size_(size), bytes_(zero_memory(size)) {}
    memory_block(const memory_block&) = delete;
    memory_block& operator=(const memory_block&) = delete;
    ~memory_block() { zero_memory_free(bytes_, size_); }
    template <typename T>
    [[nodiscard]] T* as() const {
        return static_cast<T*>(bytes_);
    }

private:
    size_t size_;
    void* bytes_;
};

template <typename Word>
class owners_in_words : public extent_owners {
public:
    static constexpr Word SEVERAL = Word{1} << (sizeof(Word) * 8 - 1);
    static constexpr Word LAST = SEVERAL - 1;  // the last map's number
    static constexpr uint64_t REGION_BYTES = REGION_EXTENTS * sizeof(Word);

    explicit owners_in_words(const owners_wanted& wanted)
        : extents_(std::min(wanted.extents, TBL_TOTAL_COUNT)),
          regions_((extents_ + REGION_EXTENTS - 1) / REGION_EXTENTS),
          slots_(std::clamp<uint64_t>(wanted.memory / REGION_BYTES, 1, std::max(regions_, one_))),
          set_(wanted.set),
          maps_(wanted.maps + 1),
          window_(slots_ * REGION_BYTES),
          places_(std::max(regions_, one_) * sizeof(uint32_t)) {}

    [[nodiscard]] bool has_memory() const {
        return window_.template as<void>() != nullptr && places_.template as<void>() != nullptr;
    }

    bool begin_scan() override;
    void begin_map(uint32_t number) override { number_ = number; }
    void add_node(const data_node* node, uint32_t entries) override;
    void end_scan() override { take_waiting(); }

    [[nodiscard]] bool settled(uint64_t region) const override {
        const uint32_t place = region < regions_ ? place_of(region) : NOT_MET;
        return place == NOT_MET ? scans_ == 1 : place < DONE;
    }
    [[nodiscard]] uint64_t next_region(uint64_t region) const override {
        while (region < met_end_ && !is_here(region)) {
            region++;
        }
        return region < met_end_ ? region : REGIONS_MAX;
    }
    bool owned_in_group(uint64_t group, bool* owned) const override;

    [[nodiscard]] owner_figures of_map(uint32_t number) const override {
        return maps_[number].figures;
    }
    [[nodiscard]] uint64_t shared() const override { return shared_; }
    [[nodiscard]] uint64_t of_set() const override { return of_set_; }
    [[nodiscard]] uint64_t mapped(uint32_t number) const override { return maps_[number].mapped; }
    [[nodiscard]] uint64_t past_end(uint32_t number) const override {
        return maps_[number].past_end;
    }

private:
    struct map_totals {
        owner_figures figures;
        uint64_t mapped = 0;
        uint64_t past_end = 0;
    };

    static constexpr uint64_t one_ = 1;

    [[nodiscard]] uint32_t& place_of(uint64_t region) const {
        return places_.template as<uint32_t>()[region];
    }
    [[nodiscard]] Word* region_at(uint32_t place) const {
        return window_.template as<Word>() + (place - 1) * REGION_EXTENTS;
    }
    [[nodiscard]] bool is_here(uint64_t region) const {
        return place_of(region) != NOT_MET && place_of(region) < DONE;
    }
    Word* word_of(uint64_t lpa);
    Word* meet_region(uint64_t region);
    void take_waiting();
    void visit(Word* word, map_totals* totals);

    uint64_t extents_;
    uint64_t regions_;
    uint64_t slots_;  // regions that fit into the window
    uint32_t set_;
    std::vector<map_totals> maps_;
    memory_block window_;
    memory_block places_;  // of each region: which slot, from 1 on
    uint32_t slots_used_ = 0;
    uint64_t met_end_ = 0;  // after the last region that was met
    unsigned scans_ = 0;
    bool more_ = true;
    uint32_t number_ = 0;
    uint64_t shared_ = 0;
    uint64_t of_set_ = 0;
    // Words of the node before: they are on their way to the processor's cache.
    Word* waiting_[MAP_NODE_ENTRIES] = {};
    uint32_t waiting_count_ = 0;
    uint32_t waiting_number_ = 0;
};

template <typename Word>
bool owners_in_words<Word>::begin_scan() {
    if (!more_) {
        return false;
    }
    more_ = false;
    scans_++;
    memset(window_.template as<void>(), 0, slots_used_ * REGION_BYTES);
    slots_used_ = 0;
    for (uint64_t region = 0; region < met_end_; region++) {
        uint32_t* place = &place_of(region);
        if (*place == WAITS && slots_used_ < slots_) {
            *place = ++slots_used_;
        } else if (*place == WAITS) {
            more_ = true;
        } else if (*place != NOT_MET) {
            *place = DONE;
        }
    }
    return true;
}

// A region without a place: only the first scan makes one, as long as it can.
template <typename Word>
Word* owners_in_words<Word>::meet_region(uint64_t region) {
    if (scans_ > 1 || place_of(region) == WAITS) {
        return nullptr;
    }
    met_end_ = std::max(met_end_, region + 1);
    if (slots_used_ == slots_) {
        place_of(region) = WAITS;
        more_ = true;
        return nullptr;
    }
    place_of(region) = ++slots_used_;
    return region_at(slots_used_);
}

// Null: not in this window.
template <typename Word>
Word* owners_in_words<Word>::word_of(uint64_t lpa) {
    const uint64_t region = lpa >> OWNER_REGION_SHIFT;
    const uint32_t place = place_of(region);
    Word* words = place != NOT_MET && place < DONE ? region_at(place) : meet_region(region);
    return words == nullptr ? nullptr : words + lpa % REGION_EXTENTS;
}

template <typename Word>
void owners_in_words<Word>::visit(Word* word, map_totals* totals) {
    const Word before = *word;
    const auto last = static_cast<uint32_t>(before & LAST);
    if (last == waiting_number_) {
        return;
    }
    totals->figures.referred++;
    if (before == 0) {
        *word = static_cast<Word>(waiting_number_);
        totals->figures.exclusive++;
        of_set_ += waiting_number_ <= set_ ? 1 : 0;
        return;
    }
    *word = static_cast<Word>(waiting_number_ | SEVERAL);
    if ((before & SEVERAL) == 0) {
        maps_[last].figures.exclusive--;
        shared_++;
    }
    of_set_ -= last <= set_ && waiting_number_ > set_ ? 1 : 0;
}

template <typename Word>
void owners_in_words<Word>::take_waiting() {
    map_totals* totals = &maps_[waiting_number_];
    for (uint32_t i = 0; i < waiting_count_; i++) {
        visit(waiting_[i], totals);
    }
    waiting_count_ = 0;
}

template <typename Word>
void owners_in_words<Word>::add_node(const data_node* node, uint32_t entries) {
    Word* met[MAP_NODE_ENTRIES];
    uint32_t count = 0;
    uint64_t mapped = 0;
    uint64_t past = 0;
    for (uint32_t slot = 0; slot < entries; slot++) {
        map_entry entry;
        memcpy(&entry, node->payload + slot * sizeof entry, sizeof entry);
        if (map_entry_is_mapped(&entry) == 0) {
            continue;
        }
        mapped++;
        const uint64_t lpa = map_entry_get_lpa(&entry);
        if (lpa >= extents_) {
            past++;
        } else if (Word* word = word_of(lpa); word != nullptr) {
            __builtin_prefetch(word, 1);
            met[count++] = word;
        }
    }
    if (scans_ == 1) {
        maps_[number_].mapped += mapped;
        maps_[number_].past_end += past;
    }
    take_waiting();
    memcpy(waiting_, met, count * sizeof *met);
    waiting_count_ = count;
    waiting_number_ = number_;
}

template <typename Word>
bool owners_in_words<Word>::owned_in_group(uint64_t group, bool* owned) const {
    const uint64_t region = group / REGION_GROUPS;
    if (region >= regions_ || !is_here(region)) {
        return false;
    }
    const Word* words = region_at(place_of(region)) + group % REGION_GROUPS * TBL_GROUP_ENTRIES;
    bool any = false;
    for (uint32_t offset = 0; offset < TBL_GROUP_ENTRIES; offset++) {
        owned[offset] = words[offset] != 0;
        any = any || owned[offset];
    }
    return any;
}

template <typename Word>
std::unique_ptr<extent_owners> try_words(const owners_wanted& wanted) {
    auto owners = std::make_unique<owners_in_words<Word>>(wanted);
    return owners->has_memory() ? std::move(owners) : nullptr;
}

}  // namespace

std::unique_ptr<extent_owners> count_owners(const owners_wanted& wanted) {
    return wanted.maps <= owners_in_words<uint16_t>::LAST ? try_words<uint16_t>(wanted)
                                                          : try_words<uint32_t>(wanted);
}
