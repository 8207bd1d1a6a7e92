// Stop signals during a run that must not end halfway: SIGINT, SIGTERM and SIGHUP stay pending, and
// the procedures poll for them where they can stop. There is no handler.
// Below: the log. Above: the procedures that walk maps, the pausing of the service.
#pragma once

// Blocks the three until the process ends, except those that are already ignored or blocked: these
// would not stop the process anyway.
void stop_signals_block();

// Whether one of them has arrived since; logged the first time. Always false in a run that did not
// block them. Called between two maps and before files are swapped: if true, the run ends as after
// a failure.
bool stop_requested();

void stop_signals_forget();  // tests only: unblocks them, and drops those that are pending
