// Running a procedure while the iSCSI target service is paused. Below: the platform,
// stop_signals.h.
#pragma once

// Pauses the service, runs `procedure`, resumes the service. Returns the procedure's result; -1,
// logged, when the service cannot be paused (the procedure does not run then) or resumed, or when a
// stop signal came before the procedure began. Stop signals stay blocked up to the end of the
// process.
int run_with_iscsi_paused(int argc, char** argv, int argument,
                          int (*procedure)(int argc, char** argv, int argument),
                          const char* reason);
