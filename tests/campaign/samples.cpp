#include "campaign/samples.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <set>

#include "campaign/copy_tree.h"
#include "system/support/shell.h"

namespace fs = std::filesystem;

static constexpr uint64_t OTHER_SEED = 1000000;  // for a seed whose sample does not suit

static std::string first_map(const std::string& tree) {
    std::set<std::string> maps;
    for (const auto& entry : fs::recursive_directory_iterator(tree + "/volume1/@iSCSITrg")) {
        const std::string name = entry.path().lexically_relative(tree);
        if (entry.is_regular_file() && name.find("_Extent_") != std::string::npos) {
            maps.insert(name);
        }
    }
    EXPECT_FALSE(maps.empty());
    return *maps.begin();
}

static void damage(const std::string& tree, const std::string& kind, uint64_t seed) {
    const ran done = tarn_lab("damage " + tree + " " + kind + " --seed " + std::to_string(seed));
    EXPECT_EQ(done.status, 0) << done.text;
}

// Damages a LUN's map; its path below the tree.
static std::string damage_map(const std::string& tree, const std::string& kind, uint64_t seed) {
    const std::string copy = tree + "-copy";
    for (;; seed += OTHER_SEED) {
        fs::remove_all(copy);
        copy_tree(tree, copy);
        const ran done =
            tarn_lab("damage " + copy + " " + kind + " --seed " + std::to_string(seed));
        fs::remove_all(copy);
        if (done.text.find("_Extent_") != std::string::npos) {
            damage(tree, kind, seed);
            return done.text.substr(0, done.text.find(':'));
        }
    }
}

// A crash that needs a replay: one that it refuses, or that lost nothing, is not used.
static bool suits(const workshop& shop, const std::string& name, const std::string& words,
                  uint64_t seed) {
    const std::string size = "--luns 2 --extents 1200 --transactions 100 ";
    const bool recovers = shop.make(name, size + words + " --seed " + std::to_string(seed));
    const bool crashed = words.find("--crash") != std::string::npos;
    return !crashed || (recovers && tarn_lab("verify " + shop.path(name)).status != 0);
}

static void make(const workshop& shop, const std::string& name, const std::string& words,
                 uint64_t seed) {
    while (!suits(shop, name, words, seed)) {
        seed += OTHER_SEED;
    }
}

static void run_on(const workshop& shop, const std::string& name, const std::string& words,
                   int status) {
    shop.put_on_bench(shop.path(name));
    EXPECT_EQ(shop.run(words).status, status) << words;
    shop.keep_bench(name);
}

static sample make_sample(const workshop& shop, sample_kind kind, uint64_t seed,
                          const std::string& name) {
    const std::string tree = shop.path(name);
    switch (kind) {
        case sample_kind::crashed:
            make(shop, name, "--crash", seed);
            break;
        case sample_kind::read_only:
            make(shop, name, "--crash", seed);
            run_on(shop, name, "--set-status ro", 255);
            break;
        case sample_kind::clean:
            make(shop, name, "", seed);
            break;
        case sample_kind::lone:
            make(shop, name, "--volumes 1", seed);
            break;
        case sample_kind::lone_crashed:
            make(shop, name, "--volumes 1 --crash", seed);
            break;
        case sample_kind::no_index:
            make(shop, name, "--volumes 1", seed);
            damage(tree, "index-lost", seed);
            break;
        case sample_kind::noisy:
            make(shop, name, "--volumes 1", seed);
            damage(tree, "index-lost", seed);
            damage(tree, "table-noise", seed);
            break;
        case sample_kind::repaired:
            make(shop, name, "--volumes 1", seed);
            damage(tree, "table-noise", seed);
            run_on(shop, name, "--onekeyrepair --volpath {w}/volume1", 0);
            break;
        case sample_kind::worn:
            make(shop, name, "", seed);
            damage(tree, "list-count", seed);
            damage(tree, "reference-count", seed);
            damage(tree, "mapped-count", seed);
            return {tree, damage_map(tree, "map-node-bit", seed)};
        case sample_kind::imported:
            make(shop, name, "", seed);
            run_on(shop, name, "--import-volume --volpath {w}/volume1", 0);
            break;
    }
    return {tree, first_map(tree)};
}

// Samples of other seeds are removed: a campaign goes from seed to seed.
void sample_store::forget_old(uint64_t seed) {
    for (auto at = samples_.begin(); at != samples_.end();) {
        if (at->first.second != seed) {
            fs::remove_all(at->second.tree);
            at = samples_.erase(at);
        } else {
            ++at;
        }
    }
}

const sample& sample_store::get(sample_kind kind, uint64_t seed) {
    forget_old(seed);
    const auto found = samples_.find({kind, seed});
    if (found != samples_.end()) {
        return found->second;
    }
    const std::string name = "s" + std::to_string(static_cast<int>(kind));
    return samples_[{kind, seed}] = make_sample(shop_, kind, seed, name);
}
