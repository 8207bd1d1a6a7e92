// --search: one printed form of one metadata file. Each handler reads its own short options from
// where the command scan stopped. Below: the dumps of the four kinds. Above: the type words.
#pragma once

// 0 after a display, whatever it found, and when no display was asked for; -1, logged, for a
// combination of displays, an option without its argument, and a file that is not given or does
// not load.
int search_fri(int argc, char** argv, int argument);
int search_tbl(int argc, char** argv, int argument);
int search_map(int argc, char** argv, int argument);
int search_jnl(int argc, char** argv, int argument);  // without -p: the configured journal
