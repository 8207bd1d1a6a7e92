// Servers from which something is taken, or in which something is exchanged, so that every check of
// the metadata alone passes or says little. Below: check_run.h. Above: the tests of inventories.
#pragma once

#include <string>
#include <vector>

// What has to be found with an inventory that was written before.
struct loss_row {
    const char* name;
    // Shell commands in the sample's directory. $V is volume1, $L0, $L1 and $SNAPSHOT
    // are maps of it.
    const char* commands;
    const char* code;   // has to come, with a severity of at least damage
    const char* named;  // LUNs that have to be named, separated by blanks
    bool guard_stops;
};
const std::vector<loss_row>& loss_rows();

// Makes a sample of the seed, writes its inventory, loses something, and asks check, inventory and
// guard. "right", or what is wrong.
std::string try_loss(const loss_row& row, unsigned seed);
