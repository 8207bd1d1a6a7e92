// Stop signals during a run that must not end halfway: SIGINT, SIGTERM and SIGHUP stay pending, and
// the procedures ask for them where they can stop. There is no handler.
// Below: the log. Above: the procedures that walk maps, the pausing of the service.
#pragma once

// Blocks the three up to the end of the process, but for those that the caller ignored or blocked
// already: they would not have stopped this process.
void stop_signals_block();

// Whether one of them has come since; logged the first time. Always false in a run that did not
// block them. Asked between two maps and before files are swapped: the run then ends as after a
// failure.
bool stop_requested();

void stop_signals_forget();  // tests only: unblocks them, and drops those that are pending
