#include "store/field_rows.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "print.h"

static uint64_t number_at(const uint8_t* bytes, size_t width) {
    uint64_t number = 0;
    memcpy(&number, bytes, std::min(width, sizeof number));
    return number;
}

static void print_line(const field_row& row, const uint8_t* bytes) {
    const uint64_t number = number_at(bytes, row.width);
    const auto low = static_cast<uint32_t>(number);
    printf("TARN_INFO: %s", row.label);
    switch (row.format) {
        case field_format::number:
            printf("%llu\n", ull(number));
            break;
        case field_format::signed_number:
            printf("%d\n", static_cast<int32_t>(low));
            break;
        case field_format::low_hex:
            printf("0x%X\n", low);
            break;
        case field_format::hex:
            printf("0x%08x\n", low);
            break;
        case field_format::bare_hex:
            printf("%08x\n", low);
            break;
        case field_format::uuid:
            printf(UUID_DASHED "\n", UUID_ARGS(bytes));
            break;
        case field_format::blank_uuid:
            printf(UUID_DASHED_BLANK "\n", UUID_ARGS(bytes));
            break;
        case field_format::words:
        case field_format::image:
            break;  // not reached: the dump prints these
    }
}

void print_fields(std::span<const field_row> rows, const void* record, field_printer own) {
    for (const field_row& row : rows) {
        if (row.label == nullptr) {
            continue;
        }
        const uint8_t* bytes = static_cast<const uint8_t*>(record) + row.offset;
        if (row.format == field_format::words || row.format == field_format::image) {
            own(&row, bytes);
        } else {
            print_line(row, bytes);
        }
    }
}
