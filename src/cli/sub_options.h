// The scan of the options after a command, into the option record. Below: the record. Above: the
// commands, operations.h.
#pragma once

// Reads the options into opt_ctx, from where the previous scan stopped; a scan after the last one
// finds nothing. Unknown options are skipped (the scanner prints its own line). Returns 0; -1 for
// an invalid uuid or leftover arguments; both are reported on standard output.
int parse_sub_options(int argc, char** argv);
