#include "cli/status_commands.h"

#include <strings.h>

#include "cli/operations.h"
#include "cli/sub_options.h"
#include "jnl/jnl_file.h"
#include "journal_status.h"
#include "options.h"
#include "store/log.h"
#include "volume/metadata_files.h"
#include "volume/run_lock.h"

// 0 when the open journal is not marked bad, else -1.
static int check_status(bool quiet) {
    if (static_cast<uint32_t>(journal_status()) != JNL_STATUS_BAD) {
        return 0;
    }
    if (!quiet) {
        log_err_as("vaai_status_check", "%sBAD JOURNAL\n", "");
    }
    return -1;
}

int vaai_status_check(int argc, char** argv, const char* mode) {
    const bool quiet = mode != nullptr && strcasecmp(mode, "nolog") == 0;
    if (parse_sub_options(argc, argv) != 0 || prepare_jnl_path() != 0) {
        return -1;
    }
    const volume_paths paths = paths_of_options();
    if (is_regular_file(paths.journal) == 0) {
        return 0;
    }
    return with_files(__func__, &paths, {KIND_JNL}, [&] { return check_status(quiet); });
}

struct status_word {
    const char* word;
    uint32_t status;
};
static constexpr status_word status_words[] = {
    {"bad", JNL_STATUS_BAD},
    {"ro", JNL_STATUS_RO},
    {"abnormal", JNL_STATUS_ABNORMAL},
    {"success", JNL_STATUS_SUCCESS},
};

static uint32_t status_of_word(const char* word) {
    if (word == nullptr) {
        return JNL_STATUS_BAD;
    }
    for (const status_word& row : status_words) {
        if (strcasecmp(row.word, word) == 0) {
            return row.status;
        }
    }
    return JNL_STATUS_INIT;
}

int vaai_status_set(int argc, char** argv, const char* word) {
    const uint32_t status = status_of_word(word);
    if (parse_sub_options(argc, argv) != 0 || prepare_jnl_path() != 0) {
        return -1;
    }
    run_lock_scope held;
    if (run_lock_journal(&held.lock, opt_ctx.jnlpath, nullptr) == 0 &&
        tarn_set_journal_status(status) != 0) {
        log_err("Fail to set journal %s BAD\n", opt_ctx.jnlpath);  // whatever the status
    }
    return -1;  // even if it was set, deliberate
}
