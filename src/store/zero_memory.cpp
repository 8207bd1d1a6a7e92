#include "store/zero_memory.h"

#include <sys/mman.h>

void* zero_memory(size_t size) {
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        return nullptr;
    }
    (void)madvise(memory, size, MADV_HUGEPAGE);  // small pages do as well, only slower
    return memory;
}

void zero_memory_free(void* memory, size_t size) {
    if (memory != nullptr) {
        (void)munmap(memory, size);
    }
}
