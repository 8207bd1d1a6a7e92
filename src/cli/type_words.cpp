#include "cli/type_words.h"

#include <cstring>

#include "cli/create.h"
#include "cli/operations.h"
#include "cli/search.h"
#include "store/log.h"

const fun_row ckjnl_funs[] = {
    {"fri", check_fri_journal},  // the file of --fripath
    {"tbl", check_tbl_journal},  // the file of --tblpath
    {"map", check_map_journal},  // the file of --mappath
    {"vol", check_vol_journal},  // every file below --volpath
    {nullptr, nullptr},
};

const fun_row rpjnl_funs[] = {
    {"fri", replay_fri_journal},  // the files of --fripath and --tblpath
    {"tbl", replay_tbl_journal},  // the file of --tblpath
    {"map", replay_map_journal},  // the file of --mappath
    {"vol", replay_vol_journal},  // every file below --volpath
    {nullptr, nullptr},
};

const fun_row create_funs[] = {
    {"fri", creat_fri_op},  // --path from --oldpath, all three
    {"tbl", creat_tbl_op},
    {"map", creat_map_op},
    {nullptr, nullptr},
};

const fun_row chuuid_funs[] = {
    {"fri", change_uuid_fri_op},  // the file of --fripath
    {"tbl", change_uuid_tbl_op},  // the file of --tblpath
    {nullptr, nullptr},
};

const fun_row search_funs[] = {
    {"fri", search_fri},  // the file of -p, all four
    {"tbl", search_tbl}, {"map", search_map}, {"jnl", search_jnl}, {nullptr, nullptr},
};

int bad_fun(int, char**, int) {
    return -1;
}

type_word_fun get_funs(const char* word, const fun_row* table) {
    if (word == nullptr) {
        log_err("param name is NULL\n");
        return bad_fun;
    }
    for (const fun_row* row = table; row->word != nullptr; row++) {
        if (strcmp(row->word, word) == 0) {
            return row->fun;
        }
    }
    log_err("Not define option '%s'\n", word);
    return bad_fun;
}
