// --finalize: the free lists of a rebuilt table and index. Below: fri_link.h. Above: the commands.
#pragma once

// Relinks the table and index at opt_ctx.tblpath and fripath. 0, or -1, logged; both are closed.
int finalize();
