#include "lab/damage_site.h"

#include <cstdio>

#include "lab/file_bytes.h"

namespace lab {

const volume& volume_of(const damage_site& site) {
    return site.sample->volumes[site.volume];
}

std::string index_of(const damage_site& site) {
    return volume_of(site).root + "/@EP/EP_FRI";
}

std::string table_of(const damage_site& site) {
    return volume_of(site).root + "/@EP/EP_TBL";
}

bool get_bytes(const damage_site& site, const std::string& path, uint64_t offset, void* bytes,
               size_t length) {
    return get_bytes({site.directory, path}, offset, bytes, length);
}

bool put_bytes(const damage_site& site, const std::string& path, uint64_t offset, const void* bytes,
               size_t length) {
    return put_bytes({site.directory, path}, offset, bytes, length);
}

bool put_sealed(const damage_site& site, const std::string& path, uint64_t offset,
                const void* bytes, size_t length) {
    return put_sealed({site.directory, path}, offset, bytes, length);
}

std::string refuse(const std::string& why) {
    (void)fprintf(stderr, "tarn-lab: nothing was damaged: %s\n", why.c_str());
    return "";
}

bool read_pool(const damage_site& site, pool_entries* out) {
    const uint64_t groups = volume_of(site).fri.size();
    std::vector<uint8_t> index(index_length(groups));
    std::vector<uint8_t> table(table_length(groups));
    if (!get_bytes(site, index_of(site), 0, index.data(), index.size()) ||
        !get_bytes(site, table_of(site), 0, table.data(), table.size())) {
        return false;
    }
    *out = decode_pool(index, table, groups);
    return true;
}

}  // namespace lab
