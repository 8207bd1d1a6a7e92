#include "cli/status_commands.h"

#include <cstdio>
#include <strings.h>
#include <unistd.h>

#include "jnl/jnl_file.h"
#include "journal_status.h"
#include "options.h"
#include "print.h"
#include "store/keep_journal.h"
#include "volume/consistency.h"
#include "volume/journal_state.h"
#include "volume/volume_journal.h"
#include "volume/volume_paths.h"

// 0 when the open journal is not marked bad, else -1.
static int answer_status(bool quiet) {
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
    if (is_regular_file(opt_ctx.jnlpath) == 0) {
        return 0;
    }
    int result = -1;
    if (load_jnl(opt_ctx.jnlpath) != 0) {
        log_err("Fail to load JNL %s\n", opt_ctx.jnlpath);
    } else {
        result = answer_status(quiet);
    }
    close_jnl();
    return result;
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
    if (tarn_set_journal_status(status) != 0) {
        log_err("Fail to set journal %s BAD\n", opt_ctx.jnlpath);  // whatever the status
    }
    return -1;  // also when it was set, deliberate
}

static int mark_journal_bad() {
    if (tarn_set_journal_status(JNL_STATUS_BAD) != 0) {
        log_err_as("vaai_startup_replay", "Fail to set journal %s BAD\n", opt_ctx.jnlpath);
    }
    return -1;
}

// What the journal says may be forgotten only when everything that was written is on the disk.
static int remove_journal() {
    constexpr const char* name = "vaai_startup_replay";
    const keep_reasons reasons = keep_journal_reasons();
    if (reasons.count != 0) {
        log_err_as(name, "Keep journal %s, reasons %llu, the first: %s\n", opt_ctx.jnlpath,
                   ull(reasons.count), reasons.first);
        return mark_journal_bad();
    }
    tarn_log("%s(%d) Journal Consistent, Remove %s\n", name, __LINE__, opt_ctx.jnlpath);
    if (unlink(opt_ctx.jnlpath) != 0) {
        log_err_as(name, "Fail to remove journal %s\n", opt_ctx.jnlpath);
        return -1;
    }
    return 0;
}

// After an unclean shutdown.
static int replay_check_and_remove(int argc, char** argv) {
    if (set_journal_ro_bad_when_ro_volume_exist() != 0) {
        return -1;
    }
    tarn_log("%s(%d) Start to replaying Journal\n", "vaai_startup_replay", __LINE__);
    if (replay_all_vol_journal(argc, argv, 0) != 0 ||
        check_all_vol_metadata_consistent(argc, argv) != 0) {
        return mark_journal_bad();
    }
    return remove_journal();
}

// After a clean shutdown: the journal stays.
static int check_only(int argc, char** argv) {
    if (set_journal_ro_bad_when_ro_volume_exist() != 0) {
        return -1;
    }
    if (check_all_vol_metadata_consistent(argc, argv) != 0) {
        return mark_journal_bad();
    }
    return 0;
}

static int act_on_status(uint32_t status, int argc, char** argv) {
    switch (status) {
        case JNL_STATUS_BAD:
            log_err_as("vaai_startup_replay", "Journal In-Consistent\n");
            return -1;  // a bad journal is never replayed
        case JNL_STATUS_RO:
        case JNL_STATUS_ABNORMAL:
            return replay_check_and_remove(argc, argv);
        case JNL_STATUS_SUCCESS:
            return check_only(argc, argv);
        default:
            return -1;  // never used, or unknown: nothing is touched
    }
}

int vaai_startup_replay(int argc, char** argv) {
    if (parse_sub_options(argc, argv) != 0) {
        return -1;
    }
    if (opt_ctx.jnlpath[0] == '\0') {
        (void)get_jnl_root_path();  // without a root there is no journal, as told below
        printf("TARN_INFO: jnlPath=%s\n", opt_ctx.jnlpath);
    }
    if (is_regular_file(opt_ctx.jnlpath) == 0) {
        return 0;
    }
    uint32_t status = JNL_STATUS_INIT;
    if (tarn_get_journal_status(&status) != 0) {
        log_err("Fail to get journal status, jnlPath %s\n", opt_ctx.jnlpath);
        return -1;
    }
    return act_on_status(status, argc, argv);
}
