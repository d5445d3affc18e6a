// Progress of long array work (a mirror's synchronisation, a restore) while
// merlsnap polls the module's task status: a bar with the share of sources
// done and the elapsed time on a terminal, one line per change otherwise,
// and progress records in JSON. Ctrl-C during the wait is caught and
// reported to the caller. Single-threaded.
#pragma once

#include <string>

#include "tools/merlsnap/merlsnap.h"

enum WaitResult {
    WAIT_DONE,         // the task ended on the array
    WAIT_FAILED,       // the module or the array reported a failure
    WAIT_INTERRUPTED,  // Ctrl-C; the array goes on with its work
};

// Polls the current task of `s` until it is no longer in progress. `sources`
// is how many sources the task works on. With `finish_on_interrupt` a first
// Ctrl-C is noted (interrupted() says so) and the wait goes on; a second one
// ends the program after `last_words`. Without it, Ctrl-C ends the wait.
WaitResult wait_for_task(Context& c, ISnapshot* s, const char* what, size_t sources,
                         bool finish_on_interrupt, const std::string& last_words);

// True once Ctrl-C was pressed during a wait of this process.
bool interrupted();
