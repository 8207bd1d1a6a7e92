#include "campaign/guide_server.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

#include "campaign/copy_tree.h"
#include "campaign/dice.h"
#include "map/map_format.h"
#include "store/data_node.h"

namespace fs = std::filesystem;

static constexpr const char* KINDS[] = {
    "index-header-bit", "table-header-bit", "map-header-bit", "index-block-bit", "table-block-bit",
    "map-node-bit",     "pool-table",       "journal-block",  "index-lost",      "table-lost",
    "both-lost",        "table-noise",      "map-truncated",  "reference-count", "list-loop",
    "list-used",        "list-tail",        "list-count",     "group-loop",      "free-count",
    "mapped-count",     "map-lost",         "maps-swapped",   "map-old",         "journal-foreign",
    "data-file-cut",
};

static const char* const LUN = "/volume1/@iSCSITrg/LUN_0/LUN_0_Extent_0";

// A repair whose second file cannot be moved; the step that it undid is done again. A power failure
// between the two files leaves a volume like this.
static const char* const CUT_REPAIR =
    "mv $J $J.aside; mkdir /volume1/@EP/EP_FRI.bkp\n"
    "tarn --onekeyrepair --volpath /volume1\n"
    "rmdir /volume1/@EP/EP_FRI.bkp; rm -f /volume1/@EP/EP_FRI.bkp.new\n"
    "mv /volume1/@EP_FIX/EP_TBL /volume1/@EP/EP_TBL";

const std::vector<guide_situation>& guide_situations() {
    static const std::string copy = std::string("cp ") + LUN + " " + LUN + ".bak";
    static const std::string remove = std::string("rm ") + LUN + ".bak";
    static const std::vector<guide_situation> all = {
        {"unmounted", false, "mv /volume2/* /volume2/.[!.]* /scratch/hidden/", ""},
        {"copied map", false, copy.c_str(), remove.c_str()},
        {"no journal", false, "rm $J", ""},
        {"journal header", true, "printf x | dd of=$J bs=1 seek=100 conv=notrunc", ""},
        {"boot", true, "tarn --startup-replay", ""},
        {"read-only", true, "tarn --set-status ro", ""},
        {"typing error", true, "tarn --set-status abnormall", ""},
        {"work directory", false, "mkdir /volume1/@EP_FIX; echo mine >/volume1/@EP_FIX/notes", ""},
        {"cut repair", false, CUT_REPAIR, ""},
        {"no first data file", false, "rm /volume1/@EP/EP_DAT_00000", ""},
        {"no data file", false, "rm /volume2/@EP/EP_DAT_00001", ""},
        {"no buffer", false, "rm /volume1/@EP/EP_BUF", ""},
        {"no copy map", false, "rm /volume1/@EP/EP_ROD", ""},
        {"no place for copies", false, "touch /scratch/full", "rm /scratch/full"},
        {"far entry", false, "", ""},
        {"far entry after a crash", true, "", ""},
        {"another run", true, "touch /scratch/locked", "rm /scratch/locked"},
    };
    return all;
}

static const guide_situation* situation_of(const std::string& name) {
    for (const guide_situation& situation : guide_situations()) {
        if (name == situation.name) {
            return &situation;
        }
    }
    return nullptr;
}

static std::string random_situation(dice* random, bool crash) {
    const guide_situation& one = guide_situations()[random->below(guide_situations().size())];
    return one.after_crash == crash && random->percent(25) ? one.name : "";
}

guide_trouble trouble_of(uint64_t seed) {
    dice random(seed);
    guide_trouble trouble;
    trouble.crash = random.percent(50);
    trouble.sample = "--seed " + std::to_string(random.below(400)) + " --luns " +
                     std::to_string(1 + random.below(3)) + (trouble.crash ? " --crash" : "");
    trouble.known = static_cast<knowledge>(random.below(trouble.crash ? 3 : 4));
    const uint64_t damages = random.percent(5) ? 0 : random.percent(65) ? 1 : 2;
    for (uint64_t i = 0; i < damages; i++) {
        trouble.damage.push_back(std::string(KINDS[random.below(std::size(KINDS))]) + " --volume " +
                                 std::to_string(1 + random.below(2)) + " --seed " +
                                 std::to_string(random.below(1000)));
    }
    trouble.situation = random_situation(&random, trouble.crash);
    if (trouble.situation == "boot" && random.percent(60)) {  // it may hide this damage
        trouble.damage = {"map-node-bit --volume 1 --seed " + std::to_string(random.below(1000))};
    }
    return trouble;
}

std::string in_words(const guide_trouble& trouble) {
    static const char* const words[] = {"nothing", "a list", "a list and old copies",
                                        "a list and copies of this stop"};
    std::string text =
        trouble.sample + "; the operator has " + words[static_cast<unsigned>(trouble.known)] + "; ";
    for (const std::string& damage : trouble.damage) {
        text += damage + "; ";
    }
    return text + trouble.situation;
}

static void keep_tree(const damaged_server& server, const std::string& to) {
    fs::create_directory(to);
    for (const char* name : {"/volume1", "/volume2", "/journal"}) {
        copy_tree(server.file(name), to + name);
    }
}

guide_server::guide_server(const guide_trouble& trouble, const guide& page)
    : trouble_(trouble), server_(trouble.sample) {
    const char* const fresh = trouble.known == knowledge::fresh_copies ? "yes" : "no";
    server_.set("VOLUMES", "/volume1 /volume2");
    server_.set("KEEP", "/scratch/keep");
    server_.set("OLD", "/scratch/old");
    server_.set("FRESH", fresh);
    copy_as_operator(page);
    // The expected result: after a crash, what the replay makes of the undamaged sample.
    keep_tree(server_, found());
    (void)server_.run(trouble.crash ? "tarn --startup-replay" : "true");
    keep_tree(server_, right());
    for (const char* name : {"/volume1", "/volume2", "/journal"}) {
        fs::remove_all(server_.file(name));
        copy_tree(found() + name, server_.file(name));
    }
    fs::remove_all(found());
    for (const std::string& words : trouble.damage) {
        damage(words);
    }
    begin_situation();
    keep_tree(server_, found());
    (void)server_.run("rm -rf /scratch/keep /scratch/shell");
}

guide_server::~guide_server() = default;

void guide_server::damage(const std::string& words) {
    const ran result = tarn_lab("damage " + now() + " " + words);
    if (result.status == 0) {  // otherwise there was nothing to damage
        done_.insert(words.substr(0, words.find(' ')));
    }
}

// An old copy has the right header and an old count.
void guide_server::copy_as_operator(const guide& page) {
    if (trouble_.known == knowledge::nothing) {
        return;
    }
    (void)type(page.recipes.at("functions"));
    const run_result made =
        server_.run("set -e\n. /scratch/shell\n. $KEEP/functions\n" + page.recipes.at("clean"));
    EXPECT_EQ(made.status, 0) << made.err;
    if (trouble_.known == knowledge::list) {
        (void)server_.run(
            "mv $OLD/list /scratch/list; rm -r $OLD; mkdir $OLD; "
            "mv /scratch/list $OLD/");
    } else if (trouble_.known == knowledge::old_copies) {
        (void)server_.run("rm $OLD/volume?/@EP/EP_TBL");
    }
}

// The first mapped entry of a map names an extent after all data files; its checksum is right.
static void send_entry_far(const std::string& map) {
    std::fstream file(map, std::ios::in | std::ios::out | std::ios::binary);
    data_node node{};
    uint64_t entry = 0;
    for (std::streamoff at = METADATA_DATA_OFFSET; (entry & MAP_MAPPED_BIT) == 0;
         at += sizeof node) {
        file.seekg(at);
        ASSERT_TRUE(file.read(reinterpret_cast<char*>(&node), sizeof node));
        memcpy(&entry, &node, sizeof entry);
    }
    entry |= uint64_t{1} << 32;
    memcpy(&node, &entry, sizeof entry);
    data_node_seal(&node);
    file.seekp(-static_cast<std::streamoff>(sizeof node), std::ios::cur);
    file.write(reinterpret_cast<const char*>(&node), sizeof node);
}

void guide_server::begin_situation() {
    situation_ = situation_of(trouble_.situation);
    if (situation_ == nullptr) {
        return;
    }
    const run_result begun =
        server_.run(std::string("mkdir /scratch/hidden\n") + situation_->begin);
    std::ofstream log(server_.file("/scratch/log"));  // what the system keeps of it
    for (const std::string& line : begun.log) {
        log << line;
    }
    if (trouble_.situation.starts_with("far entry")) {
        send_entry_far(server_.file(LUN));
    }
    done_.insert(trouble_.situation);
}

void guide_server::mend() {
    if (situation_ == nullptr) {
        return;
    }
    if (trouble_.situation == "unmounted") {
        (void)server_.run("mv /scratch/hidden/* /scratch/hidden/.[!.]* /volume2/");
    }
    (void)server_.run(situation_->end);
    set("KEEP", "/scratch/keep");
    situation_ = nullptr;
}

void guide_server::set(const std::string& name, const std::string& value) {
    std::ofstream shell(server_.file("/scratch/shell"), std::ios::app);
    shell << name << "='" << value << "'\n";
}

std::string guide_server::type(const std::string& commands) {
    const std::string around[] = {
        "exec 2>&1\nset -a\n"
        "[ ! -e /scratch/shell ] || . /scratch/shell\n"
        "[ ! -e $KEEP/functions ] || . $KEEP/functions\n"
        "journalctl() { [ ! -e /scratch/log ] || cat /scratch/log; }\n"
        "[ ! -e /scratch/full ] || KEEP=/dev/full/keep\n"
        "[ ! -e /scratch/locked ] || { exec 9</volume1; flock 9; }\n",
        "\nexport -p >/scratch/shell\n"};
    const run_result run = server_.run(around[0] + commands + around[1]);
    std::string text = run.out;
    for (const std::string& line : run.log) {
        text += line.ends_with('\n') ? line : line + "\n";
    }
    return text;
}
