#include "ctl/check/check.h"

bool check_server(const check_request&, check_report*, std::string* problem) {
    *problem = "this program is being built";
    return false;
}
