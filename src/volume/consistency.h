// Checks of index and table against each other, and the repair of the index from the table.
// Below: the index's checks and repair, discovery.h. Above: the commands, start-up replay.
#pragma once

// 0 consistent (or repaired), -1 otherwise, logged; index, table and journal are closed again.
int check_metadata_consistent(int argc, char** argv);  // the head group; scans sub-options
int check_all_vol_metadata_consistent(int argc, char** argv);
int check_freelist_consistent();           // every listed group
int fix_fri_tbl_metadata_to_consistent();  // the repair: fix_fri_group_head
