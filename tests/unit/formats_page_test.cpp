// The page about the formats: its layout tables match the rows of the dumps.
#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>
#include <span>
#include <string>
#include <vector>

#include "jnl/jnl_format.h"

struct layout {
    const char* heading;  // the beginning of the section's heading
    std::span<const field_row> rows;
    size_t record;          // the first byte of the record, which the table counts from
    size_t from;            // first byte of the table
    size_t end;             // byte after its last one
    size_t constant_nodes;  // of a header that has variable ones; 0: byte and memory are the same
};

static std::string size_word(const field_row& row) {
    const std::string width = std::to_string(row.width);
    if (row.count > 1) {
        return std::to_string(row.count) + " * " + width;
    }
    switch (row.format) {
        case field_format::uuid:
        case field_format::blank_uuid:
        case field_format::image:
            return width;
        case field_format::signed_number:
            return "s" + std::to_string(8 * row.width);
        default:
            return "u" + std::to_string(8 * row.width);
    }
}

// Where the byte `at` of a header in memory lies in the file: variable nodes begin at byte 4096.
static size_t byte_in_file(const layout& of, size_t at) {
    const size_t constant = of.constant_nodes * 64;
    return at < constant ? at : at - constant + 4096;
}

static std::string line_of(const layout& of, size_t at, const std::string& size,
                           const std::string& field) {
    const std::string memory = " " + std::to_string(at) + " |";
    return "|" + (of.constant_nodes == 0 ? "" : " " + std::to_string(byte_in_file(of, at)) + " |") +
           memory + " " + size + " |" + field + " |\n";
}

// The table without its last column. Bytes that no row has give a line without a field.
static std::string table_of(const layout& of) {
    std::vector<field_row> rows(of.rows.begin(), of.rows.end());
    std::sort(rows.begin(), rows.end(),
              [](const field_row& a, const field_row& b) { return a.offset < b.offset; });
    std::string table = of.constant_nodes == 0 ? "| byte | size | field |\n"
                                               : "| byte | in memory | size | field |\n";
    size_t at = of.from;
    for (const field_row& row : rows) {
        const size_t begin = of.record + row.offset;
        if (begin > at) {
            table += line_of(of, at, std::to_string(begin - at), "");
        }
        table += line_of(of, begin, size_word(row), " `" + std::string(row.name) + "`");
        at = begin + row.width * row.count;
    }
    return at == of.end ? table : table + line_of(of, at, std::to_string(of.end - at), "");
}

static std::string without_last_column(const std::string& line) {
    return line.substr(0, line.rfind('|', line.size() - 2) + 1) + "\n";
}

// The first table of the section, without its last column and the line below its header.
static std::string table_on_page(const std::string& heading) {
    std::ifstream page(TARN_DOCS "/formats.md");
    std::string table;
    bool inside = false;
    for (std::string line; std::getline(page, line);) {
        if (line.starts_with("#")) {
            inside = line.starts_with(heading);
        } else if (inside && line.starts_with("| ")) {
            table += without_last_column(line);
        } else if (!table.empty() && !line.starts_with("|-")) {
            break;
        }
    }
    return table;
}

TEST(formats_page, its_tables_match_the_rows_of_the_dumps) {
    constexpr size_t RECORD = JNL_RECORD_OFFSET;
    constexpr size_t BODY = RECORD + 4;  // after the type word
    constexpr size_t SUM = 508;
    for (const layout& each : {
             layout{"## The extent table", TBL_HEADER_ROWS, 0, 0, sizeof(tbl_header), 0},
             layout{"## The group index", FRI_HEADER_ROWS, 0, 0, sizeof(fri_header), 2},
             layout{"## Maps", MAP_HEADER_ROWS, 0, 0, sizeof(map_header), 2},
             layout{"## The journal", JNL_HEADER_ROWS, 0, 0, sizeof(jnl_header), 2},
             layout{"### A block of the ring", JNL_BLOCK_ROWS, 0, 0, sizeof(jnl_block), 0},
             layout{"### XCOPY", JNL_XCOPY_ROWS, RECORD, BODY, SUM, 0},
             layout{"### MOVES", JNL_MOVES_ROWS, RECORD, BODY, SUM, 0},
             layout{"### UNMAP", JNL_UNMAP_ROWS, RECORD, BODY, SUM, 0},
             layout{"### ALLOC", JNL_ALLOC_ROWS, RECORD, BODY, SUM, 0},
         }) {
        EXPECT_EQ(table_on_page(each.heading), table_of(each)) << each.heading;
    }
}
