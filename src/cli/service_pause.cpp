#include "cli/service_pause.h"

#include "platform.h"
#include "store/log.h"
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
