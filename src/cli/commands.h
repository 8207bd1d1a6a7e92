// The command table and its dispatch. Below: every procedure that a command names.
#pragma once

// Reads the command, runs it, and returns what main returns.
int run_command(int argc, char** argv);
