#include "campaign/asked.h"

#include <cstdlib>
#include <fcntl.h>
#include <sstream>
#include <unistd.h>

seed_range asked_seeds() {
    const char* text = getenv("TARN_CAMPAIGN_SEEDS");
    seed_range range = {0, 0};
    std::istringstream(text != nullptr ? text : "") >> range.first >> range.count;
    return range;
}

figures::~figures() {
    const char* path = getenv("TARN_CAMPAIGN_FIGURES");
    std::string text;
    for (const auto& [words, runs] : runs_) {
        text += std::to_string(runs) + "|" + words + "\n";
    }
    const int fd = path != nullptr ? open(path, O_WRONLY | O_CREAT | O_APPEND, 0600) : -1;
    if (fd >= 0) {
        (void)!write(fd, text.data(), text.size());
        close(fd);
    }
}
