// nbdkit-tarn-plugin: a LUN as a read-only block device, straight from its map and the data files.
//     nbdkit tarn lun=LUN_7 [conf=FILE] [missing=fail|zero] [inconsistent=true]
// The server is looked at once, before the first client: what is served stays of that moment.
// Below: ctl/export/source.h, lun_reader.h. Above: nbdkit.
#define NBDKIT_API_VERSION 2
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <nbdkit-plugin.h>
#include <string>
#include <sys/stat.h>

#include "ctl/export/source.h"

#define THREAD_MODEL NBDKIT_THREAD_MODEL_PARALLEL

namespace {

struct {
    std::string lun;
    bool missing_zero = false;
    bool inconsistent = false;
} asked;

// What is served. The reader is asked by one thread at a time; data files are read by many.
struct served_lun {
    lun_source source;
    std::mutex reader;
    struct timespec journal_time = {};
    std::atomic<bool> has_moved = false;  // reported
};
served_lun* served = nullptr;

// Calls `what`; nothing may throw into nbdkit. Returns -1 after an exception.
template <typename What>
int guarded(What what) {
    try {
        return what();
    } catch (const std::exception& problem) {
        nbdkit_error("%s", problem.what());
        nbdkit_set_error(ENOMEM);
        return -1;
    }
}

int set_configuration(const char* path) {
    char* absolute = nbdkit_absolute_path(path);
    const int result = absolute == nullptr ? -1 : setenv("TARN_PLATFORM_CONF", absolute, 1);
    free(absolute);
    return result;
}

int set_missing(const char* value) {
    asked.missing_zero = strcmp(value, "zero") == 0;
    if (!asked.missing_zero && strcmp(value, "fail") != 0) {
        nbdkit_error("missing=%s: fail or zero", value);
        return -1;
    }
    return 0;
}

int set_inconsistent(const char* value) {
    const int parsed = nbdkit_parse_bool(value);
    asked.inconsistent = parsed == 1;
    return parsed < 0 ? -1 : 0;
}

int set_parameter(const char* key, const char* value) {
    const std::string name = key;
    if (name == "lun") {
        asked.lun = value;
        return 0;
    }
    if (name == "conf") {
        return set_configuration(value);
    }
    if (name == "missing") {
        return set_missing(value);
    }
    if (name == "inconsistent") {
        return set_inconsistent(value);
    }
    nbdkit_error("unknown parameter '%s'", key);
    return -1;
}

int config(const char* key, const char* value) {
    return guarded([&] { return set_parameter(key, value); });
}

int config_complete() {
    if (asked.lun.empty()) {
        nbdkit_error("which LUN? lun=NAME");
        return -1;
    }
    return 0;
}

// When the journal was last written; zero: there is none. Its time is that of the disk.
struct timespec journal_time() {
    struct stat64 status = {};
    const std::string& path = served->source.look->state.server.journal;
    return io_stat(path.c_str(), &status) == 0 ? status.st_mtim : timespec{};
}

int look_at_server() {
    served = new served_lun;
    const lun_answer answer = open_lun(asked.lun, asked.inconsistent, &served->source);
    if (answer.status != EXIT_CLEAN) {
        nbdkit_error("%s", answer.reason.c_str());
        return -1;
    }
    served->journal_time = journal_time();
    if (!asked.inconsistent && was_written_meanwhile(served->source)) {
        nbdkit_error("the service runs: stop it, or use inconsistent=true");
        return -1;
    }
    for (const std::string& warning : served->source.warnings) {
        nbdkit_error("warning: %s", warning.c_str());
    }
    return 0;
}

int get_ready() {
    return guarded(look_at_server);
}

void unload() {
    delete served;
    served = nullptr;
}

void* open_connection(int) {
    return NBDKIT_HANDLE_NOT_NEEDED;
}

int64_t get_size(void*) {
    return static_cast<int64_t>(served->source.reader->size());
}

int yes(void*) {
    return 1;
}

int no(void*) {
    return 0;
}

// The service was started: its map is not the one that is served any more.
bool is_still_true() {
    if (asked.inconsistent) {
        return true;
    }
    const struct timespec now = journal_time();
    const bool moved =
        now.tv_sec != served->journal_time.tv_sec || now.tv_nsec != served->journal_time.tv_nsec;
    if (moved && !served->has_moved.exchange(true)) {
        nbdkit_error("the journal was written: the service runs, and nothing is served any more");
    }
    return !moved;
}

lun_stretch stretch_at(uint64_t offset, uint64_t limit) {
    const std::lock_guard<std::mutex> lock(served->reader);
    return served->source.reader->stretch_at(offset, limit);
}

int fail_to_read() {
    nbdkit_set_error(EIO);
    return -1;
}

// What cannot be read as a whole is read block by block, if zeros may stand for the rest.
int read_data(const lun_stretch& stretch, uint8_t* to) {
    constexpr uint64_t BLOCK = 4096;
    if (read_lun_data(stretch.fd, to, stretch.bytes, stretch.at)) {
        return 0;
    }
    if (!asked.missing_zero) {
        nbdkit_error("data file: %s", strerror(errno));
        return fail_to_read();
    }
    for (uint64_t done = 0; done < stretch.bytes; done += BLOCK) {
        const uint64_t part = std::min(BLOCK, stretch.bytes - done);
        if (!read_lun_data(stretch.fd, to + done, part, stretch.at + done)) {
            memset(to + done, 0, part);
        }
    }
    return 0;
}

int read_stretch(const lun_stretch& stretch, uint8_t* to, uint64_t offset) {
    if (stretch.kind == lun_stretch_kind::data) {
        return read_data(stretch, to);
    }
    if (is_lun_missing(stretch.kind) && !asked.missing_zero) {
        nbdkit_error("%s: %llu bytes at %llu", why_missing(stretch.kind),
                     static_cast<unsigned long long>(stretch.bytes),
                     static_cast<unsigned long long>(offset));
        return fail_to_read();
    }
    memset(to, 0, stretch.bytes);
    return 0;
}

int read_bytes(uint8_t* to, uint64_t count, uint64_t offset) {
    if (!is_still_true()) {
        return fail_to_read();
    }
    for (uint64_t done = 0; done < count;) {
        const lun_stretch stretch = stretch_at(offset + done, count - done);
        if (read_stretch(stretch, to + done, offset + done) != 0) {
            return -1;
        }
        done += stretch.bytes;
    }
    return 0;
}

int pread_bytes(void*, void* buffer, uint32_t count, uint64_t offset, uint32_t) {
    return guarded([&] { return read_bytes(static_cast<uint8_t*>(buffer), count, offset); });
}

// What is missing is no hole, even if it reads as zeros.
int add_extents(uint64_t count, uint64_t offset, bool one, struct nbdkit_extents* extents) {
    if (!is_still_true()) {
        return fail_to_read();
    }
    for (uint64_t done = 0; done < count;) {
        const lun_stretch stretch = stretch_at(offset + done, count - done);
        const uint32_t type =
            is_lun_hole(stretch.kind) ? NBDKIT_EXTENT_HOLE | NBDKIT_EXTENT_ZERO : 0;
        if (nbdkit_add_extent(extents, offset + done, stretch.bytes, type) < 0) {
            return -1;
        }
        done = one ? count : done + stretch.bytes;
    }
    return 0;
}

int extents_of(void*, uint32_t count, uint64_t offset, uint32_t flags,
               struct nbdkit_extents* extents) {
    const bool one = (flags & NBDKIT_FLAG_REQ_ONE) != 0;
    return guarded([&] { return add_extents(count, offset, one, extents); });
}

struct nbdkit_plugin make_plugin() {
    struct nbdkit_plugin plugin = {};
    plugin.name = "tarn";
    plugin.version = TARN_VERSION;
    plugin.longname = "a LUN of tarn, read-only";
    plugin.description = "Serves a LUN's bytes straight from its map and the data files.";
    plugin.config = config;
    plugin.config_complete = config_complete;
    plugin.config_help =
        "lun=NAME           (required) the LUN, or the path of its map\n"
        "conf=FILE          the configuration of the server\n"
        "missing=fail|zero  bytes that cannot be read: an error, or zeros\n"
        "inconsistent=true  although the service runs, or the journal cannot be replayed";
    plugin.magic_config_key = "lun";
    plugin.unload = unload;
    plugin.get_ready = get_ready;
    plugin.open = open_connection;
    plugin.get_size = get_size;
    plugin.can_write = no;
    plugin.can_multi_conn = yes;
    plugin.can_extents = yes;
    plugin.is_rotational = no;
    plugin.pread = pread_bytes;
    plugin.extents = extents_of;
    return plugin;
}

struct nbdkit_plugin plugin = make_plugin();

}  // namespace

NBDKIT_REGISTER_PLUGIN(plugin)
