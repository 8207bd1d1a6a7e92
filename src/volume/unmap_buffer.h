// --ckvbuf: volumes whose unmap buffer still holds entries. Below: map_file.h, discovery.h.
// Above: the commands.
#pragma once

// Tells how many there are. 0; -1, logged, when a volume has no unmap buffer that can be read.
int count_vol_unmap_buffer();
