// Files of a benchmark's volume: created, written, and given their headers. A failure ends the
// program. Below: the formats. Above: the generators of volumes and journals.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "metadata.h"

inline constexpr uint8_t POOL_UUID[UUID_SIZE] = {0x7a, 0x52, 0x11, 0x04};

// A new file of `size` bytes, open for reading and writing.
int create(const std::string& path, uint64_t size);
void write_all(int fd, const void* bytes, size_t len, uint64_t offset);

// Writes the constant and variable nodes at `header`, each with its checksum.
void write_header(int fd, void* header, uint64_t const_nodes, uint64_t var_nodes);

// A map of `entries` entries without data nodes, open; its header counts `mapped` mapped ones.
int create_map(const std::string& path, const uint8_t* uuid, uint64_t entries, uint64_t mapped);
