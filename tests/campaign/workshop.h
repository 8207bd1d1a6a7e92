// A directory where samples are made, kept, and copied to the one place where the program under
// test works on them, so that it prints the same paths in every run.
// Below: copy_tree.h, shell.h, program.h. Above: the drivers of the campaigns.
#pragma once

#include <map>
#include <string>

#include "campaign/program.h"

class workshop {
public:
    workshop();   // in memory if the machine has a file system there
    ~workshop();  // removes everything
    workshop(const workshop&) = delete;
    workshop& operator=(const workshop&) = delete;

    [[nodiscard]] std::string path(const std::string& name) const { return root_ + "/" + name; }
    // The place where the program works.
    [[nodiscard]] std::string bench() const { return path("w"); }
    // Removes what is on the bench and puts a copy of that tree there.
    void put_on_bench(const std::string& tree) const;
    // The bench as a tree that is kept; an older one of that name goes away.
    void keep_bench(const std::string& name) const;
    // Makes a sample with tarn-lab at path(name), its platform configuration for the bench:
    // platform.conf as tarn-lab writes it, shift.conf with a fixed extent size. False: refused.
    bool make(const std::string& name, const std::string& words) const;
    // Runs the program on the bench. `words` may contain {w}, the bench.
    [[nodiscard]] program_run run(run_setup setup) const;
    [[nodiscard]] program_run run(const std::string& words) const;

private:
    std::string root_;
};

// Every {name} in `text` replaced.
std::string filled_in(std::string text, const std::map<std::string, std::string>& values);
