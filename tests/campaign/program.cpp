#include "campaign/program.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

static constexpr unsigned SECONDS_MAX = 20;

static std::string text_of(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

static std::vector<std::string> split(const std::string& text, char at) {
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, at);) {
        parts.push_back(part);
    }
    return parts;
}

static void replace_descriptor(int standard, const std::string& path, int flags) {
    const int fd = open(path.c_str(), flags, 0600);
    if (fd < 0 || dup2(fd, standard) != standard) {
        _exit(126);
    }
    close(fd);
}

static void set_unless_empty(const char* name, const std::string& value) {
    if (!value.empty()) {
        setenv(name, value.c_str(), 1);
    }
}

[[noreturn]] static void start(const std::string& place, const run_setup& setup) {
    const std::vector<std::string> words = split(setup.words, ' ');
    std::vector<char*> argv = {const_cast<char*>("tarn")};
    for (const std::string& word : words) {
        argv.push_back(const_cast<char*>(word.c_str()));
    }
    argv.push_back(nullptr);
    setenv("LC_ALL", "C", 1);
    setenv("LD_PRELOAD", TARN_PRELOAD, 1);
    setenv("TARN_PLATFORM_CONF", setup.configuration.c_str(), 1);
    setenv(PRELOAD_NOTES, (place + "/notes").c_str(), 1);
    setenv(PRELOAD_LOG, (place + "/log").c_str(), 1);
    set_unless_empty(PRELOAD_FAULT, setup.fault);
    set_unless_empty(PRELOAD_RECORD, setup.recording);
    set_unless_empty(PRELOAD_KILL, setup.kill != 0 ? std::to_string(setup.kill) : "");
    replace_descriptor(STDIN_FILENO, place + "/in", O_RDONLY);
    replace_descriptor(STDOUT_FILENO, place + "/out", O_WRONLY | O_CREAT | O_APPEND);
    replace_descriptor(STDERR_FILENO, "/dev/null", O_WRONLY);
    alarm(SECONDS_MAX);  // survives the exec, and its signal ends the program
    execv(TARN_PROGRAM, argv.data());
    _exit(127);
}

static void take_notes(const std::string& text, program_run* run) {
    for (const std::string& line : split(text, '\n')) {
        std::istringstream words(line);
        std::string what;
        std::string kind;
        unsigned long long calls = 0;
        words >> what >> kind;
        if (what == "hit") {
            run->hit = line.substr(4);
        } else if (words >> calls) {
            run->calls[static_cast<size_t>(call_of_name(kind.c_str()))] = calls;
        }
    }
}

program_run run_tarn(const std::string& place, const run_setup& setup) {
    fs::remove_all(place);
    fs::create_directories(place);
    std::ofstream(place + "/in") << setup.input;
    fs::remove(setup.recording);
    program_run run = {-1, 0, false, "", {}, {}, ""};
    const pid_t pid = fork();
    if (pid == 0) {
        start(place, setup);
    }
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    run.hung = run.signal == SIGALRM;
    EXPECT_NE(run.status, 126);
    EXPECT_NE(run.status, 127);
    run.out = text_of(place + "/out");
    run.log = split(text_of(place + "/log"), '\n');
    take_notes(text_of(place + "/notes"), &run);
    return run;
}
