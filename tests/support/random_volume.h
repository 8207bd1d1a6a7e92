// Volumes of random maps, table and index, many of them damaged, and the files of a volume
// afterwards.
#pragma once

#include <cstdint>
#include <random>
#include <string>

constexpr uint64_t RANDOM_GROUPS = 3;  // of the entries; their blocks reach a little further

using randomness = std::mt19937_64;
uint64_t below(randomness& random, uint64_t end);
bool one_in(randomness& random, uint64_t n);

// The same volume for the same seed; replaces the files below `root`.
void put_random_volume(const std::string& root, uint64_t seed);
// The bytes of every file below `root`, holes skipped; creation times, and the checksums over them,
// left out.
std::string contents_of(const std::string& root);
