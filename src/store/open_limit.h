// How many files this process may hold open. Below: the system. Above: the procedures that hold
// many: hole punching, and the replay of a volume with many maps.
#pragma once

// Raises the limit of open files as far as this process may, without a word: where it cannot be
// raised fewer files can be opened, and the open that fails is logged.
void raise_open_file_limit();
