// Whose configuration is used: it names programs that root runs.
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/config.h"
#include "support/log_capture.h"
#include "support/scratch_file.h"

static constexpr uid_t SOMEBODY = 12;
static constexpr gid_t SOME_GROUP = 34;

class platform_trust : public testing::Test {
protected:
    platform_trust() {
        const std::string text = "journal_root = /root\n";
        write_file_bytes(conf_, 0, text.data(), text.size());
        setenv("TARN_PLATFORM_CONF", conf_.c_str(), 1);
    }
    ~platform_trust() override {
        unsetenv("TARN_PLATFORM_CONF");
        platform_config_forget();
    }
    void set_mode(mode_t mode) { ASSERT_EQ(chmod(conf_.c_str(), mode), 0); }
    bool set_owner(uid_t uid, gid_t gid) { return chown(conf_.c_str(), uid, gid) == 0; }
    bool accepted() {
        platform_config_forget();
        log_.clear();
        const bool good = platform_config_get() != nullptr;
        (void)platform_config_get();
        EXPECT_EQ(log_.lines().size(), good ? 0u : 1u);  // reported once
        return good;
    }
    // The result for root; every other user uses any file that is named.
    void expect_refused(const std::string& reason) {
        const bool root = geteuid() == 0;
        EXPECT_EQ(accepted(), !root);
        EXPECT_EQ(log_.last(), root ? conf_ + " line 0: refused: " + reason + "\n" : "");
    }

    scratch_dir dir_;
    std::string conf_ = dir_.file("platform.conf");
    log_capture log_;
};

TEST_F(platform_trust, a_file_that_others_may_read_is_followed) {
    for (const mode_t mode : {0600, 0644, 0755}) {
        set_mode(mode);
        EXPECT_TRUE(accepted()) << mode;
    }
}

TEST_F(platform_trust, a_file_that_everybody_may_write_is_refused) {
    for (const mode_t mode : {0602, 0666, 0777}) {
        set_mode(mode);
        expect_refused("others may write it");
    }
}

TEST_F(platform_trust, a_file_that_root_s_group_may_write_is_followed) {
    set_mode(0664);
    EXPECT_TRUE(accepted());
}

TEST_F(platform_trust, a_file_that_another_group_may_write_is_refused) {
    if (!set_owner(getuid(), SOME_GROUP)) {
        GTEST_SKIP() << "only root gives files away";
    }
    set_mode(0664);
    expect_refused("others may write it");
    set_mode(0644);
    EXPECT_TRUE(accepted());
}

TEST_F(platform_trust, a_file_of_somebody_else_is_refused_by_root_only) {
    if (!set_owner(SOMEBODY, 0)) {
        GTEST_SKIP() << "only root gives files away";
    }
    set_mode(0644);
    expect_refused("another user owns it");
    ASSERT_EQ(chmod(dir_.path().c_str(), 0755), 0);
    ASSERT_EQ(seteuid(SOMEBODY), 0);
    EXPECT_TRUE(accepted());
    ASSERT_EQ(seteuid(0), 0);
}
