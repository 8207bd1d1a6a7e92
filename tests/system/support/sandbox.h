// Runs a built program as on a separate server: a private mount namespace with a private root, the
// volumes /volume1 and /volume2, the journal's directory /var/lib/tarn and a real /dev/log that
// the test reads. Nothing is mounted in the host's namespace.
// Below: scratch_file.h (directories), mask.h. Above: the system tests.
#pragma once

#include <string>
#include <vector>

#include "support/scratch_file.h"

struct run_result {
    int status;       // exit status; -1 when a signal ended it
    int signal;       // 0: it exited
    std::string out;  // standard output
    std::string err;  // standard error
    // Its log messages, one a datagram: without the prefix that names the sender and the time, with
    // their newline, line numbers hidden as by mask_line_number.
    std::vector<std::string> log;

    [[nodiscard]] bool logged(const std::string& part) const;  // some log line contains it
};

enum class input_kind { empty, text, closed };
enum class output_kind { captured, closed, broken_pipe };  // broken: the pipe has no reader

// How the program is started.
struct run_conditions {
    input_kind input = input_kind::empty;
    std::string input_text;  // for input_kind::text
    output_kind output = output_kind::captured;
    output_kind errors = output_kind::captured;
    bool read_only[2] = {false, false};  // /volume1, /volume2 mounted read-only
    bool without_configuration = false;  // no TARN_PLATFORM_CONF in the environment
    bool syncs_fail = false;             // every sync of the program fails with EIO
};

class sandbox {
public:
    // Empty volumes; an empty configuration, which means the platform's defaults. Skips the test
    // if the machine does not allow such a root, unless TARN_TESTS_SKIP_NOTHING is set.
    sandbox();
    ~sandbox();  // removes everything
    sandbox(const sandbox&) = delete;
    sandbox& operator=(const sandbox&) = delete;

    // The paths, for the test, of what the program sees as /volume<number> (1 or 2), as
    // /var/lib/tarn/EP_JNL, and as /scratch.
    [[nodiscard]] std::string volume(unsigned number) const;
    [[nodiscard]] std::string journal() const;
    [[nodiscard]] std::string scratch() const;
    void configure(const std::string& text) const;  // what TARN_PLATFORM_CONF names

    // Runs the program under test with `words` as its arguments. The test fails if the program
    // cannot be started, runs for more than a minute, or logs a line at another priority than
    // LOG_ERR.
    [[nodiscard]] run_result run(const std::vector<std::string>& words) const;
    [[nodiscard]] run_result run(const std::vector<std::string>& words,
                                 const run_conditions& conditions) const;
    // Any program, by its path.
    [[nodiscard]] run_result run_program(const std::string& program,
                                         const std::vector<std::string>& words,
                                         const run_conditions& conditions) const;

private:
    scratch_dir dir_;
};
