#include "system/support/shell.h"

#include <cstdio>
#include <cstdlib>
#include <sys/wait.h>

ran shell(const std::string& command) {
    FILE* stream = popen((command + " 2>&1").c_str(), "r");
    ran result = {-1, ""};
    char part[4096];
    while (stream != nullptr && fgets(part, sizeof part, stream) != nullptr) {
        result.text += part;
    }
    const int status = stream != nullptr ? pclose(stream) : -1;
    result.status = status >= 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

ran tarn_lab(const std::string& words) {
    return shell(std::string(TARN_LAB_PROGRAM) + " " + words);
}

ran tarn_on(const std::string& sample, const std::string& words) {
    return shell("TARN_PLATFORM_CONF=" + sample + "/platform.conf " + TARN_PROGRAM + " " + words);
}
