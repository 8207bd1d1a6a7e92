// The rebuild of a whole volume's table and index from its maps, in a work directory.
// Below: import.h, map_check.h, discovery.h, the files of the three kinds. Above: the commands,
// full_check.h, reconstruct.h, one_key.h.
#pragma once

// Rebuilds table and index of the volume in opt_ctx.volpath from all its maps, in the new directory
// `dir_name` below its root; with opt_ctx.repair each map is repaired first. 0, or -1 at the first
// failure, logged: the directory then stays for the caller to remove. Table, index and map are
// closed. An existing directory, or a link of that name, is refused before a file is made.
int do_import_volume(const char* dir_name);

// The same for a comparison with the live table. *agrees becomes true when that says of every
// extent what the maps say: then nobody needs the rebuilt table's entries, and only headers were
// written. Else it becomes false: they were, and the first difference is to be looked for.
int do_import_volume_to_compare(const char* dir_name, bool* agrees);
