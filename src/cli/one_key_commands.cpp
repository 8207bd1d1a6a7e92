#include "cli/one_key_commands.h"

#include <cstdio>

#include "cli/command_locks.h"
#include "cli/operations.h"
#include "options.h"
#include "platform.h"
#include "store/log.h"
#include "volume/run_lock.h"
#include "volume/stop_signals.h"

static constexpr const char* ISCSI_SERVICE = "iscsitrg";

int run_with_iscsi_paused(int argc, char** argv, int argument,
                          int (*procedure)(int argc, char** argv, int argument),
                          const char* reason) {
    stop_signals_block();  // a service that was paused is always resumed
    if (OLIBServicePauseByReason(ISCSI_SERVICE, reason) < 0) {
        log_service(" failed to pause iscsi service");
        return -1;
    }
    const int result = procedure(argc, argv, argument);
    if (OLIBServiceResumeByReason(ISCSI_SERVICE, reason) < 0) {
        log_service(" failed to start iscsi service");
        return -1;
    }
    return result;
}

// Held while the service is paused.
static run_lock one_key_locks;

// Releases the locks before the service is resumed, even if a stop signal came while it was paused:
// the programs that its start runs need them.
static int check_and_release(int argc, char** argv, int argument) {
    const int result = stop_requested() ? -1 : one_key_check_all_vol(argc, argv, argument);
    run_lock_release(&one_key_locks);
    return result;
}

static int repair_and_release(int argc, char** argv, int argument) {
    const int result = stop_requested() ? -1 : one_key_repair(argc, argv, argument);
    run_lock_release(&one_key_locks);
    return result;
}

// The locks are taken before the service is paused: a run that is refused touches nothing.
static int run_one_key(int argc, char** argv, unsigned locks,
                       int (*procedure)(int argc, char** argv, int argument), const char* reason) {
    const int result = take_command_locks(&one_key_locks, locks) == 0
                           ? run_with_iscsi_paused(argc, argv, 0, procedure, reason)
                           : -1;
    run_lock_release(&one_key_locks);
    return result;
}

int run_onekeycheck(int argc, char** argv, const char*) {
    const int result = run_one_key(argc, argv, LOCKS_ALL_VOLUMES | LOCKS_JOURNAL, check_and_release,
                                   "iSCSI service running checking maintainance procedures");
    if (result < 0) {
        return -1;
    }
    puts("TARN_INFO: One Key check has successfully completed");
    return 0;
}

int run_onekeyrepair(int argc, char** argv, const char*) {
    if (opt_ctx.volpath[0] == '\0') {
        printf("TARN_INFO: Please assign volpath by --volpath");  // no line end, deliberate
        return -1;
    }
    const int result = run_one_key(argc, argv, LOCKS_VOLUME | LOCKS_JOURNAL, repair_and_release,
                                   "iSCSI service running repairing maintainance procedures");
    puts(result < 0 ? "TARN_INFO: Reconstruction procedure has failed"
                    : "TARN_INFO: One Key Repair has successfully completed");
    return result;
}
