#include "ctl/check/compare_volumes.h"

#include <algorithm>
#include <cstring>

#include "ctl/check/place_words.h"
#include "store/descriptor.h"
#include "volume/dat_file.h"

static constexpr uuid_bytes NO_UUID = {};

// Of the table; zero if it has no uuid that can be trusted.
static uuid_bytes table_uuid(const volume_check& volume) {
    const bool trusted = volume.has_table && (volume.table_view.bad_nodes & 1) == 0;
    return trusted ? uuid_bytes_of(volume.table.tbl_uuid) : NO_UUID;
}

bool is_of_this_server(const check_state& state, const inventory& known) {
    bool has_tables = false;
    for (const volume_check& volume : state.volumes) {
        const uuid_bytes uuid = table_uuid(volume);
        has_tables = has_tables || uuid != NO_UUID;
        for (const known_volume& one : known.volumes) {
            if (uuid != NO_UUID && uuid == one.table) {
                return true;
            }
        }
    }
    return !has_tables || known.volumes.empty();
}

volume_check* volume_now(check_state* state, const known_volume& known) {
    volume_check* elsewhere = nullptr;
    for (volume_check& volume : state->volumes) {
        if (volume.files->state != volume_state::sound) {
            continue;
        }
        const uuid_bytes uuid = table_uuid(volume);
        const bool unknown = uuid == NO_UUID || known.table == NO_UUID;
        if (volume.files->root == known.root && (unknown || uuid == known.table)) {
            return &volume;
        }
        if (!unknown && uuid == known.table) {
            elsewhere = &volume;
        }
    }
    return elsewhere;
}

static std::string device_of(const std::string& root) {
    struct stat64 status = {};
    return io_stat(root.c_str(), &status) == 0 ? device_words(status.st_dev) : "";
}

// Two volumes with one uuid: the inventory knows which of them is the copy.
static void report_twins(check_state* state, const inventory& known, const volume_check& one,
                         const volume_check& other) {
    const uuid_bytes uuid = table_uuid(one);
    const volume_check* copy = &other;
    for (const known_volume& before : known.volumes) {
        if (before.table != uuid) {
            continue;
        }
        const bool device_tells = device_of(one.files->root) != device_of(other.files->root) &&
                                  (before.device == device_of(one.files->root) ||
                                   before.device == device_of(other.files->root));
        const bool is_other = device_tells ? before.device == device_of(other.files->root)
                                           : before.root == other.files->root;
        copy = is_other ? &one : &other;
    }
    add_finding(state, finding_code::S08, copy);
    state->findings.back().detail = "The inventory knows " +
                                    (copy == &one ? other : one).files->root +
                                    ", which has the same uuids.";
}

static void compare_uuids(check_state* state, const inventory& known) {
    for (size_t i = 0; i < state->volumes.size(); i++) {
        const uuid_bytes uuid = table_uuid(state->volumes[i]);
        for (size_t j = i + 1; j < state->volumes.size() && uuid != NO_UUID; j++) {
            if (table_uuid(state->volumes[j]) == uuid) {
                report_twins(state, known, state->volumes[i], state->volumes[j]);
            }
        }
    }
}

static const known_volume* known_by_table(const inventory& known, const uuid_bytes& uuid) {
    for (const known_volume& volume : known.volumes) {
        if (volume.table == uuid) {
            return &volume;
        }
    }
    return nullptr;
}

// Another volume is mounted where this one was.
static void compare_place(check_state* state, const inventory& known, const known_volume& volume) {
    for (const volume_check& now : state->volumes) {
        const uuid_bytes uuid = table_uuid(now);
        if (now.files->root != volume.root || uuid == NO_UUID || volume.table == NO_UUID ||
            uuid == volume.table) {
            continue;
        }
        add_finding(state, finding_code::S05, &now, below_root(&now, now.files->table));
        finding* added = &state->findings.back();
        const known_volume* before = known_by_table(known, uuid);
        added->detail = "Another volume is mounted here than on " + known.written +
                        (before != nullptr ? ": the one that was " + before->root + "." : ".");
    }
}

// The LUNs that have data in what is gone of the data file.
static std::string losers_of(const check_state* state, const volume_check& volume, uint64_t first,
                             uint64_t end) {
    std::vector<std::string> names;
    for (const finding& one : state->findings) {
        const bool past = one.code == finding_code::R06;
        const bool inside = (one.code == finding_code::D01 || one.code == finding_code::D02) &&
                            one.place == place_kind::lpa && one.first < end &&
                            first < one.first + one.count;
        const bool gap = one.code == finding_code::D01 && one.place == place_kind::none;
        if (one.volume != volume.files->root || !(past || inside || gap)) {
            continue;
        }
        for (const finding_owner& owner : one.owners) {
            if (std::find(names.begin(), names.end(), owner.lun) == names.end()) {
                names.push_back(owner.lun);
            }
        }
    }
    std::string words;
    for (const std::string& name : names) {
        words += (words.empty() ? " Data of " : ", ") + name;
    }
    return words.empty() ? "" : words + (names.size() == 1 ? " lies there." : " lie there.");
}

// Extents that the file held once were written: to be past its end is no longer harmless.
static void raise_past_end(check_state* state, const volume_check& volume, uint64_t first,
                           uint64_t end) {
    for (finding& one : state->findings) {
        if (one.code == finding_code::D02 && one.volume == volume.files->root &&
            one.place == place_kind::lpa && one.first < end && first < one.first + one.count) {
            one.level = severity::damage;
        }
    }
}

static void report_cut(check_state* state, const volume_check& volume,
                       const known_data_file& before, const view_data_file* now,
                       const std::string& written) {
    char name[64];
    snprintf(name, sizeof name, "%s/EP_DAT_%05u", EP_DIR, static_cast<unsigned>(before.number));
    uint64_t first = 0;
    uint64_t end = ~uint64_t{0};
    if (volume.shift != 0) {
        const uint64_t span = uint64_t{1} << (DAT_SPAN_SHIFT - volume.shift);
        const uint64_t size = now != nullptr ? now->size : 0;
        const uint64_t kept = size > DAT_DATA_OFFSET ? (size - DAT_DATA_OFFSET) >> volume.shift : 0;
        const uint64_t had =
            before.size > DAT_DATA_OFFSET ? (before.size - DAT_DATA_OFFSET) >> volume.shift : 0;
        first = before.number * span + std::min(kept, span);
        end = before.number * span + std::min(had, span);
    }
    raise_past_end(state, volume, first, end);
    const std::string losers = losers_of(state, volume, first, end);
    add_finding(state, finding_code::S06, &volume, name);
    finding* added = &state->findings.back();
    added->was = now != nullptr ? std::to_string(now->size) : "";
    added->ought = std::to_string(before.size);
    added->detail = "It had " + size_words(before.size) + " on " + written +
                    (now != nullptr ? ", and has " + size_words(now->size) + "." : ".") + losers;
}

static void compare_data_files(check_state* state, const inventory& known,
                               const known_volume& volume, const volume_check& now) {
    for (const known_data_file& before : volume.data_files) {
        const view_data_file* found = nullptr;
        for (const view_data_file& file : now.files->data_files) {
            found = file.number == before.number ? &file : found;
        }
        if (found == nullptr || found->size < before.size) {
            report_cut(state, now, before, found, known.written);
        }
    }
}

void compare_volumes(check_state* state, const inventory& known) {
    compare_uuids(state, known);
    for (const known_volume& volume : known.volumes) {
        compare_place(state, known, volume);
        const volume_check* now = volume_now(state, volume);
        if (now != nullptr) {
            compare_data_files(state, known, volume, *now);
        }
    }
}
