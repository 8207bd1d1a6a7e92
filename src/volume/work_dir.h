// Removal of the directories that a volume's rebuilds work in. Below: the platform. Above:
// full_check.h, reconstruct.h, one_key.h.
#pragma once

// Removes `dir_name` below the volume in opt_ctx.volpath, with all that it holds; whether that
// worked is not looked at. A symbolic link of that name stays, and a path too long for 256 bytes is
// not touched: both logged.
void remove_work_dir(const char* dir_name);
