#pragma once

// SIGTERM, SIGINT and SIGHUP (the session ending, Ctrl+C where Tolvane was started from a terminal)
// end Tolvane the way its Quit does, through the event loop, instead of at once: a dictation under
// way is abandoned with its sound stream closed, the clipboard a paste borrowed is given back and
// the history's queued writes reach the disk. A second such signal ends the process at once.
namespace TerminationSignals {

// Call once, after the application object exists.
void install();

}  // namespace TerminationSignals
