// The fields of a record as rows: where each one lies, how wide it is and how a dump prints it.
// The dumps and the tables of docs/formats.md are made from the same rows. Above: the format
// headers, which have the rows, and the dumps. Nothing in here knows a kind of file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

enum class field_format {
    number,         // unsigned, decimal
    signed_number,  // decimal
    low_hex,        // "0x%X" of the low 32 bits
    hex,            // "0x%08x"
    bare_hex,       // "%08x"
    uuid,           // 8-4-4-4-12, zero-filled
    blank_uuid,     // the same, filled with blanks
    words,          // a number that the dump prints as text
    image,          // bytes that the dump formats itself
};

struct field_row {
    const char* name;   // of the member
    const char* label;  // what a dump prints before the value, blanks included; null: not printed
    field_format format;
    size_t offset;  // bytes, from the start of the record
    size_t width;   // bytes of one element
    size_t count;   // elements; more than 1: an array
};

constexpr field_row field_of(const char* name, const char* label, field_format format,
                             size_t offset, size_t width) {
    return {name, label, format, offset, width, 1};
}
constexpr field_row images_of(const char* name, size_t offset, size_t width, size_t size) {
    return {name, nullptr, field_format::image, offset, width, size / width};
}

// The row of one member of `record`: a field; the checksum of a node or block, which is named
// "checksum" in every row; an array of images.
#define FIELD_ROW(record, member, label, format) \
    field_of(#member, label, field_format::format, offsetof(record, member), sizeof(record::member))
#define CHECKSUM_ROW(record, member)                                              \
    field_of("checksum", nullptr, field_format::number, offsetof(record, member), \
             sizeof(record::member))
#define IMAGES_ROW(record, member) \
    images_of(#member, offsetof(record, member), sizeof(record::member[0]), sizeof(record::member))

// Prints one field of format `words` or `image`; `bytes` points to the field.
using field_printer = void (*)(const field_row* row, const uint8_t* bytes);

// Prints one line for each row that has a label, "TARN_INFO: <label><value>", on standard output,
// in the order of the rows. `own` prints the formats `words` and `image`; without such rows it may
// be null.
void print_fields(std::span<const field_row> rows, const void* record, field_printer own);
