#include "ctl/known/sealed_file.h"

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

#include "ctl/output.h"
#include "ctl/text/escape.h"
#include "ctl/whole_file.h"
#include "store/crc32c.h"
#include "store/descriptor.h"

static constexpr size_t SIZE_MAX_KEPT = size_t{256} << 20;  // bytes; a larger file is not ours
static constexpr std::string_view SEAL_BEGIN = ",\n \"crc32c\": \"";
static constexpr std::string_view SEAL_END = "\"\n}\n";
static constexpr size_t SEAL_SIZE = SEAL_BEGIN.size() + 8 + SEAL_END.size();

static std::string seal_of(std::string_view content) {
    uint32_t checksum = 0;
    tarn_crc32c(content.data(), static_cast<uint32_t>(content.size()), &checksum);
    char digits[9];
    snprintf(digits, sizeof digits, "%08x", checksum);
    return std::string(SEAL_BEGIN) + digits + std::string(SEAL_END);
}

static std::string failure(const char* what, const std::string& path, int error) {
    return std::string(what) + " " + shown(path) + ": " + strerror(error);
}

static kept_end read_text(const std::string& path, std::string* text, std::string* problem) {
    if (read_whole_file(path, SIZE_MAX_KEPT, text)) {
        return kept_end::read;
    }
    const int error = errno;
    *problem = failure("cannot read", path, error);
    if (error == EISDIR || error == EINVAL) {
        *problem = shown(path) + " is no file";
        return kept_end::not_ours;
    }
    return error == ENOENT ? kept_end::absent : kept_end::unreadable;
}

static bool is_sealed(std::string_view text) {
    return text.size() > SEAL_SIZE &&
           text.substr(text.size() - SEAL_SIZE) == seal_of(text.substr(0, text.size() - SEAL_SIZE));
}

kept_end read_kept(const std::string& path, const kept_kind& kind, json_record* content,
                   std::string* problem) {
    std::string text;
    const kept_end read = read_text(path, &text, problem);
    if (read != kept_end::read) {
        return read;
    }
    const std::string beginning = std::string("{\n \"") + kind.kind + "\": ";
    if (text.substr(0, beginning.size()) != beginning.substr(0, text.size())) {
        *problem = shown(path) + " is no " + kind.words + " of tarnctl";
        return kept_end::not_ours;
    }
    *content = is_sealed(text) ? json_record::parse(text, nullptr, false) : json_record();
    if (!content->is_object() || !(*content)[kind.kind].is_number_unsigned()) {
        *problem = shown(path) + " was cut or changed";
        return kept_end::damaged;
    }
    if ((*content)[kind.kind] > kind.format) {
        *problem = shown(path) + " was written by a newer tarnctl";
        return kept_end::newer;
    }
    return kept_end::read;
}

int end_of_kept(kept_end end, const std::string& problem) {
    const bool is_unread = end == kept_end::absent || end == kept_end::unreadable;
    return is_unread ? complain(problem) : refuse(problem);
}

static std::string older(const std::string& path, unsigned age) {
    return age == 0 ? path : path + "." + std::to_string(age);
}

// Makes room for one more: each file grows older by one, the oldest is gone. The newest one keeps
// its name too until it is replaced, where the file system has links.
static bool age_files(const std::string& path, unsigned kept, std::string* problem) {
    for (unsigned age = kept - 1; age > 1; age--) {
        if (io_rename(older(path, age - 1).c_str(), older(path, age).c_str()) != 0 &&
            errno != ENOENT) {
            *problem = failure("cannot rename", older(path, age - 1), errno);
            return false;
        }
    }
    if (kept < 2 || io_link(path.c_str(), older(path, 1).c_str()) == 0 || errno == ENOENT) {
        return true;
    }
    if (io_rename(path.c_str(), older(path, 1).c_str()) != 0) {
        *problem = failure("cannot rename", path, errno);
        return false;
    }
    return true;
}

bool write_kept(const std::string& path, const kept_kind& kind, const json_record& content,
                unsigned kept, std::string* problem) {
    json_record whole = {{kind.kind, kind.format}};
    whole.update(content);
    std::string text = whole.dump(1, ' ', false, json_record::error_handler_t::replace);
    text.resize(text.size() - 2);  // "\n}"
    text += seal_of(text);
    std::string fresh;
    if (!write_beside(path, text, &fresh)) {
        *problem = failure("cannot write", path, errno);
        return false;
    }
    if (!age_files(path, kept, problem)) {
        (void)io_unlink(fresh.c_str());
        return false;
    }
    if (!move_in_place(fresh, path)) {
        *problem = failure("cannot replace", path, errno);
        return false;
    }
    return true;
}
