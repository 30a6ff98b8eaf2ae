#pragma once
// Orderly stop on SIGINT and SIGTERM. The handlers only record the signal;
// the reading thread polls StopSignal() between records, stops reading, and
// the run then finishes the batches in flight and closes every file before
// exiting with 128 + the signal number. A second signal ends the process at
// once (the handler is reset by the first). SIGPIPE is ignored, so a closed
// standard output (a pager quit early) costs the console and nothing else.

namespace Common {

// Installs the handlers and ignores SIGPIPE. Idempotent.
void InstallStopSignalHandlers();
// The signal that asked for a stop, 0 when none did.
int StopSignal();

}  // namespace Common
