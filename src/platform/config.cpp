#include "platform/config.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "platform/programs.h"

static constexpr const char* DEFAULT_FILE = "/etc/tarn/platform.conf";
static constexpr const char* DEFAULT_JOURNAL_ROOT = "/var/lib/tarn";
static constexpr size_t LINE_SIZE = 2 * PLATFORM_VALUE_SIZE;

static platform_config config;
static enum { UNREAD, GOOD, WRONG } state = UNREAD;

void platform_report(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    vsyslog(LOG_ERR, format, arguments);
    va_end(arguments);
}

static bool any_text(const char*) {
    return true;
}

static bool path_or_empty(const char* value) {
    return value[0] == '\0' || value[0] == '/';
}

// The first word of `text`, or its end.
static const char* first_word(const char* text) {
    return text + strspn(text, PLATFORM_BLANKS);
}

static const char* next_word(const char* word) {
    return first_word(word + strcspn(word, PLATFORM_BLANKS));
}

static bool program_line(const char* value) {
    int words = 0;
    for (const char* word = first_word(value); *word != '\0'; word = next_word(word)) {
        words++;
    }
    return value[0] == '/' && words <= PROGRAM_ARGUMENTS_MAX - 3;  // two more, and the null
}

static bool shift_in_range(const char* value) {
    char* end = nullptr;
    errno = 0;
    const long shift = strtol(value, &end, 10);
    return value[0] >= '0' && value[0] <= '9' && *end == '\0' && errno == 0 && shift >= 9 &&
           shift <= 30;
}

struct key_row {
    const char* key;
    platform_setting platform_config::*setting;
    bool (*in_range)(const char* value);
};
static constexpr key_row keys[] = {
    {"journal_root", &platform_config::journal_root, path_or_empty},
    {"volumes", &platform_config::volumes, any_text},
    {"extent_shift", &platform_config::extent_shift, shift_in_range},
    {"service_pause", &platform_config::service_pause, program_line},
    {"service_resume", &platform_config::service_resume, program_line},
};

static const key_row* find_key(const char* key) {
    for (const key_row& row : keys) {
        if (strcmp(row.key, key) == 0) {
            return &row;
        }
    }
    return nullptr;
}

static char* trimmed(char* text) {
    text += strspn(text, PLATFORM_BLANKS);
    size_t length = strlen(text);
    while (length > 0 && strchr(PLATFORM_BLANKS, text[length - 1]) != nullptr) {
        length--;
    }
    text[length] = '\0';
    return text;
}

// Parses one line into the configuration. Returns null, or what is wrong with it.
static const char* parse_line(char* line) {
    char* text = trimmed(line);
    if (text[0] == '\0' || text[0] == '#') {
        return nullptr;
    }
    char* equals = strchr(text, '=');
    if (equals == nullptr) {
        return "no '='";
    }
    *equals = '\0';
    const char* value = trimmed(equals + 1);
    const key_row* row = find_key(trimmed(text));
    if (row == nullptr) {
        return "unknown key";
    }
    platform_setting& setting = config.*row->setting;
    if (setting.given) {
        return "key given twice";
    }
    if (!row->in_range(value) || strlen(value) >= sizeof setting.value) {
        return "value out of range";
    }
    setting.given = true;
    memcpy(setting.value, value, strlen(value) + 1);
    return nullptr;
}

// Reads one line, without its end. Returns false at the end of the file. *wrong: null, or why the
// line is invalid.
static bool read_line(FILE* file, char* line, const char** wrong) {
    *wrong = nullptr;
    int c = getc(file);
    if (c == EOF) {
        return false;
    }
    size_t length = 0;
    for (; c != EOF && c != '\n'; c = getc(file)) {
        if (c == '\0' || length == LINE_SIZE - 1) {
            *wrong = c == '\0' ? "zero byte" : "line too long";
            return true;
        }
        line[length++] = static_cast<char>(c);
    }
    line[length] = '\0';
    return true;
}

static bool parse_file(FILE* file, const char* path) {
    char line[LINE_SIZE];
    const char* wrong = nullptr;
    for (int number = 1; read_line(file, line, &wrong); number++) {
        if (wrong == nullptr) {
            wrong = parse_line(line);
        }
        if (wrong != nullptr) {
            platform_report("%s line %d: %s\n", path, number, wrong);
            return false;
        }
    }
    if (ferror(file) != 0) {
        platform_report("%s line 0: cannot be read: %s\n", path, strerror(errno));
        return false;
    }
    return true;
}

// The file names programs that root runs. Returns null, or why root must not trust it.
static const char* trust_problem(FILE* file) {
    if (geteuid() != 0) {
        return nullptr;
    }
    struct stat status = {};
    if (fstat(fileno(file), &status) != 0) {
        return "its owner cannot be read";
    }
    if (status.st_uid != 0) {
        return "another user owns it";
    }
    const bool group_writes = (status.st_mode & S_IWGRP) != 0 && status.st_gid != 0;
    return group_writes || (status.st_mode & S_IWOTH) != 0 ? "others may write it" : nullptr;
}

// Reads all of an open file. Returns false, reported, if it cannot be used.
static bool parse_trusted_file(FILE* file, const char* path) {
    const char* reason = trust_problem(file);
    if (reason != nullptr) {
        platform_report("%s line 0: refused: %s\n", path, reason);
        return false;
    }
    return parse_file(file, path);
}

static bool read_config() {
    config = {};
    const char* named = secure_getenv("TARN_PLATFORM_CONF");
    const char* path = named != nullptr ? named : DEFAULT_FILE;
    FILE* file = fopen(path, "re");
    if (file == nullptr && (named != nullptr || errno != ENOENT)) {
        platform_report("%s line 0: cannot be read: %s\n", path, strerror(errno));
        return false;
    }
    if (file != nullptr) {
        const bool good = parse_trusted_file(file, path);
        (void)fclose(file);
        if (!good) {
            return false;
        }
    }
    if (!config.journal_root.given) {
        snprintf(config.journal_root.value, sizeof config.journal_root.value, "%s",
                 DEFAULT_JOURNAL_ROOT);
    }
    return true;
}

const platform_config* platform_config_get() {
    if (state == UNREAD) {
        state = read_config() ? GOOD : WRONG;
    }
    return state == GOOD ? &config : nullptr;
}

void platform_config_forget() {
    state = UNREAD;
}
