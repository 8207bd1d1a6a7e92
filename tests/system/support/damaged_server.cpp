#include "system/support/damaged_server.h"

#include <filesystem>
#include <gtest/gtest.h>

#include "support/scratch_file.h"
#include "system/support/tree.h"

namespace fs = std::filesystem;

static const char* const JOURNAL = "/var/lib/tarn/EP_JNL";

damaged_server::damaged_server(const std::string& words)
    : variables_{{"V", "/volume1"}, {"J", JOURNAL}} {
    const scratch_dir place;
    const std::string sample = place.file("s");
    const ran made = tarn_lab("make " + sample + " " + words);
    EXPECT_EQ(made.status, 0) << made.text;
    for (const std::string name : {"/volume1", "/volume2", "/journal"}) {
        fs::remove_all(top() + name);
        fs::rename(sample + name, top() + name);
    }
    fs::rename(sample + "/lab.conf", top() + "/lab.conf");
    box_.configure("volumes = /volume1 /volume2\n");
}

std::string damaged_server::top() const {
    return fs::path(box_.volume(1)).parent_path();
}

std::string damaged_server::file(const std::string& inside) const {
    return top() + inside;
}

std::string damaged_server::damage(const std::string& kind, unsigned seed) {
    const ran done = tarn_lab("damage " + top() + " " + kind + " --seed " + std::to_string(seed));
    EXPECT_EQ(done.status, 0) << done.text;
    set("MAP", "/" + done.text.substr(0, done.text.find(':')));
    return done.text;
}

void damaged_server::set(const std::string& name, const std::string& value) {
    variables_[name] = value;
}

run_result damaged_server::run(const std::string& commands) const {
    std::string script = "PATH=" + fs::path(TARN_PROGRAM).parent_path().string() + ":$PATH\n";
    for (const auto& [name, value] : variables_) {
        script.append(name).append("='").append(value).append("'\n");
    }
    return box_.run_program("/bin/sh", {"-c", script + commands}, {});
}

void damaged_server::set_journal_aside() const {
    EXPECT_EQ(run("mv $J $J.aside").status, 0);
}

ran damaged_server::verify(const std::string& words) const {
    const std::string aside = box_.journal() + ".aside";
    const bool back = file_exists(aside);
    if (back) {
        fs::rename(aside, box_.journal());
    }
    ran result = tarn_lab("verify " + top() + " " + words);
    if (back) {
        fs::rename(box_.journal(), aside);
    }
    return result;
}

void damaged_server::expect_checks_pass() const {
    const run_result full = run("tarn --fullck --volpath $V");
    EXPECT_EQ(full.status, 0) << testing::PrintToString(full.log);
    const run_result lists = run("tarn --freeck --fripath $V/@EP/EP_FRI --tblpath $V/@EP/EP_TBL");
    EXPECT_EQ(lists.status, 0) << testing::PrintToString(lists.log);
    EXPECT_FALSE(file_exists(file("/volume1/@EP_FIX")));
    EXPECT_FALSE(file_exists(file("/volume1/@EP_CHK")));
}

void damaged_server::expect_rebuilt() const {
    expect_checks_pass();
    const ran found = verify("--rebuilt");
    EXPECT_EQ(found.status, 0) << found.text;
}

void damaged_server::expect_refused(const std::string& reason) const {
    const auto before = tree_of(file("/volume1"));
    const run_result repair = run("tarn --onekeyrepair --volpath $V");
    EXPECT_EQ(repair.status, 255);
    EXPECT_TRUE(repair.out.ends_with("TARN_INFO: Reconstruction procedure has failed\n"));
    EXPECT_TRUE(repair.logged(reason)) << testing::PrintToString(repair.log);
    EXPECT_EQ(tree_of(file("/volume1")), before);
}
