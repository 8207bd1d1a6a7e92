// Type words ("fri", "tbl", ...) and their handlers. Below: the procedures' headers.
#pragma once

using type_word_fun = int (*)(int argc, char** argv, int argument);

struct fun_row {
    const char* word;  // null ends a table
    type_word_fun fun;
};

extern const fun_row ckjnl_funs[];
extern const fun_row rpjnl_funs[];
extern const fun_row create_funs[];
extern const fun_row chuuid_funs[];
extern const fun_row search_funs[];

int bad_fun(int argc, char** argv, int argument);  // does nothing, -1
// Never null: a missing or unknown word is logged and answered with bad_fun.
type_word_fun get_funs(const char* word, const fun_row* table);
