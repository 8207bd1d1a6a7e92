// Commands that parse and are not in this version: each says so in one log line and fails.
// Below: the log.
#pragma once

// Says that the command `name` is not in this version: -1.
int later_command(const char* name);
