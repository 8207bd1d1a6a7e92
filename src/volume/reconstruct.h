// The rebuild of a volume's table and index from its maps, finished with free lists and the
// volume's uuid. Below: import_volume.h, dat_file.h, fri_link.h, work_dir.h. Above: the commands,
// one_key.h.
#pragma once

// Rebuilds table and index of the volume in opt_ctx.volpath into its FIX_DIR. 0: both lie there,
// complete and on the disk, and so are their names. -1, logged or reported on standard output:
// FIX_DIR is gone, even one that was there before, deliberate; without a first data file that can
// be loaded it is not touched.
int do_reconstruct_volume();
