// Commands that parse and are not in this version: each says so in one log line and fails.
// Below: the log.
#pragma once

// Handlers of type words; all -1.
int creat_fri_op(int argc, char** argv, int argument);
int creat_tbl_op(int argc, char** argv, int argument);
int creat_map_op(int argc, char** argv, int argument);
int change_uuid_fri_op(int argc, char** argv, int argument);
int change_uuid_tbl_op(int argc, char** argv, int argument);
int search_fri(int argc, char** argv, int argument);
int search_tbl(int argc, char** argv, int argument);
int search_map(int argc, char** argv, int argument);
int search_jnl(int argc, char** argv, int argument);

// Says that the command `name` is not in this version: -1.
int later_command(const char* name);
