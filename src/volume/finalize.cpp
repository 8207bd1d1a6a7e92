#include "volume/finalize.h"

#include "fri/fri_file.h"
#include "fri/fri_link.h"
#include "options.h"
#include "store/log.h"
#include "tbl/tbl_file.h"

int finalize() {
    int result = -1;
    if (load_fri(opt_ctx.fripath) != 0) {
        log_err("Fail to load FRI %s\n", opt_ctx.fripath);
    } else if (load_tbl(opt_ctx.tblpath) != 0) {
        log_err("Fail to load TBL %s\n", opt_ctx.tblpath);
    } else if (tarn_link_fri_group() != 0) {
        log_err("Fail to finalize the link process\n");
    } else {
        result = 0;
    }
    close_fri();
    close_tbl();
    return result;
}
