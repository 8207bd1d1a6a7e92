// --onekeycheck and --onekeyrepair: the iSCSI target service is paused, and a second run refused,
// while one of them works. Below: operations.h, command_locks.h, the platform, stop_signals.h.
// Above: the command table.
#pragma once

// Each prints how it ended. 0, or negative.
int run_onekeycheck(int argc, char** argv, const char* argument);
int run_onekeyrepair(int argc, char** argv, const char* argument);

// Pauses the service, runs `procedure`, resumes the service. Returns the procedure's result; -1,
// logged, when the service cannot be paused (the procedure does not run then) or resumed, or when a
// stop signal came before the procedure began. Stop signals stay blocked until the process ends.
int run_with_iscsi_paused(int argc, char** argv, int argument,
                          int (*procedure)(int argc, char** argv, int argument),
                          const char* reason);
