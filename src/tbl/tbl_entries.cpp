#include "tbl/tbl_entries.h"

#include "print.h"
#include "store/data_node.h"
#include "store/descriptor.h"
#include "store/keep_journal.h"

static int read_entry(int fd, tbl_entry* entry, uint64_t lpa) {
    return read_data_bytes(fd, tbl_block_of(lpa), tbl_byte_in_block(lpa), entry, sizeof *entry);
}

int tbl_entry_read(tbl_entry* entry, uint64_t lpa) {
    if (current_tbl.fd == 0) {
        log_err("tbl file descriptor is invalid\n");
        return 0;  // deliberate: callers continue
    }
    const int got = read_entry(current_tbl.fd, entry, lpa);
    if (got < 0) {
        log_err("tbl read error, lpa[%llu]\n", ull(lpa));
    }
    return got;
}

int tbl_handle_entry_read(tbl_handle* handle, tbl_entry* entry, uint64_t lpa) {
    const int got = read_entry(handle->fd, entry, lpa);
    if (got < 0) {
        log_err("tbl read error, lpa[%llu]\n", ull(lpa));
    }
    return got;
}

static int write_entry(const tbl_entry* entry, uint64_t lpa, node_mismatch* before) {
    constexpr const char* name = "tbl_entry_write";
    if (current_tbl.fd == 0) {
        log_keep_as(name, keep_reason::failed_write, "tbl file descriptor is invalid\n");
        return 0;
    }
    if (lpa >= TBL_TOTAL_COUNT) {
        log_keep_as(name, keep_reason::failed_write, "write tbl error, lpa %llu\n", ull(lpa));
        return 0;
    }
    switch (patch_data_node(current_tbl.fd, tbl_block_of(lpa), tbl_byte_in_block(lpa), entry,
                            sizeof *entry, before)) {
        case patch_result::done:
            break;
        case patch_result::read_failed:
            log_keep_as(name, keep_reason::failed_write,  // nothing was tried: the change is lost
                        "read tbl error before write tbl entry, lpa %llu\n", ull(lpa));
            break;
        case patch_result::write_failed:
            log_err_as(name, "write tbl error, lpa %llu\n", ull(lpa));
            break;
    }
    return 0;
}

int tbl_entry_write(const tbl_entry* entry, uint64_t lpa) {
    return write_entry(entry, lpa, nullptr);
}

int tbl_entry_check(const tbl_entry* entry, uint64_t lpa) {
    tbl_entry on_disk{};
    if (tbl_entry_read(&on_disk, lpa) < 0) {
        log_err("tbl entry check fail, lpa %llu\n", ull(lpa));
        return -1;
    }
    return on_disk.word == entry->word ? 1 : 0;
}

void tbl_note_damaged_block(uint64_t block, const node_mismatch* before) {
    char name[IO_NAME_SIZE];
    const uint64_t first = block * TBL_BLOCK_ENTRIES;
    log_keep_as(
        "tbl_entry_replay", keep_reason::damage,
        "%s: block %llu, lpa %llu to %llu, is damaged and gets a fresh checksum: on-disk(%08x) "
        "!= (%08x)\n",
        io_name(current_tbl.fd, name, sizeof name), ull(block), ull(first),
        ull(first + TBL_BLOCK_ENTRIES - 1), before->stored, before->computed);
}

int tbl_entry_replay(const tbl_entry* entry, uint64_t lpa) {
    node_mismatch before = {};
    if (write_entry(entry, lpa, &before) < 0) {
        log_err("tbl entry replay fail, lpa %llu\n", ull(lpa));
        return -1;
    }
    if (before.found) {
        tbl_note_damaged_block(tbl_block_of(lpa), &before);
    }
    return 0;
}
