#include "fri/fri_entries.h"

#include <algorithm>
#include <cstdio>

#include "print.h"
#include "store/data_node.h"
#include "store/keep_journal.h"
#include "tbl/tbl_entries.h"

int fri_entry_read(fri_entry* entry, uint64_t group) {
    const int got = read_data_bytes(current_fri.fd, fri_block_of(group), fri_byte_in_block(group),
                                    entry, sizeof *entry);
    if (got < 0) {
        log_err("fri read error, group_num[%llu]\n", ull(group));
    }
    return got;
}

int fri_entry_write_over(const fri_entry* entry, uint64_t group, node_mismatch* before) {
    constexpr const char* name = "fri_entry_write";
    if (current_fri.fd == 0) {
        log_keep_as(name, keep_reason::failed_write, "fri file descriptor is invalid\n");
        return -1;
    }
    if (group >= FRI_GROUP_CAPACITY) {
        log_keep_as(name, keep_reason::failed_write, "write fri error, group_num %llu\n",
                    ull(group));
        return -1;
    }
    switch (patch_data_node(current_fri.fd, fri_block_of(group), fri_byte_in_block(group), entry,
                            sizeof *entry, before)) {
        case patch_result::done:
            return 0;
        case patch_result::read_failed:
            log_keep_as(name, keep_reason::failed_write,  // nothing was tried: the change is lost
                        "read fri error before write fri entry, group_num %llu\n", ull(group));
            return -1;
        case patch_result::write_failed:
            break;
    }
    log_err_as(name, "write fri error, group_num %llu\n", ull(group));
    return -1;
}

int fri_entry_write(const fri_entry* entry, uint64_t group) {
    return fri_entry_write_over(entry, group, nullptr);
}

int tarn_fri_set_init_bit(uint64_t group) {
    fri_entry entry{};
    if (fri_entry_read(&entry, group) < 0) {
        return -1;  // logged there
    }
    if (fri_entry_is_init(&entry)) {
        return 0;
    }
    fri_entry_set_init(&entry);
    if (fri_entry_write(&entry, group) != 0) {
        log_err("Fail to write fri entry, group_num %llu\n", ull(group));
        return -1;
    }
    if (group + 1 > current_fri.header.fri_group_count) {
        current_fri.header.fri_group_count = group + 1;
        (void)save_fri();  // deliberate: logged there, and saved again when the rebuild ends
    }
    return 0;
}

void fri_take_free(uint64_t extents) {
    if (current_fri.fd != 0) {
        const uint64_t free_count = current_fri.header.fri_free_count;
        current_fri.header.fri_free_count = free_count - std::min(extents, free_count);
    }
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
        fri_take_free(1);
    }
    tbl_entry_set_count(&entry, count);
    (void)tbl_entry_write(&entry, lpa);  // always 0
    return 0;
}

void show_fri_entry(const fri_entry* entry) {
    if (entry == nullptr) {
        log_err("NULL pointer of fri\n");
        return;
    }
    printf("TARN_INFO: init[%d] next %llu freelisthead %u free_count %u\n",
           fri_entry_is_init(entry) ? 1 : 0, ull(fri_entry_next(entry)), fri_entry_head(entry),
           fri_entry_count(entry));
}

int dump_fri_group(uint64_t group) {
    fri_entry entry{};
    if (fri_entry_read(&entry, group) < 0) {
        log_err("dump fri group %llu fail\n", ull(group));
        return -1;
    }
    printf("TARN_INFO: FRI - group_num %llu\n", ull(group));
    show_fri_entry(&entry);
    return 0;
}
