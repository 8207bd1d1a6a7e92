// A server whose two volumes and journal are a sample of tarn-lab, which knows the truth about
// them, and a root shell on it for the commands that repair it. Below: sandbox.h, shell.h.
#pragma once

#include <map>
#include <string>

#include "system/support/sandbox.h"
#include "system/support/shell.h"

class damaged_server {
public:
    // `words` for tarn-lab make. Fails the test where the sample cannot be made.
    explicit damaged_server(const std::string& words);
    damaged_server(const damaged_server&) = delete;
    damaged_server& operator=(const damaged_server&) = delete;

    // Damages volume 1 and returns the line that says how. A damaged map becomes `MAP`.
    std::string damage(const std::string& kind, unsigned seed = 1);

    // Sets a variable of the shell. There are V (/volume1), J (the journal) and MAP.
    void set(const std::string& name, const std::string& value);
    // Runs command lines with those variables.
    [[nodiscard]] run_result run(const std::string& commands) const;
    // The step that keeps the journal from being replayed over what was repaired.
    void set_journal_aside() const;

    // What tarn-lab finds; the journal is put back in its place during the call.
    [[nodiscard]] ran verify(const std::string& words) const;
    // Fails the test unless the full check and the check of free lists pass and no work directory
    // is left.
    void expect_checks_pass() const;
    // The same, and unless tarn-lab finds the rebuilt tables and every other file right.
    void expect_rebuilt() const;
    // Fails the test unless the one-key repair refuses, logs `reason`, and changes nothing.
    void expect_refused(const std::string& reason) const;

    // Outside: a file by its path inside; where everything is.
    [[nodiscard]] std::string file(const std::string& inside) const;
    [[nodiscard]] std::string map() const { return file(variables_.at("MAP")); }
    [[nodiscard]] std::string top() const;

private:
    sandbox box_;
    std::map<std::string, std::string> variables_;
};
