// The directories that a volume's rebuilds work in: their removal, and putting the names in a
// directory on the disk. Below: descriptor.h, the platform. Above: import_volume.h, full_check.h,
// reconstruct.h, table_swap.h, one_key.h.
#pragma once

// Removes `dir_name` below the volume's root, with all that it holds. A failure is logged and has
// no result. A symbolic link of that name stays, and a path too long for 256 bytes is not touched:
// both logged.
void remove_work_dir(const char* root, const char* dir_name);

// Syncs the directory at `path`, so that the names in it survive a power failure. 0; -1, logged,
// and a reason to keep the journal.
int sync_directory(const char* path);
