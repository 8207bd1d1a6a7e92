#include "system/support/sandbox.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "system/support/failing_syncs.h"
#include "system/support/log_socket.h"
#include "system/support/private_root.h"

namespace fs = std::filesystem;

bool run_result::logged(const std::string& part) const {
    for (const std::string& line : log) {
        if (line.find(part) != std::string::npos) {
            return true;
        }
    }
    return false;
}

// The test ends here, as if it had been skipped in its own body: its framework ignores this
// exception, which it throws for a result that is already recorded.
[[noreturn]] static void skip_test(const std::string& reason) {
    [&reason] { GTEST_SKIP() << reason; }();
    throw testing::AssertionException(
        testing::TestPartResult(testing::TestPartResult::kSkip, __FILE__, __LINE__, ""));
}

// If every test must run, a sandbox that cannot be made fails the test later.
static void skip_without_private_root() {
    static const std::string reason = why_no_private_root();
    if (!reason.empty() && getenv("TARN_TESTS_SKIP_NOTHING") == nullptr) {
        skip_test("no private root for the program: " + reason);
    }
}

sandbox::sandbox() {
    skip_without_private_root();
    for (const std::string& path :
         {volume(1), volume(2), scratch(), dir_.file("journal"), dir_.file("root")}) {
        fs::create_directories(path);
    }
    configure("");
}

sandbox::~sandbox() = default;  // out of line: a place for a breakpoint when files remain

std::string sandbox::volume(unsigned number) const {
    return dir_.file("volume" + std::to_string(number));
}

std::string sandbox::journal() const {
    return dir_.file("journal/EP_JNL");
}

std::string sandbox::scratch() const {
    return dir_.file("scratch");
}

void sandbox::configure(const std::string& text) const {
    std::ofstream(dir_.file("scratch/platform.conf")) << text;
}

// A descriptor above the standard ones, closed at the end.
class held_fd {
public:
    explicit held_fd(int fd = -1) : fd_(fd) {}
    ~held_fd() { reset(-1); }
    held_fd(const held_fd&) = delete;
    held_fd& operator=(const held_fd&) = delete;
    [[nodiscard]] int get() const { return fd_; }
    void reset(int fd) {
        if (fd_ >= 0) {
            close(fd_);
        }
        fd_ = fd;
    }

private:
    int fd_;
};

struct held_pipe {
    held_pipe() {
        int ends[2] = {-1, -1};
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        from.reset(fcntl(ends[0], F_DUPFD_CLOEXEC, 10));  // not a standard descriptor
        to.reset(fcntl(ends[1], F_DUPFD_CLOEXEC, 10));
        close(ends[0]);
        close(ends[1]);
        EXPECT_EQ(fcntl(from.get(), F_SETFL, O_NONBLOCK), 0);
    }
    held_fd from;
    held_fd to;
};

// The pipes between the test and one run of a program.
struct connections {
    held_pipe out;
    held_pipe err;
    held_pipe setup;  // the error before the program ran
    held_fd input;
};

static void prepare(connections* run, const run_conditions& conditions) {
    if (conditions.input == input_kind::empty) {
        run->input.reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
    } else if (conditions.input == input_kind::text) {
        held_pipe input;  // small enough for the pipe to hold
        const std::string& text = conditions.input_text;
        EXPECT_EQ(write(input.to.get(), text.data(), text.size()),
                  static_cast<ssize_t>(text.size()));
        EXPECT_EQ(fcntl(input.from.get(), F_SETFL, 0), 0);
        run->input.reset(fcntl(input.from.get(), F_DUPFD_CLOEXEC, 10));
    }
    if (conditions.output == output_kind::broken_pipe) {
        run->out.from.reset(-1);
    }
    if (conditions.errors == output_kind::broken_pipe) {
        run->err.from.reset(-1);
    }
}

// In the child: descriptor `standard` becomes `fd`, or is closed.
static void place(int fd, int standard, bool closed) {
    if (closed) {
        close(standard);
    } else {
        dup2(fd, standard);
    }
}

[[noreturn]] static void start(const std::string& program, const std::vector<std::string>& words,
                               const run_conditions& conditions, const connections& run,
                               const std::string& problem) {
    (void)!write(run.setup.to.get(), problem.data(), problem.size());
    if (!problem.empty()) {
        _exit(126);
    }
    const std::string name = fs::path(program).filename();
    std::vector<char*> argv = {const_cast<char*>(name.c_str())};
    for (const std::string& word : words) {
        argv.push_back(const_cast<char*>(word.c_str()));
    }
    argv.push_back(nullptr);
    setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
    setenv("TARN_PLATFORM_CONF", "/scratch/platform.conf", 1);
    if (conditions.without_configuration) {
        unsetenv("TARN_PLATFORM_CONF");
    }
    setenv("LC_ALL", "C", 1);
    unsetenv("POSIXLY_CORRECT");  // changes how options are scanned
    place(run.input.get(), STDIN_FILENO, conditions.input == input_kind::closed);
    place(run.out.to.get(), STDOUT_FILENO, conditions.output == output_kind::closed);
    place(run.err.to.get(), STDERR_FILENO, conditions.errors == output_kind::closed);
    if (conditions.syncs_fail && !fail_every_sync()) {
        const std::string reason = "no filter of system calls: " + std::string(strerror(errno));
        (void)!write(run.setup.to.get(), reason.data(), reason.size());
        _exit(126);
    }
    execv(program.c_str(), argv.data());
    const std::string reason = program + ": " + strerror(errno);
    (void)!write(run.setup.to.get(), reason.data(), reason.size());
    _exit(127);
}

static void take_arrived(int fd, std::string* text) {
    char buffer[4096];
    ssize_t got = 0;
    while (fd >= 0 && (got = read(fd, buffer, sizeof buffer)) > 0) {
        text->append(buffer, static_cast<size_t>(got));
    }
}

// Reads all output until the program ends, so that the program never has to wait.
static void listen_until_end(pid_t pid, const connections& run, const log_socket& log,
                             run_result* result) {
    const held_fd process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    EXPECT_GE(process.get(), 0);
    const time_t deadline = time(nullptr) + 60;
    pollfd waited[] = {{process.get(), POLLIN, 0},
                       {run.out.from.get(), POLLIN, 0},
                       {run.err.from.get(), POLLIN, 0},
                       {log.fd(), POLLIN, 0}};
    while ((waited[0].revents & POLLIN) == 0) {
        poll(waited, std::size(waited), 1000);
        for (size_t i = 1; i < std::size(waited); i++) {
            if ((waited[i].revents & (POLLIN | POLLHUP)) == POLLHUP) {
                waited[i].fd = -1;  // closed by the program: no more output
            }
        }
        take_arrived(run.out.from.get(), &result->out);
        take_arrived(run.err.from.get(), &result->err);
        log.take_arrived(&result->log);
        if (time(nullptr) > deadline) {
            ADD_FAILURE() << "still running after a minute";
            kill(pid, SIGKILL);
        }
    }
    take_arrived(run.out.from.get(), &result->out);
    take_arrived(run.err.from.get(), &result->err);
    log.take_arrived(&result->log);
}

run_result sandbox::run_program(const std::string& program, const std::vector<std::string>& words,
                                const run_conditions& conditions) const {
    const log_socket log(dir_.file("log"));
    const std::vector<bound_path> bindings = {
        {fs::path(TARN_PROGRAM).parent_path(), fs::path(TARN_PROGRAM).parent_path(), false},
        {dir_.file("log"), "/dev/log", false},
        {dir_.file("journal"), "/var/lib/tarn", false},
        {scratch(), "/scratch", false},
        {volume(1), "/volume1", conditions.read_only[0]},
        {volume(2), "/volume2", conditions.read_only[1]},
    };
    connections run;
    prepare(&run, conditions);
    run_result result = {-1, 0, "", "", {}};
    const pid_t pid = fork();
    if (pid == 0) {
        start(program, words, conditions, run, enter_private_root(dir_.file("root"), bindings));
    }
    EXPECT_GT(pid, 0) << strerror(errno);
    if (pid < 0) {
        return result;
    }
    for (held_pipe* pipe : {&run.out, &run.err, &run.setup}) {
        pipe->to.reset(-1);
    }
    listen_until_end(pid, run, log, &result);
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    std::string problem;
    take_arrived(run.setup.from.get(), &problem);
    EXPECT_EQ(problem, "") << "the sandbox could not be made";
    return result;
}

run_result sandbox::run(const std::vector<std::string>& words) const {
    return run(words, {});
}

run_result sandbox::run(const std::vector<std::string>& words,
                        const run_conditions& conditions) const {
    return run_program(TARN_PROGRAM, words, conditions);
}
