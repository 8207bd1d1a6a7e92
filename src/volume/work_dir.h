// The directories that a volume's rebuilds work in: their removal, and the sync of a directory.
// Below: descriptor.h, the platform. Above: import_volume.h, full_check.h, reconstruct.h,
// table_swap.h, one_key.h.
#pragma once

// Removes `dir_name` below the volume's root, with all that it holds. Failures are only logged. A
// symbolic link of that name and a path too long for 256 bytes are not touched: both are logged.
void remove_work_dir(const char* root, const char* dir_name);

// Syncs the directory at `path`, so that the names in it survive a power failure. 0; -1, logged,
// and a reason to keep the journal.
int sync_directory(const char* path);
