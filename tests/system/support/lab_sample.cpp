#include "system/support/lab_sample.h"

#include <cstring>
#include <gtest/gtest.h>
#include <regex>

#include "store/crc32c.h"

std::string make_sample(const scratch_dir& place, const std::string& name, unsigned seed,
                        const std::string& more) {
    std::string sample = place.file(name);
    const ran made = tarn_lab("make " + sample + " --seed " + std::to_string(seed) + more);
    EXPECT_EQ(made.status, 0) << made.text;
    return sample;
}

ran damage(const std::string& sample, const std::string& kind, unsigned seed,
           const std::string& more) {
    return tarn_lab("damage " + sample + " " + kind + " --seed " + std::to_string(seed) + more);
}

std::vector<std::string> changed_files(const std::map<std::string, std::string>& before,
                                       const std::map<std::string, std::string>& after) {
    std::vector<std::string> changed;
    for (const auto& [path, content] : before) {
        const auto found = after.find(path);
        if (found == after.end() || found->second != content) {
            changed.push_back(path);
        }
    }
    for (const auto& [path, content] : after) {
        if (before.count(path) == 0) {
            changed.push_back(path);
        }
    }
    return changed;
}

node_place node_of(uint64_t byte) {
    return byte < 1048576 ? node_place{byte / 64 * 64, 64, 0}
                          : node_place{byte / 512 * 512, 512, 508};
}

bool checksum_is_right(const node_place& place, std::vector<uint8_t> node) {
    uint32_t stored = 0;
    memcpy(&stored, &node[place.checksum], sizeof stored);
    memset(&node[place.checksum], 0, sizeof stored);
    uint32_t computed = 0;
    tarn_crc32c(node.data(), static_cast<uint32_t>(node.size()), &computed);
    return stored == computed;
}

// 63 entries a node.
std::vector<uint64_t> entries_of(const std::string& map) {
    std::vector<uint64_t> words(SAMPLE_ENTRIES);
    for (uint64_t lea = 0; lea < SAMPLE_ENTRIES; lea++) {
        const uint64_t at = 1048576 + lea / 63 * 512 + lea % 63 * 8;
        memcpy(&words[lea], file_bytes(map, at, 8).data(), 8);
    }
    return words;
}

std::string uuid_digits_in(const std::string& metadata_file) {
    constexpr const char* DIGITS = "0123456789abcdef";
    std::string uuid;
    for (const uint8_t byte : file_bytes(metadata_file, 20, 16)) {
        uuid += {DIGITS[byte / 16], DIGITS[byte % 16]};
    }
    return uuid;
}

std::string file_named_first(const std::string& line) {
    return line.substr(0, line.find(": "));
}

uint64_t number_after(const std::string& line, const std::string& words) {
    const size_t at = line.find(words);
    EXPECT_NE(at, std::string::npos) << line;
    return at == std::string::npos ? 0 : std::stoull(line.substr(at + words.size()));
}

std::vector<reported_place> places_in(const std::string& line) {
    static const std::regex place("(?:(\\S+): )?byte (\\d+)");
    std::vector<reported_place> places;
    std::string file;
    for (std::sregex_iterator at(line.begin(), line.end(), place); at != std::sregex_iterator();
         ++at) {
        file = (*at)[1].matched ? std::string((*at)[1]) : file;
        places.push_back({file, std::stoull((*at)[2]), at->suffix()});
    }
    return places;
}
