// The command table and its dispatch. Below: every procedure that a command names.
#pragma once

// Reads the command, runs it, and returns what main returns: the command's own result; -1, logged
// in one line, if the command is one that writes and a write, a sync or a read failed during the
// run.
int run_command(int argc, char** argv);
