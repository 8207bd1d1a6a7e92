#include "tbl/tbl_entries.h"

#include "fri/fri_file.h"
#include "print.h"
#include "store/data_node.h"
#include "store/descriptor.h"
#include "store/log.h"

static int read_entry(int fd, tbl_entry* entry, uint64_t lpa) {
    return read_data_bytes(fd, tbl_block_of(lpa), tbl_byte_in_block(lpa), entry, sizeof *entry);
}

int tbl_entry_read(tbl_entry* entry, uint64_t lpa) {
    if (current_tbl.fd == 0) {
        log_err("tbl file descriptor is invalid\n");
        return 0;  // deliberate: callers go on
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

int tbl_entry_write(const tbl_entry* entry, uint64_t lpa) {
    if (current_tbl.fd == 0) {
        log_err("tbl file descriptor is invalid\n");
        io_count_failed_write();
        return 0;
    }
    if (lpa >= TBL_TOTAL_COUNT) {
        log_err("write tbl error, lpa %llu\n", ull(lpa));
        io_count_failed_write();
        return 0;
    }
    switch (patch_data_node(current_tbl.fd, tbl_block_of(lpa), tbl_byte_in_block(lpa), entry,
                            sizeof *entry)) {
        case patch_result::done:
            break;
        case patch_result::read_failed:
            log_err("read tbl error before write tbl entry, lpa %llu\n", ull(lpa));
            io_count_failed_write();  // nothing was tried below, and the change is lost
            break;
        case patch_result::write_failed:
            log_err("write tbl error, lpa %llu\n", ull(lpa));
            break;
    }
    return 0;
}

int tbl_entry_ref_inc(uint64_t lpa) {
    if (lpa >= TBL_TOTAL_COUNT) {
        log_err("no table holds lpa %llu\n", ull(lpa));
        return -1;
    }
    tbl_entry entry{};
    if (tbl_entry_read(&entry, lpa) < 0) {
        return -1;  // logged there
    }
    const uint32_t count = tbl_entry_count(&entry) + 1u;
    if (count == 1) {
        tbl_entry_set_used(&entry);
        if (current_fri.fd != 0 && current_fri.header.fri_free_count != 0) {
            current_fri.header.fri_free_count--;
        }
    }
    tbl_entry_set_count(&entry, count);
    (void)tbl_entry_write(&entry, lpa);  // always 0
    return 0;
}

int tbl_entry_check(const tbl_entry* entry, uint64_t lpa) {
    tbl_entry on_disk{};
    if (tbl_entry_read(&on_disk, lpa) < 0) {
        log_err("tbl entry check fail, lpa %llu\n", ull(lpa));
        return -1;
    }
    return on_disk.word == entry->word ? 1 : 0;
}

int tbl_entry_replay(const tbl_entry* entry, uint64_t lpa) {
    if (tbl_entry_write(entry, lpa) < 0) {
        log_err("tbl entry replay fail, lpa %llu\n", ull(lpa));
        return -1;
    }
    return 0;
}
