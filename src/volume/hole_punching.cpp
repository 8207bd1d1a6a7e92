#include "volume/hole_punching.h"

#include <cstdio>

#include "fri/fri_entries.h"
#include "fri/fri_file.h"
#include "platform.h"
#include "print.h"
#include "store/descriptor.h"
#include "store/file.h"
#include "store/keep_journal.h"
#include "tbl/tbl_entries.h"
#include "volume/dat_file.h"
#include "volume/volume_paths.h"

static constexpr int KEEP_SIZE_AND_PUNCH = 3;     // fallocate(2): KEEP_SIZE and PUNCH_HOLE
static constexpr uint32_t EXTENT_SHIFT_MAX = 31;  // of a size in 32 bits

struct lpa_range {
    uint64_t start;
    uint64_t end;
};

// The groups in use, from 0 up to the first one that was never initialised.
static lpa_range range_of_groups() {
    const uint64_t groups = current_fri.header.fri_group_count;
    uint64_t group = 0;
    for (; group < groups; group++) {
        fri_entry entry{};
        if (fri_entry_read(&entry, group) < 0) {
            log_keep_as("dat_cal_end_lpa", keep_reason::unread,
                        "Fail to read fri entry, group_num %llu\n", ull(group));
            return {0, 0};
        }
        if (!fri_entry_is_init(&entry)) {
            break;
        }
    }
    return {0, group * TBL_GROUP_ENTRIES};
}

struct dat_files {
    int count;
    int fds[DAT_FILE_MAX];
};

static void open_dat_files(dat_files* files, const char* root) {
    raise_open_file_limit();  // a volume may have more data files than a process usually may open
    for (files->count = 0; files->count < DAT_FILE_MAX; files->count++) {
        char path[PATH_TEXT_SIZE];
        if (dat_file_path(path, root, static_cast<unsigned>(files->count)) != 0) {
            break;
        }
        const int fd = open_file(path);
        if (fd == 0) {
            if (kind_of_path("dat_cal_end_lpa", path) == path_kind::file) {
                keep_journal(keep_reason::unread, "data file %s cannot be opened", path);
            }
            break;
        }
        files->fds[files->count] = fd;
    }
    printf("TARN_INFO: There are '%d' DAT files\n", files->count);
}

static void close_dat_files(dat_files* files) {
    for (int i = 0; i < files->count; i++) {
        io_close(files->fds[i]);
    }
}

static int punch_extent(const dat_files* files, const char* root, uint64_t lpa) {
    uint32_t size = 0;
    uint32_t shift = 0;
    if (ORBAiSCSIVAAIExtentSizeAndShiftGet(root, &size, &shift) < 0 || shift > EXTENT_SHIFT_MAX ||
        size != uint32_t{1} << shift) {  // another size would punch into a neighbouring extent
        log_err("cannot get a valid extent size for %s\n", root);
        return -1;
    }
    const uint64_t number = dat_file_number(lpa, shift);
    if (number >= static_cast<uint64_t>(files->count)) {
        printf("TARN_INFO: Wrong index('%d') of DAT file\n", static_cast<int>(number));
        return -1;
    }
    const uint64_t offset = dat_byte_in_file(lpa, shift);
    if (!io_allow(io_call::allocate) || ORBAFSFallocate(files->fds[number], KEEP_SIZE_AND_PUNCH,
                                                        static_cast<int64_t>(offset), size) < 0) {
        printf("TARN_INFO: Fail to punch offset '%llu' in'%d' DAT file\n", ull(offset),
               static_cast<int>(number));
        return -1;
    }
    return 0;
}

static int punch_range(const dat_files* files, const char* root, lpa_range range) {
    uint64_t punched = 0;  // also the number planned: the first failure ends the walk
    for (uint64_t lpa = range.start; lpa < range.end; lpa++) {
        tbl_entry entry{};
        if (tbl_entry_read(&entry, lpa) < 0) {
            return -1;
        }
        if (tbl_entry_is_used(&entry)) {
            continue;
        }
        if (punch_extent(files, root, lpa) != 0) {
            return -1;
        }
        punched++;
    }
    printf("TARN_INFO: Success to punch %llu/%llu (Success/Planned), lpa from '%llu' to '%llu'\n",
           ull(punched), ull(punched), ull(range.start), ull(range.end));
    return 0;
}

int dat_cal_end_lpa(const char* root, bool all_groups, uint64_t start, uint64_t length) {
    const lpa_range range = all_groups ? range_of_groups() : lpa_range{start, start + length};
    dat_files files;
    open_dat_files(&files, root);
    const int result = punch_range(&files, root, range);
    close_dat_files(&files);
    return result;
}
