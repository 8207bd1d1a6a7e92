#include "system/support/volume_checks.h"

#include <cstdio>
#include <gtest/gtest.h>

#include "support/scratch_file.h"

static run_result full_check(const damaged_server& server) {
    run_result found = server.run(FULL_CHECK_LINE);
    if (found.status != 0) {
        EXPECT_EQ(server.run("rm -rf $V/@EP_CHK").status, 0);
    }
    return found;
}

check_answers checks_of(const damaged_server& server) {
    const int full = full_check(server).status;
    return {full, server.run(LIST_CHECK_LINE).status};
}

reference_pair first_difference(const damaged_server& server) {
    const run_result found = full_check(server);
    EXPECT_EQ(found.status, 255);
    reference_pair pair = {0, -1, -1};
    for (const std::string& line : found.log) {
        const size_t at = line.find("lpa(");
        unsigned long long lpa = 0;
        if (at != std::string::npos && sscanf(line.c_str() + at, "lpa(%llu), (old, new)=(%d, %d)",
                                              &lpa, &pair.table, &pair.maps) == 3) {
            pair.lpa = lpa;
        }
    }
    return pair;
}

bool journal_is_there(const damaged_server& server) {
    return file_exists(server.file("/journal/EP_JNL"));
}

void expect_repair_succeeds(const damaged_server& server) {
    const run_result repair = server.run(REPAIR_LINE);
    EXPECT_EQ(repair.status, 0) << testing::PrintToString(repair.log);
}
