// Which runs of a campaign are requested, and their results. Below: the system.
// Above: the drivers of the campaigns.
#pragma once

#include <cstdint>
#include <map>
#include <string>

struct seed_range {
    uint64_t first;
    uint64_t count;  // 0: none requested
};
// From the environment: TARN_CAMPAIGN_SEEDS="FIRST COUNT".
seed_range asked_seeds();

// Counts runs under a few words ("command|kind|result") and adds them to the file that
// TARN_CAMPAIGN_FIGURES names, a line each with its count in front. One file may be shared.
class figures {
public:
    ~figures();
    void count(const std::string& words) { runs_[words]++; }

private:
    std::map<std::string, uint64_t> runs_;
};
