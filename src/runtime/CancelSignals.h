#pragma once

// SIGTERM, SIGHUP and SIGINT (a service manager stopping the run, a logout, a shutdown,
// Ctrl-C) as a request to cancel: once caught, the walk over the manifest stops at its next
// entry and the update is rolled back, as if the user had cancelled it.
//
// Installs the handlers; a signal that is ignored stays ignored. SIGINT is only taken where nothing
// else handles it already (the terminal front end asks first whether to cancel).
void CatchCancelSignals();
// The first of those signals received since the handlers were installed; 0 when none.
int ReceivedCancelSignal();
