#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "platform.h"
#include "platform/config.h"
#include "support/log_capture.h"
#include "support/sample_volumes.h"
#include "support/scratch_file.h"

class platform_calls : public testing::Test {
protected:
    platform_calls() { configure(""); }
    ~platform_calls() override {
        unsetenv("TARN_PLATFORM_CONF");
        platform_config_forget();
    }
    void configure(const std::string& text) {
        unlink(conf.c_str());
        write_file_bytes(conf, 0, text.data(), text.size());
        setenv("TARN_PLATFORM_CONF", conf.c_str(), 1);
        platform_config_forget();
    }
    // The log lines about a configuration of that text, without the name of the file.
    std::string reason(const std::string& text) {
        configure(text);
        const log_capture log;
        EXPECT_EQ(platform_config_get(), nullptr) << text;
        EXPECT_EQ(platform_config_get(), nullptr) << text;  // logged once
        EXPECT_EQ(log.lines().size(), 1U) << text;
        const std::string line = log.last();
        EXPECT_EQ(line.rfind(conf + " line ", 0), 0U) << line;
        return line.substr(conf.size() + 1);
    }
    bool accepted(const std::string& text) {
        configure(text);
        const log_capture log;
        const bool good = platform_config_get() != nullptr;
        EXPECT_EQ(log.lines().empty(), good);
        return good;
    }
    static std::string enumerated() {
        ORBASpaceInfo* list = nullptr;
        EXPECT_EQ(ORBASpaceInfoEnum(1, &list), ORBA_SPACES_NAMED);
        std::string text;
        for (const ORBASpaceInfo* space = list; space != nullptr; space = space->next) {
            text += std::string(space->mount_path) + "\n";
        }
        ORBASpaceInfoFree(list);
        return text;
    }
    scratch_dir dir;
    std::string conf = dir.file("platform.conf");
};

TEST_F(platform_calls, an_empty_configuration_means_the_defaults) {
    const platform_config* config = platform_config_get();
    ASSERT_NE(config, nullptr);
    EXPECT_STREQ(config->journal_root.value, "/var/lib/tarn");
    EXPECT_FALSE(config->volumes.given);
    EXPECT_FALSE(config->extent_shift.given);
    EXPECT_FALSE(config->service_pause.given);
    EXPECT_FALSE(config->service_resume.given);
}

TEST_F(platform_calls, blanks_and_comments_and_a_missing_newline_are_accepted) {
    configure(
        "\n   \n# journal_root = /a\n \t # volumes\n\t journal_root\t=  /b c \t\r\nvolumes=/d = "
        "/e");
    const log_capture log;
    const platform_config* config = platform_config_get();
    ASSERT_NE(config, nullptr);
    EXPECT_STREQ(config->journal_root.value, "/b c");
    EXPECT_STREQ(config->volumes.value, "/d = /e");
    EXPECT_EQ(log.lines(), log_lines({}));
}

TEST_F(platform_calls, each_wrong_line_is_logged_with_its_number) {
    EXPECT_EQ(reason("volumes = /a\n\nnonsense\n"), "line 3: no '='\n");
    EXPECT_EQ(reason("colour = red\n"), "line 1: unknown key\n");
    EXPECT_EQ(reason("= red\n"), "line 1: unknown key\n");
    EXPECT_EQ(reason("Volumes = /a\n"), "line 1: unknown key\n");
    EXPECT_EQ(reason("volumes = /a\n# x\nvolumes = /a\n"), "line 3: key given twice\n");
    EXPECT_EQ(reason("volumes =\nvolumes =\n"), "line 2: key given twice\n");
    for (const char* value : {"", "8", "31", "-9", "+9", "9x", "0x9", "99999999999999999999"}) {
        EXPECT_EQ(reason(std::string("extent_shift = ") + value + "\n"),
                  "line 1: value out of range\n")
            << value;
    }
    EXPECT_EQ(reason("service_pause = systemctl\n"), "line 1: value out of range\n");
    EXPECT_EQ(reason("service_resume =\n"), "line 1: value out of range\n");
    EXPECT_EQ(reason("volumes = " + std::string(8192, 'x') + "\n"), "line 1: value out of range\n");
    EXPECT_EQ(reason("volumes = " + std::string(20000, 'x') + "\n"), "line 1: line too long\n");
}

TEST_F(platform_calls, the_longest_line_and_value_are_accepted) {
    const std::string path(8190, 'p');
    EXPECT_TRUE(accepted("journal_root = /" + path + "\n"));
    EXPECT_EQ(reason("journal_root = /p" + path + "\n"), "line 1: value out of range\n");
    EXPECT_TRUE(accepted("#" + std::string(16382, '=') + "\nvolumes =\n"));
    EXPECT_EQ(reason("#" + std::string(16383, '=') + "\n"), "line 1: line too long\n");
}

TEST_F(platform_calls, a_zero_byte_hides_nothing) {
    EXPECT_EQ(reason(std::string("extent_shift = 20\0 and more\n", 28)), "line 1: zero byte\n");
    EXPECT_EQ(reason(std::string("volumes =\n#\0\nbad\n", 17)), "line 2: zero byte\n");
}

TEST_F(platform_calls, a_service_program_has_61_words_at_most) {
    std::string line = "service_pause = /bin/true";
    for (int i = 2; i <= 61; i++) {
        line += " x";
    }
    EXPECT_TRUE(accepted(line + "\n"));
    EXPECT_EQ(reason(line + " x\n"), "line 1: value out of range\n");
}

TEST_F(platform_calls, a_named_file_that_cannot_be_read_is_logged) {
    unlink(conf.c_str());
    const log_capture log;
    EXPECT_EQ(platform_config_get(), nullptr);
    EXPECT_EQ(log.lines(),
              log_lines({conf + " line 0: cannot be read: No such file or directory\n"}));
    setenv("TARN_PLATFORM_CONF", dir.path().c_str(), 1);
    platform_config_forget();
    EXPECT_EQ(platform_config_get(), nullptr);  // a directory
    EXPECT_EQ(log.last(), dir.path() + " line 0: cannot be read: Is a directory\n");
}

TEST_F(platform_calls, every_call_that_needs_an_invalid_configuration_fails) {
    configure("nonsense\n");
    const log_capture log;
    char text[256];
    uint32_t size = 0;
    uint32_t shift = 0;
    ORBASpaceInfo* list = nullptr;
    EXPECT_LT(ORBAiSCSIConfJournalRootPathGet(text, sizeof text, 0), 0);
    EXPECT_LT(ORBASpaceInfoEnum(1, &list), 0);
    EXPECT_EQ(list, nullptr);
    EXPECT_LT(ORBAiSCSIVAAIExtentSizeAndShiftGet("/", &size, &shift), 0);
    EXPECT_EQ(OLIBServicePauseByReason("s", "r"), -1);
    EXPECT_EQ(OLIBServiceResumeByReason("s", "r"), -1);
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST_F(platform_calls, the_journal_root_fits_or_fails) {
    configure("journal_root = /root\n");
    char text[6] = "xxxxx";
    EXPECT_LT(ORBAiSCSIConfJournalRootPathGet(text, 5, 0), 0);
    EXPECT_STREQ(text, "xxxxx");
    EXPECT_GE(ORBAiSCSIConfJournalRootPathGet(text, 6, 0), 0);
    EXPECT_STREQ(text, "/root");
    configure("journal_root =\n");
    EXPECT_LT(ORBAiSCSIConfJournalRootPathGet(text, sizeof text, 0), 0);
}

TEST_F(platform_calls, volumes_are_listed_in_the_configured_order) {
    configure("volumes = /volume9   /other\t/volume2\n");
    EXPECT_EQ(enumerated(), "/volume9\n/other\n/volume2\n");
    configure("volumes =\n");
    EXPECT_EQ(enumerated(), "");
    ORBASpaceInfo* list = nullptr;
    EXPECT_LT(ORBASpaceInfoEnum(2, &list), 0);
    EXPECT_LT(ORBASpaceInfoEnum(1, nullptr), 0);
    ORBASpaceInfoFree(nullptr);
}

TEST_F(platform_calls, volumes_that_were_found_are_not_reported_as_named) {
    configure("journal_root = /root\n");
    ORBASpaceInfo* list = nullptr;
    EXPECT_EQ(ORBASpaceInfoEnum(1, &list), 0);
    ORBASpaceInfoFree(list);
}

TEST_F(platform_calls, the_mount_of_a_writable_directory_is_writable) {
    ORBAMountVolInfo info = {};
    EXPECT_GE(ORBAMountVolInfoGet(dir.path().c_str(), &info), 0);
    EXPECT_EQ(info.writable, 1U);
    EXPECT_LT(ORBAMountVolInfoGet(dir.file("none").c_str(), &info), 0);
    EXPECT_LT(ORBAMountVolInfoGet(nullptr, &info), 0);
}

TEST_F(platform_calls, the_extent_size_is_configured_or_the_table_s) {
    uint32_t size = 0;
    uint32_t shift = 0;
    for (const uint32_t s : {9U, 30U}) {
        configure("extent_shift = " + std::to_string(s) + "\n");
        EXPECT_GE(ORBAiSCSIVAAIExtentSizeAndShiftGet("/none", &size, &shift), 0);
        EXPECT_EQ(shift, s);
        EXPECT_EQ(size, uint32_t{1} << s);
    }
    configure("");
    EXPECT_LT(ORBAiSCSIVAAIExtentSizeAndShiftGet(dir.path().c_str(), &size, &shift), 0);
    make_directories(dir.file("@EP"));
    const std::string table = dir.file("@EP/EP_TBL");
    make_tbl(table, uuid_of(1));  // one mebibyte
    EXPECT_GE(ORBAiSCSIVAAIExtentSizeAndShiftGet(dir.path().c_str(), &size, &shift), 0);
    EXPECT_EQ(size, 1048576U);
    EXPECT_EQ(shift, 20U);
    for (const uint32_t wrong : {0U, 256U, 1048577U, 0x80000000U, 0xFFFFFFFFU}) {
        write_file_bytes(table, 68, &wrong, sizeof wrong);
        EXPECT_LT(ORBAiSCSIVAAIExtentSizeAndShiftGet(dir.path().c_str(), &size, &shift), 0)
            << wrong;
    }
    EXPECT_EQ(truncate(table.c_str(), 71), 0);
    EXPECT_LT(ORBAiSCSIVAAIExtentSizeAndShiftGet(dir.path().c_str(), &size, &shift), 0);
}

// A hole of the configured size would reach into the neighbours of an extent of the table.
TEST_F(platform_calls, an_extent_size_that_contradicts_the_table_is_refused) {
    make_directories(dir.file("@EP"));
    const std::string table = dir.file("@EP/EP_TBL");
    make_tbl(table, uuid_of(1));  // one mebibyte
    uint32_t size = 7;
    uint32_t shift = 7;
    const auto asked = [&] {
        return ORBAiSCSIVAAIExtentSizeAndShiftGet(dir.path().c_str(), &size, &shift);
    };
    configure("extent_shift = 22\n");
    const log_capture log;
    EXPECT_LT(asked(), 0);
    EXPECT_EQ(log.lines(),
              log_lines({"extent_shift = 22, but the table of " + dir.path() + " says 20\n"}));
    EXPECT_EQ(size, 7U);
    EXPECT_EQ(shift, 7U);
    configure("extent_shift = 20\n");
    EXPECT_GE(asked(), 0);
    EXPECT_EQ(shift, 20U);
    configure("extent_shift = 22\n");
    for (const uint32_t no_size :
         {0U, 256U, 1048577U, 0x80000000U}) {  // a value without meaning, which nothing contradicts
        write_file_bytes(table, 68, &no_size, sizeof no_size);
        EXPECT_GE(asked(), 0) << no_size;
        EXPECT_EQ(shift, 22U);
        EXPECT_EQ(size, 4194304U);
    }
    for (const uint32_t range_end : {512U, 1073741824U}) {
        write_file_bytes(table, 68, &range_end, sizeof range_end);
        EXPECT_LT(asked(), 0) << range_end;
    }
    EXPECT_EQ(truncate(table.c_str(), 71), 0);  // cannot be read
    EXPECT_GE(asked(), 0);
    EXPECT_EQ(log.lines().size(), 3U);
}

TEST_F(platform_calls, a_pipe_in_the_table_s_place_is_not_waited_for) {
    make_directories(dir.file("@EP"));
    ASSERT_EQ(mkfifo(dir.file("@EP/EP_TBL").c_str(), 0600), 0);
    uint32_t size = 0;
    uint32_t shift = 0;
    alarm(20);  // ends a call that waits for a writer
    EXPECT_LT(ORBAiSCSIVAAIExtentSizeAndShiftGet(dir.path().c_str(), &size, &shift), 0);
    alarm(0);
}

class platform_service : public platform_calls {
protected:
    platform_service() {
        const std::string script = "for w; do echo \"$w\"; done >>" + dir.file("notes") +
                                   "\ntest ! -e " + dir.file("fail") + "\n";
        write_file_bytes(dir.file("note"), 0, script.data(), script.size());
        pause = "service_pause = /bin/sh " + dir.file("note") + "  pause\n";
        resume = "service_resume = /bin/sh " + dir.file("note") + " resume\n";
    }
    [[nodiscard]] std::string notes() const {
        if (!file_exists(dir.file("notes"))) {
            return "";
        }
        const std::vector<uint8_t> bytes = file_bytes(dir.file("notes"), 0, 4096);
        return reinterpret_cast<const char*>(bytes.data());
    }
    std::string pause;
    std::string resume;
};

TEST_F(platform_service, the_programs_get_service_and_reason_as_two_more_arguments) {
    configure(pause + resume);
    EXPECT_EQ(OLIBServicePauseByReason("iscsitrg", "a long reason"), 0);
    EXPECT_EQ(notes(), "pause\niscsitrg\na long reason\n");
    EXPECT_EQ(OLIBServiceResumeByReason("iscsitrg", "an end"), 0);
    EXPECT_EQ(notes(), "pause\niscsitrg\na long reason\nresume\niscsitrg\nan end\n");
}

TEST_F(platform_service, nothing_is_resumed_that_was_not_paused) {
    configure(pause + resume);
    EXPECT_EQ(OLIBServiceResumeByReason("iscsitrg", "r"), 0);
    EXPECT_EQ(notes(), "");
    make_empty_file(dir.file("fail"));
    EXPECT_EQ(OLIBServicePauseByReason("iscsitrg", "r"), -1);
    unlink(dir.file("fail").c_str());
    EXPECT_EQ(OLIBServiceResumeByReason("iscsitrg", "r"), 0);
    EXPECT_EQ(notes(), "pause\niscsitrg\nr\n");
}

TEST_F(platform_service, a_pause_is_resumed_once) {
    configure(pause + resume);
    EXPECT_EQ(OLIBServicePauseByReason("s", "r"), 0);
    EXPECT_EQ(OLIBServiceResumeByReason("s", "r"), 0);
    EXPECT_EQ(OLIBServiceResumeByReason("s", "r"), 0);
    EXPECT_EQ(notes(), "pause\ns\nr\nresume\ns\nr\n");
}

TEST_F(platform_service, a_program_that_fails_or_is_missing_fails_the_call) {
    configure("service_pause = /nowhere/program\n");
    EXPECT_EQ(OLIBServicePauseByReason("s", "r"), -1);
    configure("service_pause = /bin/true\nservice_resume = /bin/false\n");
    EXPECT_EQ(OLIBServicePauseByReason("s", "r"), 0);
    EXPECT_EQ(OLIBServiceResumeByReason("s", "r"), -1);
    configure(resume);
    EXPECT_EQ(OLIBServiceResumeByReason("s", "r"), 0);  // still to be resumed
    EXPECT_EQ(notes(), "resume\ns\nr\n");
}

TEST_F(platform_service, a_second_pause_that_fails_does_not_undo_the_first) {
    configure(pause + resume);
    EXPECT_EQ(OLIBServicePauseByReason("s", "r"), 0);
    make_empty_file(dir.file("fail"));
    EXPECT_EQ(OLIBServicePauseByReason("s", "r"), -1);
    unlink(dir.file("fail").c_str());
    EXPECT_EQ(OLIBServiceResumeByReason("s", "r"), 0);
    EXPECT_EQ(notes(), "pause\ns\nr\npause\ns\nr\nresume\ns\nr\n");
}
