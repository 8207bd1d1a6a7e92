// Where the journal lies.
#include <cstdio>
#include <cstring>

#include "platform.h"
#include "platform/config.h"

int ORBAiSCSIConfJournalRootPathGet(char* buffer, uint32_t size, int /*flags*/) {
    const platform_config* config = platform_config_get();
    if (config == nullptr || buffer == nullptr) {
        return -1;
    }
    const char* root = config->journal_root.value;
    const size_t length = strlen(root);
    if (length == 0 || length >= size) {
        return -1;
    }
    memcpy(buffer, root, length + 1);
    return 0;
}
