// Running a procedure while the iSCSI target service stands still. Below: the platform.
#pragma once

// Pauses the service, runs `procedure`, resumes the service. Returns the procedure's result; -1,
// logged, when the service cannot be paused (the procedure does not run then) or resumed.
int run_with_iscsi_paused(int argc, char** argv, int argument,
                          int (*procedure)(int argc, char** argv, int argument),
                          const char* reason);
