// The inventory of a server as it is now. Below: check/look.h. Above: the command.
#pragma once

#include <string>

#include "ctl/check/look.h"
#include "ctl/known/inventory.h"

// Fills everything but `written`. False: something could not be read, or is damaged, so that an
// inventory would forget it; `problem` names it.
bool take_inventory(server_look* look, inventory* out, std::string* problem);
