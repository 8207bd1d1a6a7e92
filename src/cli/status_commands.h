// The commands that ask for the journal's status word and set it. Below: volume procedures.
#pragma once

int vaai_status_check(int argc, char** argv, const char* mode);  // --vaaick
int vaai_status_set(int argc, char** argv, const char* word);    // --set-status: always -1
