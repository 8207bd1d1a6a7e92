// What an export found: how many bytes of each kind, and which of them are missing.
// Below: lun_reader.h. Above: the steps of an export, its mapfile, its printers.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "view/lun_reader.h"

// Bytes of the exported part, from its begin on.
struct missing_range {
    uint64_t begin;
    uint64_t bytes;
    lun_stretch_kind why;
};

struct export_totals {
    std::array<uint64_t, LUN_STRETCH_KINDS> bytes = {};
    std::vector<missing_range> missing;  // ascending; neighbours of one kind are one

    void add(uint64_t begin, uint64_t count, lun_stretch_kind kind) {
        bytes[static_cast<size_t>(kind)] += count;
        if (!is_lun_missing(kind)) {
            return;
        }
        if (!missing.empty() && missing.back().why == kind &&
            missing.back().begin + missing.back().bytes == begin) {
            missing.back().bytes += count;
        } else {
            missing.push_back({begin, count, kind});
        }
    }
    [[nodiscard]] uint64_t of(lun_stretch_kind kind) const {
        return bytes[static_cast<size_t>(kind)];
    }
    [[nodiscard]] uint64_t holes() const {
        return of(lun_stretch_kind::unmapped) + of(lun_stretch_kind::unwritten) +
               of(lun_stretch_kind::past_end);
    }
    [[nodiscard]] uint64_t missing_bytes() const {
        uint64_t sum = 0;
        for (const missing_range& range : missing) {
            sum += range.bytes;
        }
        return sum;
    }
};
