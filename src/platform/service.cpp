// Pausing and resuming a service: by the configured programs, or by systemd where it runs the
// service. Resume starts only what pause stopped.
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "platform.h"
#include "platform/config.h"
#include "platform/programs.h"

static constexpr const char* SYSTEMCTL = "/usr/bin/systemctl";

// What pause stopped, and how.
static enum { NOTHING, BY_PROGRAM, BY_SYSTEMD } stopped = NOTHING;

// Runs `command`, split at blanks, with service and reason after its arguments. 0, or -1.
static int run_configured(const char* command, const char* service, const char* reason) {
    char words[PLATFORM_VALUE_SIZE];
    snprintf(words, sizeof words, "%s", command);
    char* argv[PROGRAM_ARGUMENTS_MAX];
    int count = 0;
    char* rest = nullptr;
    char* word = strtok_r(words, PLATFORM_BLANKS, &rest);
    for (; word != nullptr && count < PROGRAM_ARGUMENTS_MAX - 3;
         word = strtok_r(nullptr, PLATFORM_BLANKS, &rest)) {
        argv[count++] = word;
    }
    argv[count++] = const_cast<char*>(service);
    argv[count++] = const_cast<char*>(reason);
    argv[count] = nullptr;
    return program_run_apart(argv) == 0 ? 0 : -1;
}

static bool systemctl(const char* verb, const char* option, const char* service) {
    const char* words[] = {SYSTEMCTL, verb, option, service, nullptr};
    char* argv[5] = {};
    int count = 0;
    for (const char* word : words) {
        if (word != nullptr) {
            argv[count++] = const_cast<char*>(word);
        }
    }
    return program_run_apart(argv) == 0;
}

static bool systemd_runs() {
    return access("/run/systemd/system", F_OK) == 0;
}

int OLIBServicePauseByReason(const char* service, const char* reason) {
    const platform_config* config = platform_config_get();
    if (config == nullptr || service == nullptr || reason == nullptr) {
        return -1;
    }
    if (config->service_pause.given) {
        if (run_configured(config->service_pause.value, service, reason) != 0) {
            return -1;
        }
        stopped = BY_PROGRAM;
        return 0;
    }
    if (!systemd_runs() || !systemctl("is-active", "--quiet", service)) {
        return 0;  // it is not running: nothing to stop
    }
    if (!systemctl("stop", nullptr, service)) {
        return -1;
    }
    stopped = BY_SYSTEMD;
    return 0;
}

static int restart_service(const platform_config* config, const char* service, const char* reason) {
    if (config->service_resume.given) {
        return run_configured(config->service_resume.value, service, reason);
    }
    if (stopped == BY_SYSTEMD) {
        return systemctl("start", nullptr, service) ? 0 : -1;
    }
    return 0;
}

int OLIBServiceResumeByReason(const char* service, const char* reason) {
    const platform_config* config = platform_config_get();
    if (config == nullptr || service == nullptr || reason == nullptr) {
        return -1;
    }
    if (stopped == NOTHING) {
        return 0;
    }
    if (restart_service(config, service, reason) != 0) {
        return -1;  // still stopped: the call may be repeated
    }
    stopped = NOTHING;
    return 0;
}
