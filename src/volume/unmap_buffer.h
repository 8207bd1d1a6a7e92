// --ckvbuf: volumes whose unmap buffer still holds entries. Below: map_file.h, discovery.h.
// Above: the commands.
#pragma once

// Prints how many there are. 0; -1, logged, if the unmap buffer of a volume cannot be read.
int count_vol_unmap_buffer();
