#include "ctl/support/damage_table.h"

#include <algorithm>
#include <cstring>
#include <sstream>

#include "fri/fri_format.h"
#include "map/map_format.h"
#include "metadata.h"
#include "support/scratch_file.h"
#include "system/support/lab_sample.h"
#include "tbl/tbl_format.h"

static constexpr const char* TABLE = "@EP/EP_TBL";
static constexpr const char* INDEX = "@EP/EP_FRI";
static constexpr const char* COPY_MAP = "@EP/EP_ROD";
static constexpr const char* REFERENCES = "R03 R04";  // an extent that lost a reference

// The part of the line that says where: files are "volume1/...", the journal is "journal/EP_JNL".
static std::string file_of(const std::string& line) {
    const std::string path = file_named_first(line);
    return path.substr(path.find('/') + 1);
}

static uint64_t byte_of(const damage_done& done) {
    return number_after(done.line, ": byte ");
}

static uint64_t block_of(uint64_t byte) {
    return (byte - METADATA_DATA_OFFSET) / DATA_NODE_SIZE;
}

static wanted_list header_node(const damage_done& done) {
    return {{"H01", file_of(done.line), "byte", byte_of(done) / META_NODE_SIZE * META_NODE_SIZE}};
}

static const char* code_of_block(const std::string& file) {
    return file == TABLE ? "T01" : (file == INDEX ? "F01" : "M01");
}

static wanted_list damaged_block(const damage_done& done) {
    const std::string file = file_of(done.line);
    return {{code_of_block(file), file, file == TABLE || file == INDEX ? "block" : "node",
             block_of(byte_of(done))}};
}

static wanted_list lost_file(const damage_done& done) {
    return {{"H05", file_of(done.line)}};
}

static wanted_list lost_both(const damage_done&) {
    return {{"H05", INDEX}, {"H05", TABLE}};
}

static wanted_list noise(const damage_done& done) {
    return {{"T01", TABLE, "block", 0},
            {"T01", TABLE, "block", number_after(done.line, ", blocks 0 to ")}};
}

// "A -> B" after the words.
static std::pair<uint64_t, uint64_t> change_after(const std::string& line,
                                                  const std::string& words) {
    const size_t at = line.find(words);
    return {number_after(line, words), number_after(line.substr(at), " -> ")};
}

// One reference too many in the table, or one too few.
static wanted_list reference_count(const damage_done& done) {
    const auto [from, to] = change_after(done.line, ", references: ");
    return {{to < from ? "R02" : "R03", TABLE, "lpa", number_after(done.line, ", lpa "),
             std::to_string(to), "", std::to_string(from)}};
}

// A list that still passes every free extent has lost its tail: that is met first.
static wanted_list list_of_group(const char* code, const damage_done& done) {
    const bool was_tail = done.line.find(" tail 1 -> ") != std::string::npos;
    return {{was_tail ? "F04" : code, INDEX, "group", number_after(done.line, " of group ")}};
}
static wanted_list list_loop(const damage_done& done) {
    return list_of_group("F03", done);
}
static wanted_list list_used(const damage_done& done) {
    return list_of_group("F02", done);
}
static wanted_list list_tail(const damage_done& done) {
    return list_of_group("F04", done);
}

static wanted_list list_count(const damage_done& done) {
    const auto [from, to] = change_after(done.line, ": free count ");
    return {{"F05", INDEX, "group", number_after(done.line, ", group "), std::to_string(to), "",
             std::to_string(from)}};
}

// Whether the group behind the changed link was a listed one: the list then ended too early.
static wanted_list group_loop(const damage_done& done) {
    const uint64_t next = number_after(done.line, ": next ");
    const uint64_t byte = METADATA_DATA_OFFSET + next / FRI_BLOCK_ENTRIES * DATA_NODE_SIZE +
                          next % FRI_BLOCK_ENTRIES * sizeof(fri_entry);
    const std::string index = done.sample + "/volume" + std::to_string(done.volume) + "/" + INDEX;
    constexpr uint8_t INITIALISED = 0x80;  // the highest bit of an entry
    const bool early = (file_bytes(index, byte + 7, 1)[0] & INITIALISED) != 0;
    return {{early ? "F07" : "F12", INDEX}};
}

static wanted_list free_count(const damage_done& done) {
    const auto [from, to] = change_after(done.line, "free count: ");
    return {{"F10", INDEX, "", 0, std::to_string(to), "", std::to_string(from)}};
}

static wanted_list mapped_count(const damage_done& done) {
    const auto [from, to] = change_after(done.line, "mapped count: ");
    return {{"M03", file_of(done.line), "", 0, std::to_string(to), "", std::to_string(from)}};
}

static wanted_list pool_table(const damage_done& done) {
    return {{"M06", file_of(done.line)}};
}

// The copy map may be shorter than its entries.
static wanted_list truncated(const damage_done& done) {
    const std::string file = file_of(done.line);
    return {{file == COPY_MAP ? "M03" : "M05", file}};
}

static wanted_list lost_map(const damage_done&) {
    return {{REFERENCES, TABLE}};
}

static wanted_list nothing(const damage_done&) {
    return {};
}

static wanted_list old_map(const damage_done&) {
    return {{"R01 R02 R03 R04", TABLE}};
}

static wanted_list data_file_cut(const damage_done& done) {
    return {{"D02", "", "lpa", number_after(done.line, ", lpa ")}};
}

static wanted_list foreign_journal(const damage_done&) {
    return {{"S07", ""}};
}

static wanted_list journal_note(const damage_done& done) {
    return {{"J03 J06", "", "journal_block", number_after(done.line, "of block ")}};
}

static wanted_list journal_window(const damage_done& done) {
    return {{"J03", "", "journal_block", number_after(done.line, ", block ")}};
}

// An entry "lea N: FROM -> TO" that was changed, in hexadecimal words.
struct changed_entry {
    uint64_t lea;
    uint64_t from;
    uint64_t to;
};

static changed_entry entry_of(const damage_done& done) {
    const uint64_t lea = number_after(done.line, ", lea ");
    const std::string words = done.line.substr(done.line.find(": ", done.line.find(", lea ")) + 2);
    const size_t to = words.find(" -> ");
    return {lea, std::stoull(words, nullptr, 16), std::stoull(words.substr(to + 4), nullptr, 16)};
}

static uint64_t lpa_of(uint64_t word) {
    return word & MAP_LPA_MASK;
}

static wanted_list wrong_extent(const char* code, const damage_done& done) {
    const changed_entry entry = entry_of(done);
    return {{code, TABLE, "lpa", lpa_of(entry.to), "", file_of(done.line)},
            {REFERENCES, TABLE, "lpa", lpa_of(entry.from)}};
}
static wanted_list alias(const damage_done& done) {
    return wrong_extent("R02", done);
}
static wanted_list dangling(const damage_done& done) {
    return wrong_extent("R01", done);
}

static wanted_list leaked(const damage_done& done) {
    return {{"R04", TABLE, "lpa", number_after(done.line, ", lpa "), "1", "", "0"}};
}

static wanted_list far_lpa(const damage_done& done) {
    const changed_entry entry = entry_of(done);
    const std::string file = file_of(done.line);
    return {{lpa_of(entry.to) < TBL_TOTAL_COUNT ? "R06" : "R07", file, "lea", entry.lea, "", file},
            {REFERENCES, TABLE, "lpa", lpa_of(entry.from)}};
}

// The one that is found first stays unreported; both are owners.
static wanted_list uuid_twice(const damage_done& done) {
    constexpr const char* OTHER = ", that of ";
    const std::string other = done.line.substr(done.line.find(OTHER) + strlen(OTHER));
    const std::string below =
        other.substr(other.find('/') + 1, other.find('\n') - other.find('/') - 1);
    return {{"P01", "", "", 0, "", file_of(done.line)}, {"P01", "", "", 0, "", below}};
}

static wanted_list pool_uuid(const damage_done& done) {
    return {{"M07", file_of(done.line), "", 0, std::to_string(number_after(done.line, ", row "))}};
}

static wanted_list foreign_row(const damage_done& done) {
    return {{"M07", file_of(done.line), "", 0, std::to_string(entry_of(done).to >> 48 & 0xFFF)}};
}

static wanted_list behind_end(const damage_done& done) {
    return {{"M04", file_of(done.line), "lea", entry_of(done).lea}};
}

static wanted_list unsummed(const damage_done& done) {
    return {{"M02", file_of(done.line), "node", number_after(done.line, "of data node ")}};
}

static wanted_list open_end(const damage_done&) {
    return {{"F12", INDEX}};
}

static wanted_list orphan(const damage_done& done) {
    return {{"M10", file_of(done.line)}};
}

static wanted_list gap(const damage_done& done) {
    return {{"D01", file_of(done.line)}};
}

// A checksum that became zero is not checked: what is lost then shows in the counts alone. A node
// that was zero before may hold nothing but blank entries.
static wanted_list torn_node(const damage_done& done) {
    const std::string file = file_of(done.line);
    if (done.line.find("-> 00000000") == std::string::npos) {
        return {{"M01", file}};
    }
    return done.line.find(" bytes are zero") == std::string::npos ? wanted_list{}
                                                                  : wanted_list{{"M02 M03", file}};
}

#define LISTS "F02 F03 F04 F05 F06 F07 F08 F09 F10 F11 F12 "
#define ENTRIES "M03 M08 R01 R02 R03 R04 R05 "
#define COUNTS "T02 T03 R01 R02 R03 R04 R05 "

const std::vector<damage_row>& damage_rows() {
    static const std::vector<damage_row> rows = {
        {"index-header-bit", header_node, "", LISTS, "4 5"},
        {"table-header-bit", header_node, "", "", "4"},
        {"map-header-bit", header_node, "", "M03", "4"},
        {"index-block-bit", damaged_block, "", LISTS "T03", "4 5"},
        {"table-block-bit", damaged_block, "", COUNTS "F06 F09 F10 F12 D02", "4 5"},
        {"map-node-bit", damaged_block, "", ENTRIES, "4 5"},
        {"index-lost", lost_file, "", "", "4"},
        {"table-lost", lost_file, "", "", "4"},
        {"both-lost", lost_both, "J05", "", "4"},
        {"table-noise", noise, "", COUNTS LISTS "D02", "5"},
        {"reference-count", reference_count, "", "", "3 5"},
        {"list-loop", list_loop, "", "", "4 5"},
        {"list-used", list_used, "", "", "4 5"},
        {"list-tail", list_tail, "", "", "4"},
        {"list-count", list_count, "", "", "3"},
        {"group-loop", group_loop, "", "F09", "0 5"},
        {"free-count", free_count, "", "", "3"},
        {"mapped-count", mapped_count, "", "", "3"},
        {"pool-table", pool_table, "", "M07", "4"},
        {"map-truncated", truncated, "R03 R04", "M03", "3 4"},
        {"map-lost", lost_map, "R03 R04 J05", "", "3"},
        {"maps-swapped", nothing, "", "", "0"},
        {"map-old", old_map, "R01 R02 R03 R04", "", "3 5"},
        {"data-file-cut", data_file_cut, "D02", "", "0"},
        {"journal-foreign", foreign_journal, "J05", "", "0"},
        {"journal-block", journal_note, "", "", "0"},
        {"alias", alias, "", "", "5"},
        {"dangling", dangling, "", "", "5"},
        {"leak", leaked, "", "", "3"},
        {"far-lpa", far_lpa, "", "", "4"},
        {"uuid-twice", uuid_twice, "J05", "", "5"},
        {"pool-uuid", pool_uuid, "", "", "4"},
        {"foreign-pool-row", foreign_row, "", "", "4"},
        {"entry-behind-end", behind_end, "", "", "0"},
        {"unsummed-node", unsummed, "", "", "0"},
        {"index-open-end", open_end, "", "", "0"},
        {"orphan-map", orphan, "", "", "0"},
        {"data-file-gap", gap, "D02", "", "4"},
        {"two-bits", damaged_block, "", COUNTS LISTS ENTRIES "D02", "4 5"},
        {"three-entries", damaged_block, "", ENTRIES, "4 5"},
        {"torn-node", torn_node, "M02 M03 M08 R03 R04", ENTRIES, "0 3 4 5"},
        {"journal-block-in-window", journal_window, "J01 J05 J06", COUNTS LISTS "M03 M08 R06 R07",
         "5"},
    };
    return rows;
}

static std::set<std::string> words_of(const std::string& text) {
    std::istringstream words(text);
    std::set<std::string> set;
    for (std::string word; words >> word;) {
        set.insert(word);
    }
    return set;
}

static const damage_row& row_of(const std::string& kind) {
    const auto found = std::find_if(damage_rows().begin(), damage_rows().end(),
                                    [&](const damage_row& row) { return kind == row.kind; });
    return *found;
}

// A torn transaction is reported where it begins, which may be before the block.
static bool covers(const seen_finding& seen, const wanted_finding& wanted) {
    return wanted.place.empty() || seen.code == "J06" || seen.covers(wanted.place, wanted.at);
}

static bool is_there(const wanted_finding& wanted, const std::string& volume,
                     const seen_finding& seen) {
    const bool server = wanted.codes[0] == 'J' || wanted.codes == "S07";
    return words_of(wanted.codes).contains(seen.code) &&
           (server ? seen.volume.empty() : seen.volume.ends_with(volume)) &&
           (wanted.file.empty() || seen.file == wanted.file) && covers(seen, wanted) &&
           (wanted.was.empty() || seen.was == wanted.was) &&
           (wanted.ought.empty() || seen.ought == wanted.ought) &&
           (wanted.owner.empty() || seen.names(wanted.owner));
}

static std::string words_of(const wanted_finding& wanted) {
    return "no " + wanted.codes + " at " + wanted.file + " " + wanted.place + " " +
           (wanted.place.empty() ? "" : std::to_string(wanted.at)) + "; ";
}

// What has to come for a damage and did not. Consequences count if `mixed`.
static std::string missing(const damage_done& done, const check_run& run, bool mixed) {
    const std::string volume = "/volume" + std::to_string(done.volume);
    std::string wrong;
    for (const wanted_finding& wanted : row_of(done.kind).wanted(done)) {
        const bool found =
            std::any_of(run.findings.begin(), run.findings.end(), [&](const seen_finding& seen) {
                return (mixed || seen.because == 0) && is_there(wanted, volume, seen);
            });
        // What is not counted while a map cannot be read is left out, and said so.
        const bool left_out = mixed && wanted.codes[0] == 'R' && !run.left_out.empty();
        wrong += found || left_out ? "" : words_of(wanted);
    }
    return wrong;
}

// Codes that may stand for themselves, and those that need a cause.
struct allowed_codes {
    std::set<std::string> roots;
    std::set<std::string> consequences;
    std::set<std::string> exits;
};

static allowed_codes allowed_of(const std::vector<damage_done>& done,
                                const std::set<std::string>& notes) {
    allowed_codes allowed = {notes, {}, {}};
    for (const damage_done& one : done) {
        const damage_row& row = row_of(one.kind);
        for (const wanted_finding& wanted : row.wanted(one)) {
            allowed.roots.merge(words_of(wanted.codes));
        }
        allowed.roots.merge(words_of(row.roots));
        allowed.consequences.merge(words_of(row.consequences));
        allowed.exits.merge(words_of(row.exits));
    }
    return allowed;
}

static std::string unexpected(const allowed_codes& allowed, const check_run& run) {
    std::string wrong;
    for (const seen_finding& seen : run.findings) {
        const auto& codes = seen.because == 0 ? allowed.roots : allowed.consequences;
        if (!codes.contains(seen.code)) {
            wrong += "unexpected " + seen.code + (seen.because == 0 ? "" : " with a cause") +
                     " in " + seen.volume + "/" + seen.file + "; ";
        }
    }
    return wrong;
}

static std::string wrong_status(const allowed_codes& allowed, const check_run& run, size_t count) {
    const bool right =
        count == 1 ? allowed.exits.contains(std::to_string(run.status)) : is_verdict(run.status);
    return right ? "" : "exit " + std::to_string(run.status);
}

std::string judge(const std::vector<damage_done>& done, const check_run& run,
                  const std::set<std::string>& notes) {
    const allowed_codes allowed = allowed_of(done, notes);
    std::string wrong;
    for (const damage_done& one : done) {
        wrong += missing(one, run, false);
    }
    return wrong + unexpected(allowed, run) + wrong_status(allowed, run, done.size());
}

std::string judge_mixed(const std::vector<damage_done>& done, const check_run& run,
                        const std::set<std::string>& notes) {
    allowed_codes allowed = allowed_of(done, notes);
    std::string wrong;
    for (const damage_done& one : done) {
        wrong += missing(one, run, true);
    }
    allowed.consequences.insert(allowed.roots.begin(), allowed.roots.end());
    return wrong + unexpected(allowed, run) + wrong_status(allowed, run, done.size());
}
