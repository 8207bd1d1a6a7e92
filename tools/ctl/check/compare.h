// The server beside an inventory of it: what is missing, exchanged, shorter or new. Below: state.h,
// map_contents.h, known/inventory.h. Above: the order of a check.
#pragma once

#include <optional>

#include "ctl/check/journal.h"
#include "ctl/check/state.h"

// Whether the service has not run since the inventory was written.
bool is_same_moment(const server_files& server, const inventory& known,
                    const std::optional<journal_moment>& journal);

// Adds S04, S05, S06, S08 and S09. The references have been judged: a map that was deleted lawfully
// leaves none behind. False: the inventory is of another server; `problem` says so.
bool compare_inventory(check_state* state, const inventory& known,
                       const std::optional<journal_moment>& journal, std::string* problem);
