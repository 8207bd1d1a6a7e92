// A server with two sound volumes and a journal, in a sandbox; and the lines that tarn prints about
// them. Below: sandbox.h, the metadata files of tests/support. Above: the system tests.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/sample_volumes.h"
#include "system/support/sandbox.h"

using lines = std::vector<std::string>;

constexpr const char* JOURNAL = "/var/lib/tarn/EP_JNL";  // as tarn sees it

// Both volumes with an index that knows no group (so that index and table agree), an empty trash
// and no snapshot; pool uuids 11..11 and 22..22. No journal.
void make_volumes(const sandbox& box);
// One of them, of any number; `pool` is the byte of its uuid.
void make_volume(const sandbox& box, unsigned number, uint8_t pool);
// A LUN's map of volume `number`, below @iSCSITrg; its uuid is 16 times `uuid_byte`.
std::string make_lun(const sandbox& box, unsigned number, const std::string& name,
                     uint8_t uuid_byte);

// What tarn prints when it replays, or checks with --startup-replay, a volume without maps.
std::string replay_lines(unsigned number);
std::string consistent_lines(unsigned number);
