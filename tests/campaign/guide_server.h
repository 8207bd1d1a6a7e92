// A server in trouble for the robot: a sample of tarn-lab, crashed or not, with random damages and
// situations, and the operator's means: nothing, a list, copies. It keeps the truth.
// Below: damaged_server.h, guide_page.h, dice.h. Above: guide_robot.h, guide_judge.h.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "campaign/guide_page.h"
#include "support/scratch_file.h"
#include "system/support/damaged_server.h"

enum class knowledge { nothing, list, old_copies, fresh_copies };

// What is wrong with the server.
struct guide_trouble {
    std::string sample;  // words for tarn-lab make
    bool crash;
    knowledge known;
    std::vector<std::string> damage;  // "KIND --volume N --seed S"
    std::string situation;            // name of one of guide_situations(), or empty
};
guide_trouble trouble_of(uint64_t seed);
std::string in_words(const guide_trouble& trouble);

// A situation that a trouble may name.
struct guide_situation {
    const char* name;
    bool after_crash;   // only after a crash; otherwise only after a clean shutdown
    const char* begin;  // commands of root that cause it
    const char* end;    // commands that end it, "" when only the page's own rows can
};
const std::vector<guide_situation>& guide_situations();

class guide_server {
public:
    // `page` says how an operator makes the list and the copies at a clean stop.
    guide_server(const guide_trouble& trouble, const guide& page);
    ~guide_server();  // removes everything
    guide_server(const guide_server&) = delete;
    guide_server& operator=(const guide_server&) = delete;

    // Types the commands into the operator's shell, which keeps its variables and functions.
    // Returns the text of the terminal followed by that of the log.
    std::string type(const std::string& commands);
    void set(const std::string& name, const std::string& value);
    void mend();  // ends the situation like an operator would

    // Directories: everything as it is now; as the trouble left it; as it should be.
    [[nodiscard]] std::string now() const { return server_.top(); }
    [[nodiscard]] std::string found() const { return kept_.file("found"); }
    [[nodiscard]] std::string right() const { return kept_.file("right"); }
    // The directory of step 1 outside; copies are below it as "/volume1/...".
    [[nodiscard]] std::string keep() const { return server_.file("/scratch/keep/before"); }
    // What tarn-lab reported about each damage.
    [[nodiscard]] const std::set<std::string>& done() const { return done_; }

private:
    void damage(const std::string& words);
    void copy_as_operator(const guide& page);
    void begin_situation();

    guide_trouble trouble_;
    damaged_server server_;
    scratch_dir kept_;
    std::set<std::string> done_;
    const guide_situation* situation_ = nullptr;  // null: there was none, or it has ended
};
