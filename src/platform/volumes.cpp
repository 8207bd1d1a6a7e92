#include "platform/volumes.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/config.h"

static constexpr const char* MOUNT_TABLE = "/proc/self/mountinfo";
static constexpr int MOUNT_LINE_SIZE = 3 * 4096;

int volume_number(const char* component, size_t length) {
    static constexpr char word[] = "volume";
    constexpr size_t word_length = sizeof word - 1;
    if (length <= word_length || strncmp(component, word, word_length) != 0 ||
        component[word_length] == '0') {
        return -1;
    }
    int64_t number = 0;
    for (size_t i = word_length; i < length; i++) {
        if (component[i] < '0' || component[i] > '9') {
            return -1;
        }
        number = number * 10 + (component[i] - '0');
        if (number > INT32_MAX) {
            return -1;
        }
    }
    return static_cast<int>(number);
}

int ORBAVolIDParse(const char* path) {
    if (path == nullptr) {
        return -1;
    }
    while (*path != '\0') {
        const size_t length = strcspn(path, "/");
        const int number = volume_number(path, length);
        if (number > 0) {
            return number;
        }
        path += length;
        path += strspn(path, "/");
    }
    return -1;
}

static bool is_octal(char c) {
    return c >= '0' && c <= '7';
}

void decode_mount_path(char* path) {
    char* to = path;
    for (const char* from = path; *from != '\0'; to++) {
        if (from[0] == '\\' && is_octal(from[1]) && is_octal(from[2]) && is_octal(from[3])) {
            *to = static_cast<char>((from[1] - '0') * 64 + (from[2] - '0') * 8 + (from[3] - '0'));
            from += 4;
        } else {
            *to = *from++;
        }
    }
    *to = '\0';
}

// One listed volume; the path follows the record.
struct space_node {
    ORBASpaceInfo info;
    int number;
    char path[1];
};

// Inserts a copy of `path` at *tail. Returns the new tail, or null without memory.
static ORBASpaceInfo** append(ORBASpaceInfo** tail, const char* path, int number) {
    const size_t length = strlen(path);
    auto* node = static_cast<space_node*>(calloc(1, sizeof(space_node) + length));
    if (node == nullptr) {
        return nullptr;
    }
    memcpy(node->path, path, length + 1);
    node->number = number;
    node->info.mount_path = node->path;
    node->info.next = *tail;
    *tail = &node->info;
    return &node->info.next;
}

static int list_configured(const char* volumes, ORBASpaceInfo** list) {
    char words[PLATFORM_VALUE_SIZE];
    snprintf(words, sizeof words, "%s", volumes);
    ORBASpaceInfo** tail = list;
    char* rest = nullptr;
    for (char* word = strtok_r(words, PLATFORM_BLANKS, &rest); word != nullptr && tail != nullptr;
         word = strtok_r(nullptr, PLATFORM_BLANKS, &rest)) {
        tail = append(tail, word, 0);
    }
    return tail != nullptr ? 0 : -1;
}

// The fifth field of a line of the mount table, decoded, in place. Null when the line has none, or
// ends with it: then it may have been cut.
static char* mount_point(char* line) {
    char* rest = nullptr;
    char* field = strtok_r(line, " ", &rest);
    for (int i = 0; i < 4 && field != nullptr; i++) {
        field = strtok_r(nullptr, " ", &rest);
    }
    if (field == nullptr || *rest == '\0') {
        return nullptr;
    }
    decode_mount_path(field);
    return field;
}

// Reads a line, or as much of it as there is room for; the rest of it is skipped.
static bool read_mount_line(FILE* mounts, char* line) {
    if (fgets(line, MOUNT_LINE_SIZE, mounts) == nullptr) {
        return false;
    }
    if (strchr(line, '\n') == nullptr) {
        int c = 0;
        do {
            c = getc(mounts);
        } while (c != EOF && c != '\n');
    }
    return true;
}

// Inserts a volume in order of its number; one that is mounted over another is listed once.
static bool insert_by_number(ORBASpaceInfo** list, const char* path, int number) {
    ORBASpaceInfo** at = list;
    for (; *at != nullptr; at = &(*at)->next) {
        const auto* node = reinterpret_cast<const space_node*>(*at);
        if (strcmp(node->path, path) == 0) {
            return true;
        }
        if (node->number > number) {
            break;
        }
    }
    return append(at, path, number) != nullptr;
}

int list_mounted_volumes(const char* mount_table, ORBASpaceInfo** list) {
    FILE* mounts = fopen(mount_table, "re");
    if (mounts == nullptr) {
        return -1;
    }
    char line[MOUNT_LINE_SIZE];
    bool good = true;
    while (good && read_mount_line(mounts, line)) {
        const char* path = mount_point(line);
        const char* slash = path != nullptr ? strrchr(path, '/') : nullptr;
        const int number = slash != nullptr ? volume_number(slash + 1, strlen(slash + 1)) : -1;
        good = number < 0 || insert_by_number(list, path, number);
    }
    good = good && ferror(mounts) == 0;
    (void)fclose(mounts);
    return good ? 0 : -1;
}

int ORBASpaceInfoEnum(int kind, struct ORBASpaceInfo** list) {
    const platform_config* config = platform_config_get();
    if (list == nullptr) {
        return -1;
    }
    *list = nullptr;
    if (config == nullptr || kind != 1) {
        return -1;
    }
    const bool named = config->volumes.given;
    const int result = named ? list_configured(config->volumes.value, list)
                             : list_mounted_volumes(MOUNT_TABLE, list);
    if (result < 0) {
        ORBASpaceInfoFree(*list);
        *list = nullptr;
        return result;
    }
    return named ? ORBA_SPACES_NAMED : 0;
}

void ORBASpaceInfoFree(struct ORBASpaceInfo* list) {
    while (list != nullptr) {
        ORBASpaceInfo* next = list->next;
        free(reinterpret_cast<space_node*>(list));
        list = next;
    }
}
