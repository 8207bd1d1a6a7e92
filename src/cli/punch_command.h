// --punch: its short options and its question. Below: hole_punching.h.
#pragma once

// Punches what the options -a, -p, -o and -l name, once standard input has answered "YES". 0, even
// for another answer; -1 on a failure, logged. Table and index are closed.
int punch_hole(int argc, char** argv);
