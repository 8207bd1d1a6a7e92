// The commands that check and set the journal's status word. Below: volume procedures.
#pragma once

int vaai_status_check(int argc, char** argv, const char* mode);  // --vaaick
int vaai_status_set(int argc, char** argv, const char* word);    // --set-status: always -1
