#include "volume/journal_drivers.h"

#include <cstdio>

#include "fri/fri_file.h"
#include "jnl/jnl_check.h"
#include "jnl/jnl_file.h"
#include "jnl/jnl_replay.h"
#include "jnl/jnl_seen_keys.h"
#include "map/map_file.h"
#include "options.h"
#include "store/log.h"
#include "tbl/tbl_file.h"

// Closing what is not open does nothing, so one way out serves every driver.
static void close_all() {
    close_fri();
    close_tbl();
    close_map();
    close_jnl();
}

int check_fri_journal(int, char**, int) {
    int result = -1;
    printf("TARN_INFO: CHECK FRI %s\n", opt_ctx.fripath);
    if (load_fri(opt_ctx.fripath) != 0) {
        log_err("Fail to load FRI %s\n", opt_ctx.fripath);
    } else if (load_jnl(opt_ctx.jnlpath) != 0) {
        log_err("Fail to load JNL %s\n", opt_ctx.jnlpath);
    } else if (jnl_file_type_check(FILE_TYPE_FRI) != 0) {
        log_err("FRI %s is not match with JNL %s\n", opt_ctx.fripath, opt_ctx.jnlpath);
    } else {
        printf("TARN_INFO: FRI %s check successfully\n", opt_ctx.fripath);
        result = 0;
    }
    close_all();
    return result;
}

int check_tbl_journal(int, char**, int) {
    int result = -1;
    printf("TARN_INFO: CHECK TBL %s\n", opt_ctx.tblpath);
    if (load_tbl(opt_ctx.tblpath) != 0) {
        log_err("Fail to load TBL %s\n", opt_ctx.tblpath);
    } else if (load_jnl(opt_ctx.jnlpath) != 0) {
        log_err("Fail to load JNL %s\n", opt_ctx.jnlpath);
    } else if (jnl_file_type_check(FILE_TYPE_TBL) != 0) {
        log_err("TBL %s is not match with JNL %s\n", opt_ctx.tblpath, opt_ctx.jnlpath);
    } else {
        printf("TARN_INFO: TBL %s check successfully\n", opt_ctx.tblpath);
        result = 0;
    }
    close_all();
    return result;
}

int check_map_journal(int, char**, int) {
    int result = -1;
    printf("TARN_INFO: CHECK VAAI-LUN %s\n", opt_ctx.mappath);
    if (load_map(opt_ctx.mappath) != 0) {
        log_err("Fail to load MAP %s\n", opt_ctx.mappath);
    } else if (load_jnl(opt_ctx.jnlpath) != 0) {
        log_err("Fail to load JNL %s\n", opt_ctx.jnlpath);
    } else if (jnl_file_type_check(FILE_TYPE_MAP) != 0) {
        log_err("MAP %s is not match with JNL %s\n", opt_ctx.mappath, opt_ctx.jnlpath);
    } else {
        printf("TARN_INFO: MAP %s check successfully\n", opt_ctx.mappath);
        result = 0;
    }
    close_all();
    return result;
}

// The table is loaded as well: a group that the journal initialises gets its free list there.
int replay_fri_journal(int argc, char** argv, int) {
    int result = -1;
    if (parse_sub_options(argc, argv) != 0) {
        return result;  // nothing is open
    }
    printf("TARN_INFO: REPLAY FRI %s\n", opt_ctx.fripath);
    if (load_fri(opt_ctx.fripath) != 0) {
        log_err("Fail to load FRI %s\n", opt_ctx.fripath);
    } else if (load_tbl(opt_ctx.tblpath) != 0) {
        log_err("Fail to load TBL %s\n", opt_ctx.tblpath);
    } else if (load_jnl(opt_ctx.jnlpath) != 0) {
        log_err("Fail to load JNL %s\n", opt_ctx.jnlpath);
    } else if (jnl_file_type_replay(FILE_TYPE_FRI) != 0) {
        log_err("Fail to replay FRI %s with JNL %s\n", opt_ctx.fripath, opt_ctx.jnlpath);
    } else {
        printf("TARN_INFO: FRI %s replay successfully\n", opt_ctx.fripath);
        result = 0;
    }
    close_all();
    return result;
}

int replay_tbl_journal_pass(int argc, char** argv, jnl_seen_keys* applied) {
    constexpr const char* name = "replay_tbl_journal";
    int result = -1;
    if (parse_sub_options(argc, argv) != 0) {
        return result;  // nothing is open
    }
    printf("TARN_INFO: REPLAY TBL %s\n", opt_ctx.tblpath);
    if (load_tbl(opt_ctx.tblpath) != 0) {
        log_err_as(name, "Fail to load TBL %s\n", opt_ctx.tblpath);
    } else if (load_jnl(opt_ctx.jnlpath) != 0) {
        log_err_as(name, "Fail to load JNL %s\n", opt_ctx.jnlpath);
    } else if (jnl_file_type_replay_pass(FILE_TYPE_TBL, applied) != 0) {
        log_err_as(name, "Fail to replay TBL %s with JNL %s\n", opt_ctx.tblpath, opt_ctx.jnlpath);
    } else {
        printf("TARN_INFO: TBL %s replay successfully\n", opt_ctx.tblpath);
        result = 0;
    }
    close_all();
    return result;
}

int replay_tbl_journal(int argc, char** argv, int) {
    jnl_seen_keys applied = {};
    const int result = replay_tbl_journal_pass(argc, argv, &applied);
    jnl_seen_keys_free(&applied);
    return result;
}

int replay_map_journal(int argc, char** argv, int) {
    int result = -1;
    if (parse_sub_options(argc, argv) != 0) {
        return result;  // nothing is open
    }
    printf("TARN_INFO: REPLAY VAAI-LUN %s\n", opt_ctx.mappath);
    if (load_map(opt_ctx.mappath) != 0) {
        log_err("Fail to load MAP %s\n", opt_ctx.mappath);
    } else if (load_jnl(opt_ctx.jnlpath) != 0) {
        log_err("Fail to load JNL %s\n", opt_ctx.jnlpath);
    } else if (jnl_file_type_replay(FILE_TYPE_MAP) != 0) {
        log_err("Fail to replay MAP %s with JNL %s\n", opt_ctx.mappath, opt_ctx.jnlpath);
    } else {
        result = 0;  // in silence, deliberate
    }
    close_all();
    return result;
}
