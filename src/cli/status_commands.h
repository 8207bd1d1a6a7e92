// The commands on the journal's status word as a whole. Below: volume procedures.
#pragma once

int vaai_status_check(int argc, char** argv, const char* mode);  // --vaaick
int vaai_status_set(int argc, char** argv, const char* word);    // --set-status: always -1
int vaai_startup_replay(int argc, char** argv);                  // --startup-replay
