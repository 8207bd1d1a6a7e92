// Where the maps of a volume are, and which names are maps. Below: nothing. Above: discovery, the
// search for a first map.
#pragma once

#include <cstddef>
#include <cstring>

// Names inside a volume's root.
constexpr const char* EP_DIR = "@EP";
constexpr const char* FIX_DIR = "@EP_FIX";
constexpr const char* CHECK_DIR = "@EP_CHK";

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
    {"@iSCSITrg", true, is_map_of_lun},
    {"@EP_trash", true, is_any_name},
    {"@Snapshot", false, is_map_of_snapshot},  // without a type filter, deliberate
};

constexpr size_t LUN_SEARCH_COUNT = sizeof lun_searches / sizeof lun_searches[0];

// Maps of the volume itself, in EP_DIR.
constexpr const char* UNMAP_BUFFER_NAME = "EP_BUF";
constexpr const char* ROD_MAP_NAME = "EP_ROD";
