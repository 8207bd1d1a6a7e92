#include "volume/journal_state.h"

#include "jnl/jnl_file.h"
#include "journal_status.h"
#include "options.h"
#include "platform.h"
#include "store/log.h"
#include "volume/discovery.h"

int tarn_set_journal_status(uint32_t status) {
    int result = -1;
    if (load_jnl(opt_ctx.jnlpath) != 0) {
        log_err("Fail to load JNL %s\n", opt_ctx.jnlpath);
    } else if (set_journal_status(status) < 0) {
        log_err("Fail to set journal %s BAD\n", opt_ctx.jnlpath);  // whatever the status
    } else {
        result = 0;
    }
    close_jnl();
    return result;
}

int tarn_get_journal_status(uint32_t* status) {
    int result = -1;
    if (load_jnl(opt_ctx.jnlpath) != 0) {
        log_err("Fail to load JNL %s\n", opt_ctx.jnlpath);
    } else {
        *status = static_cast<uint32_t>(journal_status());
        result = 0;
    }
    close_jnl();
    return result;
}

// 1 read-only, 0 writable, -1 unknown; logged under the name that operators know: the caller's.
static int is_read_only(const char* volume, int, char**) {
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
    return for_each_volume(__func__, is_read_only, 0, nullptr);
}

int set_journal_ro_bad_when_ro_volume_exist() {
    const int result = is_read_only_volume_exist();
    if (result == 0) {
        return 0;
    }
    if (tarn_set_journal_status(JNL_STATUS_RO) != 0) {
        log_err("Fail to set journal %s Read-Only BAD\n", opt_ctx.jnlpath);
        return -1;
    }
    log_err("Set journal %s Read-Only BAD\n", opt_ctx.jnlpath);
    return result;
}
