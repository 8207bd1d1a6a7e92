#include "ctl/records.h"

#include <nlohmann/json.hpp>
#include <unistd.h>

constexpr int SCHEMA_NUMBER = 1;

std::string host_name() {
    char name[256] = {};
    return gethostname(name, sizeof name - 1) == 0 ? name : "";
}

json_record start_record(const char* command) {
    return {{"record", "start"},
            {"schema", SCHEMA_NUMBER},
            {"tool", "tarnctl " TARN_VERSION},
            {"command", command},
            {"server", host_name()}};
}

bool put_record(FILE* out, const json_record& record) {
    const std::string line = json_line(record);
    return fwrite(line.data(), 1, line.size(), out) == line.size();
}

void add_file(json_record* record, const std::string& file) {
    (*record)["file"] = file;
    if (!is_utf8(file)) {
        (*record)["file_hex"] = hex_of_bytes(file);
    }
}
