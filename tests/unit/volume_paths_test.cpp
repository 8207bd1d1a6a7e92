#include "volume/volume_paths.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>

#include "cli/operations.h"
#include "options.h"
#include "platform.h"
#include "support/log_capture.h"
#include "support/sample_volumes.h"
#include "support/stdout_capture.h"

TEST(form_path, fills_the_buffer_to_its_last_byte_and_no_further) {
    log_capture log;
    char path[8] = {};
    EXPECT_EQ(form_path(path, sizeof path, "%s/%s", "abc", "def"), 0);
    EXPECT_STREQ(path, "abc/def");
    EXPECT_EQ(log.lines(), log_lines({}));
    EXPECT_EQ(form_path(path, sizeof path, "%s/%s", "abc", "defg"), -1);
    EXPECT_STREQ(path, "");
    EXPECT_EQ(log.lines(),
              log_lines({"ERR: form_path(#) path does not fit into 8 bytes: abc/def...\n"}));
}

TEST(is_vaai_volume, takes_a_root_with_both_directories) {
    const sample_volumes volumes;
    make_directories(volumes.volume(1) + "/@EP");
    make_directories(volumes.volume(1) + "/@iSCSITrg");
    stdout_capture out;
    EXPECT_EQ(is_vaai_volume(volumes.volume(1).c_str()), 1);
    EXPECT_EQ(out.text(), "");
}

TEST(is_vaai_volume, refuses_a_path_without_volume_in_it) {
    const sample_volumes volumes;
    make_directories(volumes.other() + "/@EP");
    make_directories(volumes.other() + "/@iSCSITrg");
    stdout_capture out;
    EXPECT_EQ(is_vaai_volume(volumes.other().c_str()), 0);
    EXPECT_EQ(out.text(), "TARN_INFO: " + volumes.other() + " is not a VAAI volume\n");
}

TEST(is_vaai_volume, reports_the_directory_that_is_missing) {
    const sample_volumes volumes;
    const std::string root = volumes.volume(1);
    stdout_capture out;
    EXPECT_EQ(is_vaai_volume(root.c_str()), 0);
    make_directories(root + "/@EP");
    EXPECT_EQ(is_vaai_volume(root.c_str()), 0);
    make_empty_file(root + "/@iSCSITrg");  // and it must be a directory
    EXPECT_EQ(is_vaai_volume(root.c_str()), 0);
    EXPECT_EQ(out.text(), "TARN_INFO: " + root + "/@EP is not a VAAI volume\n" +
                              "TARN_INFO: " + root + "/@iSCSITrg is not a VAAI volume\n" +
                              "TARN_INFO: " + root + "/@iSCSITrg is not a VAAI volume\n");
}

TEST(is_vaai_volume, never_tests_a_cut_directory) {
    const sample_volumes volumes;
    // 64 characters with "/@iSCSITrg": one too many. Cut by one, "@iSCSITr" would be a directory.
    std::string root = volumes.volume(1) + "/";
    root += std::string(64 - root.size() - strlen("/@iSCSITrg"), 'd');
    make_directories(root + "/@EP");
    make_directories(root + "/@iSCSITr");
    make_directories(root + "/@iSCSITrg");
    log_capture log;
    stdout_capture out;
    EXPECT_EQ(is_vaai_volume(root.c_str()), 0);
    EXPECT_EQ(out.text(), "TARN_INFO: " + root + " is not a VAAI volume\n");
    EXPECT_EQ(log.count("form_path(#) path does not fit into 64 bytes"), 1u);
}

TEST(is_regular_file, accepts_regular_files_only) {
    const sample_volumes volumes;
    const std::string file = volumes.volume(1) + "/file";
    EXPECT_EQ(is_regular_file(file.c_str()), 0);
    make_empty_file(file);
    EXPECT_EQ(is_regular_file(file.c_str()), 1);
    EXPECT_EQ(is_regular_file(volumes.volume(1).c_str()), 0);
    EXPECT_EQ(is_regular_file((file + "/below").c_str()), 0);
    EXPECT_EQ(is_regular_file(""), 0);
    std::filesystem::create_symlink(file, volumes.volume(1) + "/link");
    EXPECT_EQ(is_regular_file((volumes.volume(1) + "/link").c_str()), 1);
}

TEST(journal_path, comes_from_the_configuration_when_none_was_given) {
    const sample_volumes volumes;
    make_empty_file(volumes.journal());
    stdout_capture out;
    EXPECT_EQ(prepare_jnl_path(), 0);
    EXPECT_EQ(opt_ctx.jnlpath, volumes.journal());
    EXPECT_EQ(out.text(), "");
}

TEST(journal_path, that_was_given_is_kept_and_reported_if_it_is_not_a_file) {
    const sample_volumes volumes;
    strcpy(opt_ctx.jnlpath, "/nowhere/EP_JNL");
    stdout_capture out;
    EXPECT_EQ(prepare_jnl_path(), 0);
    EXPECT_STREQ(opt_ctx.jnlpath, "/nowhere/EP_JNL");
    EXPECT_EQ(out.text(), "TARN_INFO: REPLAY jnlPath doesn't exist /nowhere/EP_JNL\n");
}

TEST(parse_volume_path, returns_the_volume_that_holds_the_path) {
    char out[PATH_TEXT_SIZE] = {};
    EXPECT_EQ(parse_volume_path("/volume12/@EP/EP_TBL", out), 9);
    EXPECT_STREQ(out, "/volume12");
}

TEST(parse_volume_path, refuses_a_null_path_with_an_error_code) {
    OLIBCErrSet(0);
    log_capture log;
    char out[PATH_TEXT_SIZE] = {};
    EXPECT_EQ(parse_volume_path(nullptr, out), -1);
    EXPECT_EQ(log.lines(), log_lines({"tarn:# Bad parameters"}));
    EXPECT_EQ(OLIBCErrGet(), 3328);
}

TEST(parse_volume_path, refuses_a_path_of_128_characters_and_one_without_a_volume) {
    char out[PATH_TEXT_SIZE] = {};
    const std::string longest = "/volume1/" + std::string(118, 'a');
    EXPECT_EQ(longest.size(), 127u);
    EXPECT_EQ(parse_volume_path(longest.c_str(), out), 8);
    EXPECT_EQ(parse_volume_path((longest + "a").c_str(), out), -1);
    EXPECT_EQ(parse_volume_path("/other/@EP/EP_TBL", out), -1);
    EXPECT_EQ(parse_volume_path("/volume0/@EP/EP_TBL", out), -1);
}

TEST(table_paths, are_in_a_directory_of_the_volume_or_empty_when_they_do_not_fit) {
    volume_paths paths = {};
    set_volume_root(&paths, "/volume3");
    EXPECT_EQ(set_table_paths(&paths, "@EP_FIX"), 0);
    EXPECT_STREQ(paths.index, "/volume3/@EP_FIX/EP_FRI");
    EXPECT_STREQ(paths.table, "/volume3/@EP_FIX/EP_TBL");
    EXPECT_STREQ(paths.unmap_buffer, "/volume3/@EP/EP_BUF");
    EXPECT_STREQ(paths.rod_map, "/volume3/@EP/EP_ROD");
    log_capture log;
    set_volume_root(&paths, std::string(4090, 'a').c_str());
    EXPECT_EQ(set_table_paths(&paths, "@EP"), -1);
    EXPECT_STREQ(paths.index, "");
    EXPECT_STREQ(paths.table, "");
    EXPECT_STREQ(paths.unmap_buffer, "");
    EXPECT_STREQ(paths.rod_map, "");
    EXPECT_EQ(log.count("path does not fit into 4096 bytes"), 2u);
}

TEST(journal_path, is_unchanged_without_a_root) {
    const sample_volumes volumes;
    volumes.let_platform_fail();
    EXPECT_EQ(prepare_jnl_path(), -1);
    EXPECT_STREQ(opt_ctx.jnlpath, "");
    strcpy(opt_ctx.jnlpath, "/given");
    EXPECT_EQ(get_jnl_root_path(), -1);
    EXPECT_STREQ(opt_ctx.jnlpath, "/given");
    EXPECT_EQ(prepare_jnl_path(), 0);  // a given path needs no root
}
