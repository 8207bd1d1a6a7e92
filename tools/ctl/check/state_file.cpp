#include "ctl/check/state_file.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

#include "ctl/records.h"
#include "ctl/text/escape.h"
#include "ctl/whole_file.h"
#include "store/crc32c.h"

using nlohmann::json;

static uint32_t checksum_of(std::string_view bytes) {
    uint32_t checksum = 0;
    tarn_crc32c(bytes.data(), static_cast<uint32_t>(bytes.size()), &checksum);
    return checksum;
}

static std::string hex8(uint32_t value) {
    char text[16];
    snprintf(text, sizeof text, "%08x", value);
    return text;
}

machine_identity this_machine() {
    machine_identity here = {shown(host_name()), ""};
    std::string id;
    if (read_whole_file("/etc/machine-id", 1024, &id)) {
        id = id.substr(0, id.find('\n'));
        const bool is_id = id.size() == 32 && std::all_of(id.begin(), id.end(), [](char digit) {
                               return isxdigit(static_cast<unsigned char>(digit)) != 0;
                           });
        here.machine = is_id ? hex8(checksum_of(id)) : "";  // the id itself is not for strangers
    }
    return here;
}

// The readers below throw json::exception if the value is not what it should be.

static uint64_t number_in(const json& value) {
    if (value.is_string()) {
        const auto& text = value.get_ref<const std::string&>();
        if (text.empty() || text.size() > 19 ||
            !std::all_of(text.begin(), text.end(),
                         [](char one) { return one >= '0' && one <= '9'; })) {
            throw json::other_error::create(501, "no number", &value);
        }
        return std::stoull(text);
    }
    if (!value.is_number_unsigned()) {
        throw json::other_error::create(501, "no number", &value);
    }
    return value.get<uint64_t>();
}

static std::optional<uint64_t> figure_in(const json& value) {
    return value.is_null() ? std::nullopt : std::optional(number_in(value));
}

static std::string bytes_of_hex(const std::string& hex) {
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes += static_cast<char>(strtoul(hex.substr(i, 2).c_str(), nullptr, 16));
    }
    return bytes;
}

static volume_figures figures_in(const json& value) {
    volume_figures figures;
    figures.volume = value.contains("volume_hex") ? bytes_of_hex(value.at("volume_hex"))
                                                  : value.at("volume").get<std::string>();
    figures.extent_size = number_in(value.at("extent_size"));
    figures.used = figure_in(value.at("used"));
    figures.free = figure_in(value.at("free"));
    figures.leaked = figure_in(value.at("leaked"));
    figures.room = figure_in(value.at("room"));
    return figures;
}

static state_moment moment_in(const json& value) {
    state_moment moment = {number_in(value.at("completed")), {}};
    for (const json& volume : value.at("volumes")) {
        moment.volumes.push_back(figures_in(volume));
    }
    return moment;
}

static std::map<std::string, uint64_t> counts_in(const json& value) {
    std::map<std::string, uint64_t> counts;
    for (const auto& [name, count] : value.items()) {
        counts[name] = number_in(count);
    }
    return counts;
}

static state_record record_in(const json& value) {
    state_record record;
    record.tool = value.at("tool");
    record.machine = {value.at("server"), value.at("machine")};
    record.journal = value.at("journal");
    record.verdict = value.at("verdict");
    record.exit = value.at("exit");
    record.complete = value.at("complete");
    record.severities = counts_in(value.at("severities"));
    record.codes = counts_in(value.at("codes"));
    record.last = moment_in(value);
    for (const json& moment : value.at("history")) {
        record.history.push_back(moment_in(moment));
    }
    return record;
}

static constexpr std::string_view CHECKSUM_BEGIN = ",\"crc32c\":\"";
static constexpr size_t TAIL_SIZE = CHECKSUM_BEGIN.size() + 8 + 3;  // 8 digits, and "}\n

static bool is_whole(const std::string& text) {
    if (text.size() < STATE_BEGIN.size() + TAIL_SIZE) {
        return false;
    }
    const std::string_view body(text.data(), text.size() - TAIL_SIZE);
    return text.substr(body.size()) ==
           std::string(CHECKSUM_BEGIN) + hex8(checksum_of(body)) + "\"}\n";
}

static state_reading not_known(state_kind kind, const std::string& reason) {
    return {kind, reason, {}};
}

static state_reading judge(const json& value, const machine_identity& here) {
    const uint64_t format = number_in(value.at("format"));
    if (format > STATE_FORMAT) {
        return not_known(state_kind::newer, "it was written by a newer version (format " +
                                                std::to_string(format) + ")");
    }
    state_reading reading = {state_kind::known, "", record_in(value)};
    const state_record& record = reading.record;
    if (record.machine != here) {
        return not_known(state_kind::foreign,
                         record.machine.server == here.server
                             ? "it is from another machine with this server's name"
                             : "it is from another server, " + shown(record.machine.server));
    }
    if (verdict_word(record.exit).empty() || record.verdict != verdict_word(record.exit)) {
        return not_known(state_kind::damaged, "its verdict makes no sense");
    }
    return reading;
}

static bool begins_like_a_state(const std::string& text) {
    return text.size() < STATE_BEGIN.size() ? STATE_BEGIN.starts_with(text)
                                            : text.starts_with(STATE_BEGIN);
}

static std::string words_of_error(int error) {
    return error == EINVAL ? "it is no regular file" : strerror(error);
}

state_reading read_state(const std::string& path, const machine_identity& here) {
    std::string text;
    if (!read_whole_file(path, STATE_SIZE_MAX, &text)) {
        const int error = errno;
        return error == ENOENT ? not_known(state_kind::missing, "there is no such file")
                               : not_known(state_kind::unreadable,
                                           "it cannot be read: " + words_of_error(error));
    }
    if (text.size() > STATE_SIZE_MAX || !begins_like_a_state(text)) {
        return not_known(state_kind::not_a_state, "it is no state file of tarnctl");
    }
    const json value =
        is_whole(text) ? json::parse(text, nullptr, false) : json(json::value_t::discarded);
    if (value.is_discarded()) {
        return not_known(state_kind::damaged, "it was cut or changed");
    }
    try {
        return judge(value, here);
    } catch (const json::exception&) {
        return not_known(state_kind::damaged, "its fields make no sense");
    }
}
