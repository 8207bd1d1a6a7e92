#include "volume/journal_state.h"

#include "jnl/jnl_file.h"
#include "journal_status.h"
#include "platform.h"
#include "store/log.h"
#include "volume/discovery.h"
#include "volume/metadata_files.h"

int tarn_set_journal_status(const volume_paths* paths, uint32_t status) {
    const char* const name = __func__;
    return with_files(name, paths, {KIND_JNL}, [&] {
        if (set_journal_status(status) < 0) {
            log_err_as(name, "Fail to set journal %s BAD\n",
                       paths->journal);  // whatever the status
            return -1;
        }
        return 0;
    });
}

int tarn_get_journal_status(const volume_paths* paths, uint32_t* status) {
    return with_files(__func__, paths, {KIND_JNL}, [&] {
        *status = static_cast<uint32_t>(journal_status());
        return 0;
    });
}

// 1 read-only, 0 writable, -1 unknown; logged under the caller's name, which operators know.
static int is_read_only(const char* volume) {
    static constexpr const char* name = "is_read_only_volume_exist";
    ORBAMountVolInfo info = {};
    if (ORBAMountVolInfoGet(volume, &info) < 0) {
        log_err_as(name, "Fail to read how volume %s is mounted\n", volume);
        return -1;
    }
    if (info.writable == 0) {
        log_err_as(name, "Found read-only volume %s\n", volume);
        return 1;
    }
    return 0;
}

int is_read_only_volume_exist() {
    return for_each_volume(__func__, is_read_only);
}

int set_journal_ro_bad_when_ro_volume_exist(const volume_paths* paths) {
    const int result = is_read_only_volume_exist();
    if (result == 0) {
        return 0;
    }
    if (tarn_set_journal_status(paths, JNL_STATUS_RO) != 0) {
        log_err("Fail to set journal %s Read-Only BAD\n", paths->journal);
        return -1;
    }
    log_err("Set journal %s Read-Only BAD\n", paths->journal);
    return result;
}
