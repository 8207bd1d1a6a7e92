// The plug-in for nbdkit: what programs that speak NBD see is what the model expects and what the
// export makes; holes are holes; what is missing is an error; nothing can be written.
#include <filesystem>
#include <gtest/gtest.h>

#include "ctl/support/everything.h"
#include "ctl/support/export_run.h"
#include "ctl/support/nbd.h"
#include "system/support/lab_sample.h"

namespace fs = std::filesystem;

class nbd : public testing::Test {
protected:
    void SetUp() override {
        const std::string reason = why_no_nbd();
        if (!reason.empty()) {
            GTEST_SKIP() << reason;
        }
    }
    void make(unsigned seed, const std::string& more = "") {
        sample_ = make_sample(place_, "s", seed, " --extents 400" + more);
    }
    // Serves the LUN to the commands, which know it as $uri.
    [[nodiscard]] ran serve(const std::string& parameters, const std::string& commands) const {
        return shell("timeout 30 nbdkit -U - " TARN_NBDKIT_PLUGIN " conf=" + sample_ +
                     "/platform.conf " + parameters + " --run '" + commands + "' 2>&1");
    }
    [[nodiscard]] std::string file(const std::string& name) const { return place_.file(name); }

    scratch_dir place_;
    std::string sample_;
};

TEST_F(nbd, shows_what_the_model_expects_and_the_export_makes) {
    for (const auto& [seed, more] : {std::pair(5u, ""), std::pair(6u, " --crash")}) {
        make(seed, more);
        const auto before = everything(sample_);
        write_model(sample_, "volume1:LUN_1", file("model"));
        ASSERT_EQ(export_on(sample_, "LUN_1 --force --to " + file("x")).status, 0);
        const ran done = serve("lun=LUN_1", "qemu-img compare -f raw -F raw " + file("model") +
                                                " $uri && qemu-img compare -f raw -F raw " +
                                                file("x") + " $uri && nbdcopy $uri " + file("y"));
        EXPECT_EQ(done.status, 0) << done.text;
        EXPECT_EQ(done.text, "Images are identical.\nImages are identical.\n");
        EXPECT_EQ(difference(file("y"), file("model")), "");
        EXPECT_EQ(everything(sample_), before);
        fs::remove_all(sample_);
    }
}

// As many bytes of data as the exported file has, and not one more.
TEST_F(nbd, maps_holes_as_holes) {
    make(5);
    ASSERT_EQ(export_on(sample_, "LUN_1 --to " + file("x")).status, 0);
    const ran map = serve("lun=LUN_1", "nbdinfo --map --totals $uri");
    EXPECT_NE(map.text.find(" " + std::to_string(bytes_on_disk(file("x"))) + " "),
              std::string::npos)
        << map.text;
    EXPECT_NE(map.text.find("3 hole,zero"), std::string::npos) << map.text;
    const ran image = serve("lun=LUN_1", "qemu-img convert -f raw -O qcow2 $uri " + file("q") +
                                             " && qemu-img compare -f qcow2 -F raw " + file("q") +
                                             " " + file("x"));
    EXPECT_EQ(image.text, "Images are identical.\n");
}

TEST_F(nbd, is_read_only) {
    make(5);
    const ran done = serve("lun=LUN_1", "qemu-io -f raw -c \"write 0 512\" $uri");
    EXPECT_NE(done.status, 0) << done.text;
    const ran info = serve("lun=LUN_1", "nbdinfo $uri");
    EXPECT_NE(info.text.find("is_read_only: true"), std::string::npos) << info.text;
    EXPECT_NE(info.text.find("can_multi_conn: true"), std::string::npos) << info.text;
}

TEST_F(nbd, fails_where_the_map_is_damaged_or_reads_zeros_there) {
    make(5);
    const ran done = damage(sample_, "map-node-bit", 3);
    ASSERT_EQ(done.status, 0) << done.text;
    const std::string lun = "lun=" + sample_ + "/" + file_named_first(done.text);
    const ran failed = serve(lun, "nbdcopy $uri " + file("x"));
    EXPECT_NE(failed.status, 0);
    EXPECT_NE(failed.text.find("a damaged node of the map"), std::string::npos) << failed.text;
    ASSERT_EQ(export_on(sample_, sample_ + "/" + file_named_first(done.text) +
                                     " --missing zero --to " + file("y"))
                  .status,
              4);
    const ran zeros =
        serve("missing=zero " + lun, "qemu-img compare -f raw -F raw " + file("y") + " $uri");
    EXPECT_EQ(zeros.text, "Images are identical.\n");
}

TEST_F(nbd, refuses_what_the_export_refuses) {
    make(5);
    const std::pair<const char*, const char*> refusals[] = {
        {"", "which LUN? lun=NAME"},
        {"lun=LUN_77", "is the name of no LUN"},
        {"lun=LUN_1 missing=no", "fail or zero"},
        {"lun=LUN_1 other=1", "unknown parameter"},
    };
    for (const auto& [parameters, said] : refusals) {
        const ran done = serve(parameters, "true");
        EXPECT_NE(done.status, 0) << parameters;
        EXPECT_NE(done.text.find(said), std::string::npos) << done.text;
    }
}

// Once the service writes, the map that is served is not the LUN's any more.
TEST_F(nbd, serves_nothing_after_the_journal_was_written) {
    make(5);
    const std::string read = "qemu-io -r -f raw -c \"read 0 512\" $uri; ";
    const std::string commands = read + "touch " + sample_ + "/journal/EP_JNL; " + read;
    const ran done = serve("lun=LUN_1", commands);
    EXPECT_NE(done.text.find("read 512/512"), std::string::npos) << done.text;
    EXPECT_NE(done.text.find("the service runs, and nothing is served any more"), std::string::npos)
        << done.text;
    EXPECT_NE(done.text.find("read failed"), std::string::npos) << done.text;
    const ran kept = serve("lun=LUN_1 inconsistent=true", commands);
    EXPECT_EQ(kept.text.find("read failed"), std::string::npos) << kept.text;
}
