#include "cli/later_commands.h"

#include "store/log.h"

int later_command(const char* name) {
    log_err("--%s is not available in this version\n", name);
    return -1;
}

int creat_fri_op(int, char**, int) {
    return later_command("create");
}

int creat_tbl_op(int, char**, int) {
    return later_command("create");
}

int creat_map_op(int, char**, int) {
    return later_command("create");
}

int change_uuid_fri_op(int, char**, int) {
    return later_command("change-uuid");
}

int change_uuid_tbl_op(int, char**, int) {
    return later_command("change-uuid");
}

int search_fri(int, char**, int) {
    return later_command("search");
}

int search_tbl(int, char**, int) {
    return later_command("search");
}

int search_map(int, char**, int) {
    return later_command("search");
}

int search_jnl(int, char**, int) {
    return later_command("search");
}
