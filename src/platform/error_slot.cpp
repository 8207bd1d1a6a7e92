// The error code that the procedures leave for their caller.
#include "platform.h"

static int remembered = 0;

void OLIBCErrSet(int code) {
    remembered = code;
}

int OLIBCErrGet(void) {
    return remembered;
}
