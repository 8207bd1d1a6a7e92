// The calls out to the storage server's own system libraries. C linkage: a server links its own
// library in place of the default one in src/platform/. docs/platform.md says how the default one
// is configured.
#pragma once

#include <cstdint>
#include <cstdio>

extern "C" {

// Starts `program` (a path) without a shell. The arguments follow, ended by a null pointer; the
// program's own name is put in front of them. mode is "r". Every descriptor but the three standard
// ones is closed in the program. Returns a stream of its standard output, or null. The stream may
// also be closed with pclose(): the program is then reaped when another one is started.
FILE* OLIBCPopen(const char* program, const char* mode, ...) __attribute__((sentinel));

// Closes a stream of OLIBCPopen and waits for its program. Returns the wait status, -1 on failure.
int OLIBCPclose(FILE* stream);

// Runs `program` with the arguments that follow, ended by a null pointer, and waits for its end.
// Returns its exit status; -1 when it could not be run or did not exit.
int OLIBCExec(const char* program, ...) __attribute__((sentinel));

// Remembers an error code for the caller of this process's procedures; returns the one remembered.
void OLIBCErrSet(int code);
int OLIBCErrGet(void);

// Pauses and resumes a service, giving a reason. 0, or -1. Resume starts only what pause stopped.
int OLIBServicePauseByReason(const char* service, const char* reason);
int OLIBServiceResumeByReason(const char* service, const char* reason);

// One mounted storage space. The caller frees a list with ORBASpaceInfoFree.
struct ORBASpaceInfo {
    const char* mount_path;
    struct ORBASpaceInfo* next;
};

// Lists the storage volumes (kind 1), in enumeration order; *list is null for none. Negative on
// failure. ORBA_SPACES_NAMED: a configuration names the volumes, so each of them must be there, and
// an empty list is intended. Any other result: they were found among what is mounted now, so a
// volume that is not mounted is missing from the list.
enum { ORBA_SPACES_NAMED = 0x4E414D45 };
int ORBASpaceInfoEnum(int kind, struct ORBASpaceInfo** list);
void ORBASpaceInfoFree(struct ORBASpaceInfo* list);  // null is allowed

// How a volume is mounted. The last field is what this tool reads.
struct ORBAMountVolInfo {
    char mount_path[4096];
    uint32_t writable;  // 0: read-only
};

// 0 or more on success, negative on failure.
int ORBAMountVolInfoGet(const char* volume_path, struct ORBAMountVolInfo* info);

// The number of the volume that holds `path`: the N of its first component that is exactly
// "volume<N>", 1 to 2^31 - 1; -1 if it has none.
int ORBAVolIDParse(const char* path);

// The directory of the journal, as text. flags is 0. Negative on failure or when it does not fit.
int ORBAiSCSIConfJournalRootPathGet(char* buffer, uint32_t size, int flags);

// Extent size in bytes and its shift (size = 2^shift) of the volume at `root`; negative on failure,
// and if the configuration and the volume's table disagree.
int ORBAiSCSIVAAIExtentSizeAndShiftGet(const char* root, uint32_t* size, uint32_t* shift);

// fallocate(2): 0 or more on success, negative on failure.
int ORBAFSFallocate(int fd, int mode, int64_t offset, int64_t length);

}  // extern "C"
