// --create: a new metadata file from an old one; --change-uuid: a new uuid for one that exists.
// Each handler reads its own sub-options. Below: the files of the three kinds. Above: the type
// words.
#pragma once

// Create --path from --oldpath. Always -1, even if the file was created, deliberate: check the
// file. Failures are logged.
int creat_fri_op(int argc, char** argv, int argument);
int creat_tbl_op(int argc, char** argv, int argument);
int creat_map_op(int argc, char** argv, int argument);

// Give the file of --fripath or --tblpath the uuid of --uuid; without --uuid sixteen zero bytes.
// 0 if it was loaded, even if it could not be saved (logged), deliberate; else -1, logged.
int change_uuid_fri_op(int argc, char** argv, int argument);
int change_uuid_tbl_op(int argc, char** argv, int argument);
