#include <cstring>
#include <nlohmann/json.hpp>
#include <sys/sysmacros.h>

#include "ctl/known/inventory.h"
#include "ctl/text/escape.h"

static constexpr kept_kind INVENTORY = {"tarn_inventory", "inventory", 1};
static constexpr unsigned INVENTORIES_KEPT = 8;

std::string device_words(uint64_t device) {
    return std::to_string(gnu_dev_major(device)) + ":" + std::to_string(gnu_dev_minor(device));
}

static std::string text_of(const uuid_bytes& uuid) {
    return hex_of_bytes({reinterpret_cast<const char*>(uuid.data()), uuid.size()});
}

// A name may hold any bytes; a file of JSON may not.
static void put_name(json_record* record, const char* field, const std::string& name) {
    if (is_utf8(name)) {
        (*record)[field] = name;
    } else {
        (*record)[std::string(field) + "_hex"] = hex_of_bytes(name);
    }
}

static json_record record_of(const known_map& map) {
    json_record record = {{"kind", map.kind},       {"uuid", text_of(map.uuid)},
                          {"entries", map.entries}, {"mapped", map.mapped},
                          {"end", map.end},         {"contents", map.contents}};
    put_name(&record, "path", map.below);
    put_name(&record, "lun", map.lun);
    return record;
}

static json_record record_of(const known_volume& volume) {
    json_record record = {{"device", volume.device},        {"table", text_of(volume.table)},
                          {"index", text_of(volume.index)}, {"extent_size", volume.extent_size},
                          {"maps", json_record::array()},   {"data_files", json_record::array()}};
    put_name(&record, "root", volume.root);
    for (const known_map& map : volume.maps) {
        record["maps"].push_back(record_of(map));
    }
    for (const known_data_file& file : volume.data_files) {
        record["data_files"].push_back({{"number", file.number}, {"size", file.size}});
    }
    return record;
}

bool write_inventory(const std::string& path, const inventory& content, std::string* problem) {
    json_record record = {{"written", content.written},
                          {"tool", content.tool},
                          {"journal",
                           {{"status", content.journal_status},
                            {"last_id", content.journal_last_id},
                            {"names", json_record::array()}}},
                          {"volumes", json_record::array()}};
    put_name(&record, "server", content.server);
    for (const uuid_bytes& uuid : content.journal_names) {
        record["journal"]["names"].push_back(text_of(uuid));
    }
    for (const known_volume& volume : content.volumes) {
        record["volumes"].push_back(record_of(volume));
    }
    return write_kept(path, INVENTORY, record, INVENTORIES_KEPT, problem);
}

namespace {

// Takes values out of a record. One that is missing or of another kind is noted, and the rest goes
// on with empty values.
class record_reader {
public:
    std::string text(const json_record& from, const char* field) {
        const json_record* value = find(from, field);
        return value != nullptr && value->is_string() ? value->get<std::string>() : wrong("");
    }
    uint64_t number(const json_record& from, const char* field) {
        const json_record* value = find(from, field);
        return value != nullptr && value->is_number_unsigned() ? value->get<uint64_t>()
                                                               : (wrong(""), 0);
    }
    uuid_bytes uuid(const std::string& digits) {
        uuid_bytes bytes = {};
        const std::string raw = bytes_of(digits);
        if (raw.size() != bytes.size()) {
            wrong("");
            return bytes;
        }
        memcpy(bytes.data(), raw.data(), bytes.size());
        return bytes;
    }
    std::string name(const json_record& from, const char* field) {
        const std::string in_hex = std::string(field) + "_hex";
        return from.is_object() && from.contains(in_hex) ? bytes_of(text(from, in_hex.c_str()))
                                                         : text(from, field);
    }
    const json_record& list(const json_record& from, const char* field) {
        static const json_record none = json_record::array();
        const json_record* value = find(from, field);
        if (value == nullptr || !value->is_array()) {
            wrong("");
            return none;
        }
        return *value;
    }
    [[nodiscard]] bool is_right() const { return right_; }

private:
    static const json_record* find(const json_record& from, const char* field) {
        return from.is_object() && from.contains(field) ? &from[field] : nullptr;
    }
    std::string wrong(const char* instead) {
        right_ = false;
        return instead;
    }
    std::string bytes_of(const std::string& digits) {
        std::string bytes;
        for (size_t i = 0; i + 1 < digits.size(); i += 2) {
            char* end = nullptr;
            const std::string pair = digits.substr(i, 2);
            bytes += static_cast<char>(strtoul(pair.c_str(), &end, 16));
            if (*end != '\0') {
                return wrong("");
            }
        }
        return digits.size() % 2 == 0 ? bytes : wrong("");
    }

    bool right_ = true;
};

}  // namespace

static known_map map_of(record_reader* reader, const json_record& record) {
    return {reader->name(record, "path"),      reader->name(record, "lun"),
            reader->text(record, "kind"),      reader->uuid(reader->text(record, "uuid")),
            reader->number(record, "entries"), reader->number(record, "mapped"),
            reader->number(record, "end"),     reader->number(record, "contents")};
}

static known_volume volume_of(record_reader* reader, const json_record& record) {
    known_volume volume = {reader->name(record, "root"),
                           reader->text(record, "device"),
                           reader->uuid(reader->text(record, "table")),
                           reader->uuid(reader->text(record, "index")),
                           reader->number(record, "extent_size"),
                           {},
                           {}};
    for (const json_record& map : reader->list(record, "maps")) {
        volume.maps.push_back(map_of(reader, map));
    }
    for (const json_record& file : reader->list(record, "data_files")) {
        volume.data_files.push_back({reader->number(file, "number"), reader->number(file, "size")});
    }
    return volume;
}

kept_end read_inventory(const std::string& path, inventory* out, std::string* problem) {
    json_record record;
    const kept_end end = read_kept(path, INVENTORY, &record, problem);
    if (end != kept_end::read) {
        return end;
    }
    record_reader reader;
    const json_record journal = record.contains("journal") ? record["journal"] : json_record();
    *out = {reader.name(record, "server"),
            reader.text(record, "written"),
            reader.text(record, "tool"),
            reader.text(journal, "status"),
            reader.number(journal, "last_id"),
            {},
            {}};
    for (const json_record& digits : reader.list(journal, "names")) {
        out->journal_names.push_back(
            reader.uuid(digits.is_string() ? digits.get<std::string>() : ""));
    }
    for (const json_record& volume : reader.list(record, "volumes")) {
        out->volumes.push_back(volume_of(&reader, volume));
    }
    if (!reader.is_right()) {
        *problem = shown(path) + " was cut or changed";
        return kept_end::damaged;
    }
    return kept_end::read;
}
