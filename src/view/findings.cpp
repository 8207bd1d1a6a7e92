#include "view/findings.h"

#include <cstring>
#include <iterator>

// What several rows say.
#define LOOK_AGAIN "tarnctl check --volume VOLUME"
#define LIST_ALL "tarnctl check --volume VOLUME --all"
#define REBUILD "tarn --onekeyrepair --volpath VOLUME"
#define SCAN_MAP "tarn --check-map --mappath MAP"
#define NO_SERVICE " Do not start the service."

// The sentence follows the place and a colon. An administrator reads it at 3 a.m.: what is wrong,
// what it may do to data, and one command that does no harm.
const finding_row FINDING_ROWS[] = {
    // Headers.
    {finding_code::H01, "H01", "header-checksum", severity::damage,
     "its header does not match its checksum.",
     "Commands refuse this file. If it is a map, put the header of a copy in place, and do not "
     "rebuild before: a rebuild frees what it does not find in a map.",
     LOOK_AGAIN},
    {finding_code::H02, "H02", "header-type", severity::damage,
     "its magic or its type is not that of a file in this place.",
     "Another file was put here, or the header is damaged. Do not rebuild before the right file "
     "is back.",
     LOOK_AGAIN},
    {finding_code::H03, "H03", "header-field", severity::damage,
     "its header holds an impossible value.",
     "A command that believes it works on the wrong extents. Put the header of a copy in place.",
     LOOK_AGAIN},
    {finding_code::H04, "H04", "header-version", severity::note,
     "its header names a version that this program does not know.",
     "What the file holds may differ from what was checked here.", "tarnctl explain H04"},
    {finding_code::H05, "H05", "file-missing", severity::damage,
     "missing, although the volume has maps.",
     "Make sure first that the right disk is mounted. Without this file the service cannot "
     "allocate.",
     LOOK_AGAIN},
    // The table.
    {finding_code::T01, "T01", "table-checksum", severity::damage,
     "a block of the table does not match its checksum.",
     "Its counts cannot be trusted: an extent in use may look free, and be overwritten.", REBUILD},
    {finding_code::T02, "T02", "used-uncounted", severity::damage,
     "marked as in use in the table, with 0 references.",
     "The table contradicts itself: only the maps show whether these extents are free.", REBUILD},
    {finding_code::T03, "T03", "used-in-new-group", severity::damage,
     "marked as in use, in a group that was never initialised.",
     "When the service begins to use the group, it may allocate these extents again.", REBUILD},
    {finding_code::T04, "T04", "table-unsummed", severity::note,
     "a block of the table carries no checksum.",
     "Nothing is wrong, but damage in this block would not be noticed.", "tarnctl explain T04"},
    // Free lists and the index.
    {finding_code::F01, "F01", "index-checksum", severity::damage,
     "a block of the index does not match its checksum.",
     "Its free lists cannot be trusted: an allocation may take an extent in use.", REBUILD},
    {finding_code::F02, "F02", "list-meets-used", severity::urgent,
     "a free list runs into an extent in use.",
     "The next allocation may overwrite a LUN's data." NO_SERVICE, REBUILD},
    {finding_code::F03, "F03", "list-loops", severity::urgent, "a free list loops.",
     "The same extent may be allocated twice." NO_SERVICE, REBUILD},
    {finding_code::F04, "F04", "list-without-tail", severity::damage,
     "a free list does not end with a tail.",
     "Behind its last right entry nothing is known to be free.", REBUILD},
    {finding_code::F05, "F05", "list-length", severity::count,
     "a free list has another length than the index says.",
     "The free space of the group is miscounted. No data are at risk.", REBUILD},
    {finding_code::F06, "F06", "free-unlisted", severity::count, "free, but on no free list.",
     "This space is not allocated until a rebuild. No data are at risk.", REBUILD},
    {finding_code::F07, "F07", "group-list-loops", severity::urgent,
     "the list of groups loops before it has passed every group with free extents.",
     "An allocation may never end, or miss the free space." NO_SERVICE, REBUILD},
    {finding_code::F08, "F08", "group-list-names", severity::count,
     "the list of groups names a group that does not belong there.",
     "A full group on the list does no harm. An impossible one cuts the list off.", REBUILD},
    {finding_code::F09, "F09", "group-unlisted", severity::count,
     "has free extents, but is not on the list of groups.",
     "This space is not allocated until a rebuild. No data are at risk.", REBUILD},
    {finding_code::F10, "F10", "free-count", severity::count,
     "the index has a wrong sum of free extents.",
     "The service shows the wrong free space. No data are at risk.", REBUILD},
    {finding_code::F11, "F11", "group-count", severity::count,
     "the index counts fewer groups than are in use.",
     "A replay may lawfully leave it so. Do not run tarn --finalize before it is right: groups "
     "past the count would get no free lists.",
     REBUILD},
    {finding_code::F12, "F12", "group-list-goes-on", severity::count,
     "the list of groups goes on after the last group with free extents.",
     "A sound rebuild can leave it so. No data are at risk.",
     "tarn --freeck --fripath VOLUME/@EP/EP_FRI --tblpath VOLUME/@EP/EP_TBL"},
    // Maps.
    {finding_code::M01, "M01", "map-checksum", severity::damage,
     "a node of the map does not match its checksum.",
     "One of its 63 entries or more may be wrong. Keep a copy of the map before any repair: a "
     "repair blanks all 63.",
     SCAN_MAP},
    {finding_code::M02, "M02", "map-unsummed", severity::note,
     "a node with entries carries no checksum.",
     "Nothing is wrong, but damage in this node would not be noticed.", "tarnctl explain M02"},
    {finding_code::M03, "M03", "mapped-count", severity::count,
     "the header has a wrong number of mapped entries.",
     "The entries themselves are right. No data are at risk.", SCAN_MAP " --repair"},
    {finding_code::M04, "M04", "entry-behind-end", severity::note,
     "an entry behind the end of the map.", "The LUN does not reach it. No data are at risk.",
     "tarnctl explain M04"},
    {finding_code::M05, "M05", "map-cut", severity::damage,
     "the file ends before its last mapped entry.",
     "The LUN reads zeros there. Find a copy of the map, and do not rebuild before: a rebuild "
     "frees these extents.",
     SCAN_MAP},
    {finding_code::M06, "M06", "pool-checksum", severity::damage,
     "the pool table of the map does not match its checksum.",
     "A replay cannot tell which volume the map's extents are in. Put the header and pool table "
     "of a copy in place.",
     LOOK_AGAIN},
    {finding_code::M07, "M07", "pool-row", severity::damage,
     "mapped through a row of the pool table that is missing or names no volume.",
     "A replay cannot tell which volume these extents are in.", SCAN_MAP},
    {finding_code::M08, "M08", "buffer-blank", severity::note,
     "the unmap buffer has entries after its first blank one.",
     "A rebuild does not see them and frees their extents. Do not rebuild before the buffer is "
     "right.",
     SCAN_MAP},
    {finding_code::M10, "M10", "stray-map", severity::note,
     "looks like a map, but lies where no command looks for maps.",
     "A copy does no harm here. But if a LUN uses this map, a rebuild frees the LUN's data.",
     LIST_ALL},
    {finding_code::M11, "M11", "path-cut", severity::damage,
     "its path has more than the 127 characters that tarn can hold.",
     "tarn opens another file or none. Do not rebuild: it may free the data of this map.",
     LOOK_AGAIN},
    // References.
    {finding_code::R01, "R01", "mapped-free", severity::urgent,
     "mapped to extents that the table calls free.",
     "The next allocation may overwrite them." NO_SERVICE, REBUILD},
    {finding_code::R02, "R02", "aliased", severity::urgent,
     "mapped to extents that have more references than the table counts.",
     "Two LUNs may share an extent by mistake; the next unmap frees it while it is in "
     "use." NO_SERVICE " Do not rebuild: a rebuild makes a mix-up legal, and every check passes "
     "afterwards.",
     LIST_ALL},
    {finding_code::R03, "R03", "overcounted", severity::count,
     "the table counts more references than the maps hold.",
     "The space is not freed with its last reference. No data are at risk, if no map is missing "
     "or old.",
     REBUILD},
    {finding_code::R04, "R04", "leaked", severity::count,
     "in use according to the table, but in no map.",
     "Only space is lost, if every map is there. If one is missing or old, these are its data, "
     "and a rebuild frees them: compare the LUNs with the service's own list first.",
     LIST_ALL},
    {finding_code::R05, "R05", "count-full", severity::note,
     "has 4095 references, the most that the table can count.", "Nothing is wrong.",
     "tarnctl explain R05"},
    {finding_code::R06, "R06", "past-data-files", severity::damage,
     "mapped to extents past the end of the data files.",
     "A data file is missing, or the entries are damaged although their checksum is right. Do "
     "not rebuild: find the file, or a copy of the map.",
     LOOK_AGAIN},
    {finding_code::R07, "R07", "past-table", severity::damage,
     "mapped to extents that no table can hold.",
     "The entries are damaged although their checksum is right. Do not rebuild: find a copy of "
     "the map.",
     LOOK_AGAIN},
    // Identities.
    {finding_code::P01, "P01", "uuid-twice", severity::urgent, "has the uuid of another file.",
     "A replay writes into the first one that it finds, and a rebuild counts both." NO_SERVICE
     " Move the copy out of the volume.",
     LOOK_AGAIN},
    {finding_code::P02, "P02", "uuids-differ", severity::damage,
     "has another uuid than the table, the index or the data files beside it.",
     "It may belong to another volume, and a replay does not find it. Put the right file in "
     "place.",
     LOOK_AGAIN},
    {finding_code::P03, "P03", "uuid-zero", severity::note, "its uuid is all zero.",
     "Checks pass, but a replay skips this file or fails.", "tarnctl explain P03"},
    // Data files.
    {finding_code::D01, "D01", "data-file-gap", severity::damage,
     "this data file is missing between others.",
     "The LUNs' data in it are gone, or lie on a disk that is not mounted. Find the file before "
     "anything writes.",
     LOOK_AGAIN},
    {finding_code::D02, "D02", "past-file-end", severity::note,
     "in use, past the end of the data file.",
     "These extents were never written. If the file was cut, their data are lost.",
     "tarnctl explain D02"},
    {finding_code::D03, "D03", "data-file-header", severity::damage, "its header is damaged.",
     "The LUNs' data behind it are not affected, but without the first file's header no rebuild "
     "is possible.",
     LOOK_AGAIN},
    {finding_code::D04, "D04", "mapped-hole", severity::note, "mapped to holes in the data file.",
     "These extents were never written, or were punched. They read as zeros.",
     "tarnctl explain D04"},
    {finding_code::D05, "D05", "no-data-file", severity::damage, "has no data file at all.",
     "Make sure that the right disk is mounted. Without the first data file no rebuild is "
     "possible.",
     LOOK_AGAIN},
    // The journal.
    {finding_code::J01, "J01", "journal-status", severity::note, "not closed by a clean shutdown.",
     "The last changes may be in the journal alone: keep it, and replay it before the service "
     "starts.",
     "tarn --startup-replay"},
    {finding_code::J02, "J02", "journal-header", severity::damage, "its header is damaged.",
     "It cannot be replayed. Copy the journal before anything else runs.", "tarn --search jnl -m"},
    {finding_code::J03, "J03", "journal-damaged", severity::urgent,
     "a block that a replay needs is damaged or missing.",
     "Start-up replay takes it for the end of history, exits with 0 and deletes the journal. Do "
     "not run it, and do not start the service: copy the journal first.",
     "tarnctl check --raw"},
    {finding_code::J04, "J04", "journal-counts", severity::damage,
     "a record holds impossible counts.",
     "A replay may stop there. Copy the journal before anything else runs.", "tarnctl check --raw"},
    {finding_code::J05, "J05", "journal-stranger", severity::note,
     "has records for a file that no volume has.",
     "The file was deleted since, or its volume is not mounted. A replay skips these records.",
     "tarnctl explain J05"},
    {finding_code::J06, "J06", "journal-torn", severity::note,
     "its newest transaction was not recorded to its end.",
     "The power failed meanwhile. A replay skips it, and nothing committed is lost.",
     "tarnctl explain J06"},
    {finding_code::J08, "J08", "replay-refused", severity::damage, "a replay would be refused.",
     "The volumes are as the crash left them. Other findings may be consequences of it: do not "
     "repair them first.",
     "tarnctl check --raw"},
    // The server.
    {finding_code::S01, "S01", "path-missing", severity::damage,
     "named in the configuration, but not ready for use.",
     "A mount may be missing. Start-up replay must not run without it: a volume's part of the "
     "journal would be deleted, or the journal not be found.",
     "tarnctl check"},
    {finding_code::S02, "S02", "left-over", severity::note,
     "a work directory of an earlier run is left over.",
     "If it holds a file called swap, a repair was cut: finish it before the service starts. "
     "Otherwise move the directory out of the volume.",
     LOOK_AGAIN},
    {finding_code::S04, "S04", "map-gone", severity::damage,
     "the inventory knows this map, and it is gone.",
     "If nobody deleted the LUN, its volume may not be mounted, or the map was lost: a rebuild "
     "would "
     "free its data. Put the map back first.",
     LIST_ALL},
    {finding_code::S05, "S05", "map-exchanged", severity::urgent,
     "not the map, or not the state of it, that the inventory knows.",
     "If the LUN was not recreated, maps were swapped or an old one was put back: clients would "
     "read "
     "and write another LUN's data." NO_SERVICE,
     LIST_ALL},
    {finding_code::S06, "S06", "data-file-cut", severity::damage,
     "the inventory knows this data file, and it is gone or shorter.",
     "The LUNs' data at its end are lost, or lie on a disk that is not mounted. Find them before "
     "anything writes.",
     LIST_ALL},
    {finding_code::S07, "S07", "journal-of-others", severity::urgent,
     "has records for a table or an index that no volume has.",
     "A volume is not mounted, or this is the journal of another server. Start-up replay would "
     "skip "
     "these records and delete the journal: do not run it." NO_SERVICE,
     "tarnctl explain S07"},
    {finding_code::S08, "S08", "volume-twice", severity::urgent,
     "has the uuids of another volume: one of the two is a copy.",
     "A replay writes into one of them only, and perhaps into the wrong one." NO_SERVICE
     " Unmount the copy.",
     LOOK_AGAIN},
    {finding_code::S09, "S09", "map-new", severity::note, "the inventory does not know this map.",
     "It was made since. Write a new inventory at the next clean stop.", "tarnctl explain S09"},
    // The data behind it may be lost or sound: neither damage nor harmless. A check with such a
    // finding is incomplete.
    {finding_code::X01, "X01", "unreadable", severity::count, "cannot be read.",
     "What lies there is unknown, and findings that depend on it are left out. Look at the disk "
     "and at the permissions.",
     LOOK_AGAIN},
};
const size_t FINDING_ROW_COUNT = std::size(FINDING_ROWS);

// The rows stand in the order of the codes: a code is an index.
static_assert(std::size(FINDING_ROWS) == static_cast<size_t>(finding_code::X01) + 1);

const finding_row* finding_row_of(finding_code code) {
    return &FINDING_ROWS[static_cast<size_t>(code)];
}

const finding_row* finding_row_named(const char* name) {
    for (const finding_row& row : FINDING_ROWS) {
        if (strcmp(row.name, name) == 0) {
            return &row;
        }
    }
    return nullptr;
}

const char* severity_word(severity level) {
    static constexpr const char* WORDS[] = {"note", "count", "damage", "urgent"};
    static_assert(std::size(WORDS) == static_cast<size_t>(severity::urgent) + 1);
    return WORDS[static_cast<size_t>(level)];
}
