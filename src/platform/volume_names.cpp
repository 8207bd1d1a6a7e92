#include "platform/volume_names.h"

#include <cstdint>
#include <cstring>

#include "platform.h"

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
