// The two checks of volume 1: their exit status, and the first difference that the full check
// reports. Below: damaged_server.h. Above: the tests of what the operator pages warn of.
#pragma once

#include <cstdint>
#include <string>

#include "system/support/damaged_server.h"

constexpr const char* FULL_CHECK_LINE = "tarn --fullck --volpath $V";
constexpr const char* LIST_CHECK_LINE =
    "tarn --freeck --fripath $V/@EP/EP_FRI --tblpath $V/@EP/EP_TBL";
constexpr const char* REPAIR_LINE = "tarn --onekeyrepair --volpath $V";
constexpr const char* START_LINE = "tarn --startup-replay";

constexpr const char* TABLE_FILE = "/volume1/@EP/EP_TBL";
constexpr const char* INDEX_FILE = "/volume1/@EP/EP_FRI";
constexpr const char* DATA_FILE = "/volume1/@EP/EP_DAT_00000";
constexpr const char* LUN_MAP = "/volume1/@iSCSITrg/LUN_1/LUN_1_Extent_0";
constexpr const char* OTHER_LUN_MAP = "/volume1/@iSCSITrg/LUN_0/LUN_0_Extent_0";

// Exit statuses.
struct check_answers {
    int full;
    int lists;
    bool operator==(const check_answers&) const = default;
};
constexpr check_answers BOTH_PASS = {0, 0};

// Runs both; removes the files that a failed full check leaves.
check_answers checks_of(const damaged_server& server);

// "(old, new)=(table, maps)" of a full check that ends with 255. -1, -1: it reports no such pair.
struct reference_pair {
    uint64_t lpa;
    int table;
    int maps;
};
reference_pair first_difference(const damaged_server& server);

// Start-up replay removes the journal if it passes.
bool journal_is_there(const damaged_server& server);
// Runs the one-key repair, which must succeed.
void expect_repair_succeeds(const damaged_server& server);
