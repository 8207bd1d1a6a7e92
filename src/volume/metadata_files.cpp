#include "volume/metadata_files.h"

#include "fri/fri_file.h"
#include "jnl/jnl_file.h"
#include "map/map_file.h"
#include "store/log.h"
#include "tbl/tbl_file.h"

// In the order of metadata_kind.
static constexpr metadata_kind_row rows[] = {
    {FILE_TYPE_FRI, "FRI", "FRI", FRI_LOAD_FAILED, "fripath",  //
     &volume_paths::index, load_fri, close_fri},
    {FILE_TYPE_TBL, "TBL", "TBL", TBL_LOAD_FAILED, "tblpath",  //
     &volume_paths::table, load_tbl, close_tbl},
    {FILE_TYPE_MAP, "MAP", "VAAI-LUN", MAP_LOAD_FAILED, "mappath",  //
     &volume_paths::map, load_map, close_map},
    {0, "JNL", "JNL", "Fail to load JNL", "jnlpath",  //
     &volume_paths::journal, load_jnl, close_jnl},
};
static_assert(sizeof rows / sizeof rows[0] == KIND_JNL + 1);

const metadata_kind_row* metadata_kind_of(metadata_kind kind) {
    return &rows[kind];
}

int load_files(const char* caller, const volume_paths* paths,
               std::initializer_list<metadata_kind> kinds) {
    for (const metadata_kind kind : kinds) {
        const metadata_kind_row* row = &rows[kind];
        const char* path = paths->*row->path;
        if (row->load(path) != 0) {
            log_err_as(caller, "%s %s\n", row->load_failed, path);
            return -1;
        }
    }
    return 0;
}

void close_files() {
    for (const metadata_kind_row& row : rows) {
        row.close();
    }
}
