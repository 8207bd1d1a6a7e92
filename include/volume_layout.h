// The layout of a volume: the names below its root, which are spelled only here, which files are
// maps, and where an extent lies in the data files. Ground floor: includes nothing of this project.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

// Directories in a volume's root.
constexpr const char* EP_DIR = "@EP";           // the live metadata and the data files
constexpr const char* FIX_DIR = "@EP_FIX";      // work directory of a rebuild
constexpr const char* CHECK_DIR = "@EP_CHK";    // work directory of a full check
constexpr const char* LUN_DIR = "@iSCSITrg";    // maps of LUNs
constexpr const char* TRASH_DIR = "@EP_trash";  // maps of LUNs that are being deleted
constexpr const char* SNAPSHOT_DIR = "@Snapshot";

// Files in EP_DIR or a work directory.
constexpr const char* TABLE_NAME = "EP_TBL";
constexpr const char* INDEX_NAME = "EP_FRI";
constexpr const char* UNMAP_BUFFER_NAME = "EP_BUF";
constexpr const char* ROD_MAP_NAME = "EP_ROD";

// The journal's file, in the directory that the configuration names.
constexpr const char* JOURNAL_NAME = "EP_JNL";

// What a map maps. The kind is not stored in the file: it follows from the file's place, or from an
// option.
enum map_kind_code : int {
    MAP_KIND_LUN = 0,
    MAP_KIND_UNMAP_BUFFER = 1,
    MAP_KIND_ROD = 2,
};

// A directory with maps of LUNs, in the order in which a volume's maps are listed.
struct lun_search {
    const char* directory;
    bool files_only;  // else every entry, directories too
    bool (*keep)(const char* file_name);
};

inline bool is_map_of_lun(const char* file_name) {
    return strstr(file_name, "_Extent_") != nullptr;
}
inline bool is_any_name(const char*) {
    return true;
}
inline bool is_map_of_snapshot(const char* file_name) {
    return strncmp(file_name, "FAMILY_", 7) == 0;
}

constexpr lun_search lun_searches[] = {
    {LUN_DIR, true, is_map_of_lun},
    {TRASH_DIR, true, is_any_name},
    {SNAPSHOT_DIR, false, is_map_of_snapshot},  // without a type filter, deliberate
};

constexpr size_t LUN_SEARCH_COUNT = sizeof lun_searches / sizeof lun_searches[0];

// Placement: every data file holds 2^42 bytes of extents, after a header area of one mebibyte.
constexpr uint32_t DAT_SPAN_SHIFT = 42;
constexpr uint64_t DAT_DATA_OFFSET = 0x100000;

// `shift`: extents are of 2^shift bytes, DAT_SPAN_SHIFT at most.
constexpr uint64_t dat_file_number(uint64_t lpa, uint32_t shift) {
    return lpa >> (DAT_SPAN_SHIFT - shift);
}
constexpr uint64_t dat_byte_in_file(uint64_t lpa, uint32_t shift) {
    const uint64_t extents_mask = (uint64_t{1} << (DAT_SPAN_SHIFT - shift)) - 1;
    return ((lpa & extents_mask) << shift) + DAT_DATA_OFFSET;
}
