#include "handles/handle_set.h"

#include <cerrno>
#include <cstdlib>
#include <gtest/gtest.h>

#include "store/header_file.h"
#include "support/io_faults.h"
#include "support/log_capture.h"
#include "support/open_files.h"
#include "support/sample_maps.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"

namespace {

class handle_set : public testing::Test {
protected:
    handle_set() {
        init_handle_set();
        EXPECT_EQ(finish_handle_set(), 0);
    }
    ~handle_set() override { finish_handle_set(); }
    // A metadata file of header type `type`; it is loaded.
    int load(const std::string& name, uint32_t type, uint8_t uuid) {
        const std::string path = dir_.file(name);
        make_empty_file(path);
        if (type == 1) {
            make_tbl(path, uuid_of(uuid));
        } else if (type == 2) {
            make_fri(path, uuid_of(uuid), 0);
        } else {
            make_map(path, uuid_of(uuid), uuid_of(0x77));
            set_header_u64(path, 0, 16, type | uint64_t{uuid} * 0x0101010100000000);
        }
        return load_as_handle(path.c_str());
    }
    // The name of the file that is found for 16 times `uuid`; "" if there is none.
    std::string found(uint8_t uuid, uint32_t type) {
        const handle_prefix* handle = lookup_handle(uuid_of(uuid).data(), type);
        return handle == nullptr ? "" : std::string(handle->path).substr(dir_.path().size() + 1);
    }

    scratch_dir dir_;
    log_capture log_;
};

const char* const NOT_LOADED = "ERR: load_as_handle(#) Not support file type ";

}  // namespace

TEST_F(handle_set, finds_a_file_by_uuid_among_its_kind) {
    EXPECT_EQ(load("tbl", 1, 0xA1), 0);
    EXPECT_EQ(load("fri", 2, 0xA1), 0);
    EXPECT_EQ(load("map", 4, 0xA1), 0);
    EXPECT_EQ(found(0xA1, 1), "tbl");
    EXPECT_EQ(found(0xA1, 2), "fri");
    EXPECT_EQ(found(0xA1, 4), "map");
    for (const uint32_t type : {1u, 2u, 4u}) {
        EXPECT_EQ(found(0xA2, type), "");
    }
    EXPECT_EQ(log_.lines(), log_lines({}));
}

TEST_F(handle_set, compares_the_whole_uuid) {
    EXPECT_EQ(load("map", 4, 0xA1), 0);
    for (const size_t byte : {size_t{0}, size_t{15}}) {
        uuid_bytes key = uuid_of(0xA1);
        key[byte] ^= 1;
        EXPECT_EQ(lookup_handle(key.data(), 4), nullptr) << byte;
    }
}

TEST_F(handle_set, a_table_is_found_for_a_missing_map_and_nothing_else_is) {
    EXPECT_EQ(load("tbl", 1, 0xB1), 0);
    EXPECT_EQ(load("fri", 2, 0xB2), 0);
    EXPECT_EQ(load("map", 4, 0xB3), 0);
    EXPECT_EQ(found(0xB1, 4), "tbl");
    EXPECT_EQ(found(0xB2, 4), "");
    EXPECT_EQ(found(0xB3, 1), "");
    EXPECT_EQ(found(0xB1, 2), "");
    handle_kind kind = HANDLE_FRI;
    EXPECT_NE(lookup_handle_of_kind(uuid_of(0xB1).data(), 4, &kind), nullptr);
    EXPECT_EQ(kind, HANDLE_TBL);
    EXPECT_NE(lookup_handle_of_kind(uuid_of(0xB3).data(), 4, &kind), nullptr);
    EXPECT_EQ(kind, HANDLE_MAP);
}

TEST_F(handle_set, the_file_loaded_first_is_found_if_two_share_a_uuid) {
    EXPECT_EQ(load("one", 4, 0xC1), 0);
    EXPECT_EQ(load("two", 4, 0xC1), 0);
    EXPECT_EQ(found(0xC1, 4), "one");
    EXPECT_EQ(load("tbl_one", 1, 0xC1), 0);
    EXPECT_EQ(load("tbl_two", 1, 0xC1), 0);
    EXPECT_EQ(found(0xC1, 1), "tbl_one");
    EXPECT_EQ(found(0xC1, 4), "one");  // a map before any table
}

TEST_F(handle_set, holds_any_number_of_files_of_a_kind) {
    const size_t before = open_files();
    for (uint8_t uuid = 1; uuid <= 4; uuid++) {
        EXPECT_EQ(load("map" + std::to_string(uuid), 4, uuid), 0);
    }
    for (uint8_t uuid = 1; uuid <= 4; uuid++) {
        EXPECT_EQ(found(uuid, 4), "map" + std::to_string(uuid));
    }
    EXPECT_EQ(finish_handle_set(), 0);
    EXPECT_EQ(open_files(), before);
}

TEST_F(handle_set, types_without_handles_are_refused_and_nothing_is_linked) {
    const size_t before = open_files();
    EXPECT_EQ(load("type3", 3, 0xD1), -1);
    EXPECT_EQ(log_.lines(), log_lines({NOT_LOADED + std::string("3 load to handle\n")}));
    EXPECT_EQ(load("type5", 5, 0xD1), -1);
    EXPECT_EQ(log_.last(), NOT_LOADED + std::string("5 load to handle\n"));
    EXPECT_EQ(load("type0", 0, 0xD1), -1);
    EXPECT_EQ(log_.last(), "ERR: load_as_handle(#) Unrecognized file type 0\n");
    EXPECT_EQ(load("type6", 6, 0xD1), -1);
    EXPECT_EQ(log_.last(), "ERR: load_as_handle(#) Unrecognized file type 6\n");
    EXPECT_EQ(load("typemax", 0xFFFFFFFF, 0xD1), -1);
    EXPECT_EQ(log_.last(), "ERR: load_as_handle(#) Unrecognized file type -1\n");
    EXPECT_EQ(open_files(), before);
    for (const uint32_t type : {1u, 2u, 4u}) {
        EXPECT_EQ(found(0xD1, type), "");
    }
}

TEST_F(handle_set, a_lookup_of_types_3_and_5_is_logged_and_one_of_unknown_types_is_not) {
    for (const uint32_t type : {0u, 6u, 0xFFFFFFFFu}) {
        EXPECT_EQ(found(0xD1, type), "");
    }
    EXPECT_EQ(log_.lines(), log_lines({}));
    EXPECT_EQ(found(0xD1, 3), "");
    EXPECT_EQ(found(0xD1, 5), "");
    EXPECT_EQ(log_.lines(), log_lines({"ERR: lookup_handle(#) Not support 3 type lookup\n",
                                       "ERR: lookup_handle(#) Not support 5 type lookup\n"}));
}

TEST_F(handle_set, files_that_cannot_be_read_are_logged) {
    EXPECT_EQ(load_as_handle(nullptr), -1);
    EXPECT_EQ(log_.lines(), log_lines({"ERR: load_as_handle(#) name NULL pointer\n"}));
    EXPECT_EQ(load_as_handle("/nonexistent"), -1);
    EXPECT_EQ(log_.last(), "ERR: load_as_handle(#) open file /nonexistent fail\n");
    const std::string path = dir_.file("map");
    make_empty_file(path);
    make_map(path, uuid_of(1), uuid_of(2));
    const uint8_t wrong = 9;
    write_file_bytes(path, 63, &wrong, 1);
    const size_t before = open_files();
    EXPECT_EQ(load_as_handle(path.c_str()), -1);
    EXPECT_EQ(log_.last(),
              "ERR: load_as_handle(#) const meta node[0] read from " + path + " fail\n");
    EXPECT_EQ(open_files(), before);
}

TEST_F(handle_set, a_load_fails_at_whichever_call_fails_and_leaves_the_set_unchanged) {
    for (const uint32_t type : {1u, 2u, 4u}) {
        ASSERT_EQ(load("file", type, 0xE1), 0);
        ASSERT_EQ(finish_handle_set(), 0);
        const std::string path = dir_.file("file");
        failed_calls failed;
        uint64_t n = 1;
        for (bool fired = true; fired; n++) {
            const size_t before = open_files();
            log_.clear();
            const io_fault_at fault(n, EIO, {io_call::open, io_call::read, io_call::seek});
            const int result = load_as_handle(path.c_str());
            fired = failed.add(fault);
            EXPECT_EQ(result, fired ? -1 : 0) << type << " " << n;
            EXPECT_EQ(open_files(), before + (fired ? 0 : 1));
            EXPECT_EQ(found(0xE1, type).empty(), fired);
            ASSERT_LT(n, 100u);
        }
        EXPECT_EQ(finish_handle_set(), 0);
        const std::string header_only = "open seek read";
        EXPECT_EQ(failed.in_order(), type == 4u ? header_only + " seek read" : header_only) << type;
    }
}

TEST_F(handle_set, a_file_of_which_only_the_first_node_is_sound_is_closed_and_not_linked) {
    for (const uint32_t type : {1u, 2u, 4u}) {
        ASSERT_EQ(load("file", type, 0xE2), 0);
        ASSERT_EQ(finish_handle_set(), 0);
        const uint8_t wrong = 9;
        write_file_bytes(dir_.file("file"), 64 + 63, &wrong, 1);
        const size_t before = open_files();
        EXPECT_EQ(load_as_handle(dir_.file("file").c_str()), -1);
        EXPECT_EQ(log_.last(), "ERR: tarn_load_meta_nodes(#) const meta node[1] read fail\n");
        EXPECT_EQ(open_files(), before);
        EXPECT_EQ(found(0xE2, type), "");
    }
}

TEST_F(handle_set, finishing_closes_every_file_and_leaves_empty_lists) {
    const size_t before = open_files();
    EXPECT_EQ(finish_handle_set(), 0);  // of an empty set
    EXPECT_EQ(load("tbl", 1, 0xF1), 0);
    EXPECT_EQ(load("fri", 2, 0xF1), 0);
    EXPECT_EQ(load("map", 4, 0xF1), 0);
    EXPECT_EQ(open_files(), before + 3);
    init_handle_set();  // does nothing the second time
    EXPECT_EQ(found(0xF1, 4), "map");
    const io_fault_at syncs(0, 0, {io_call::sync});
    EXPECT_EQ(finish_handle_set(), 0);
    EXPECT_EQ(syncs.calls(), 0u);  // nothing was written through them
    EXPECT_EQ(open_files(), before);
    for (const uint32_t type : {1u, 2u, 4u}) {
        EXPECT_EQ(found(0xF1, type), "");
    }
    EXPECT_EQ(load("again", 4, 0xF1), 0);  // it stays initialised
    EXPECT_EQ(found(0xF1, 4), "again");
}

// A new process, in which no test has set up the lists.
TEST(handle_set_before_init, a_load_succeeds_but_no_lookup_finds_it_and_the_file_is_closed) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const scratch_dir dir;
    const std::string path = dir.file("map");
    make_empty_file(path);
    make_map(path, uuid_of(0xA1), uuid_of(0xA2));
    EXPECT_EXIT(
        {
            const size_t before = open_files();
            const bool loaded = load_as_handle(path.c_str()) == 0;
            const bool closed = open_files() == before;
            const bool missing = lookup_handle(uuid_of(0xA1).data(), 4) == nullptr;
            const bool finished = finish_handle_set() == 0;
            init_handle_set();
            const bool still_missing = lookup_handle(uuid_of(0xA1).data(), 4) == nullptr;
            std::exit(loaded && closed && missing && finished && still_missing ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}
