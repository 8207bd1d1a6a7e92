// The journal over whole volumes: check and replay of every file of a volume, and of all volumes.
// Below: journal_drivers.h, discovery.h, handle_set.h, swap_marker.h. Above: the commands, start-up
// replay.
#pragma once

// 0, or -1 at the first failure, logged; what was replayed stays replayed.
int check_vol_journal(int argc, char** argv, int argument);       // the volume in opt_ctx.volpath
int replay_vol_journal(int argc, char** argv, int argument);      // the same
int check_all_vol_journal(int argc, char** argv);                 // scans sub-options
int replay_all_vol_journal(int argc, char** argv, int argument);  // scans sub-options
