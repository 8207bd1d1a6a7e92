#include "campaign/workshop.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

#include "campaign/copy_tree.h"
#include "system/support/shell.h"

namespace fs = std::filesystem;

workshop::workshop() {
    const bool memory = fs::is_directory("/dev/shm");
    std::string pattern = memory ? "/dev/shm/tarn-XXXXXX" : "/tmp/tarn-XXXXXX";
    EXPECT_NE(mkdtemp(pattern.data()), nullptr) << pattern;
    root_ = fs::canonical(pattern);
}

workshop::~workshop() {
    std::error_code ignored;
    fs::remove_all(root_, ignored);
}

void workshop::put_on_bench(const std::string& tree) const {
    fs::remove_all(bench());
    copy_tree(tree, bench());
}

void workshop::keep_bench(const std::string& name) const {
    fs::remove_all(path(name));
    copy_tree(bench(), path(name));
}

static void write_configurations(const std::string& sample, const std::string& bench) {
    std::string volumes;
    for (unsigned number = 1; fs::exists(sample + "/volume" + std::to_string(number)); number++) {
        volumes += " " + bench + "/volume" + std::to_string(number);
    }
    const std::string text = "journal_root = " + bench + "/journal\nvolumes =" + volumes + "\n";
    std::ofstream(sample + "/platform.conf") << text;
    std::ofstream(sample + "/shift.conf") << text << "extent_shift = 20\n";
}

bool workshop::make(const std::string& name, const std::string& words) const {
    const std::string sample = path(name);
    fs::remove_all(sample);
    const ran made = tarn_lab("make " + sample + " " + words);
    EXPECT_EQ(made.status, 0) << made.text;
    write_configurations(sample, bench());
    return tarn_lab("expect " + sample).text.rfind("recovers", 0) == 0;
}

program_run workshop::run(run_setup setup) const {
    setup.words = filled_in(setup.words, {{"w", bench()}});
    if (setup.configuration.empty()) {
        setup.configuration = bench() + "/platform.conf";
    }
    return run_tarn(path("run"), setup);
}

program_run workshop::run(const std::string& words) const {
    return run({words, "", "", "", "", 0});
}

std::string filled_in(std::string text, const std::map<std::string, std::string>& values) {
    for (const auto& [name, value] : values) {
        const std::string hole = "{" + name + "}";
        for (size_t at = 0; (at = text.find(hole, at)) != std::string::npos; at += value.size()) {
            text.replace(at, hole.size(), value);
        }
    }
    return text;
}
