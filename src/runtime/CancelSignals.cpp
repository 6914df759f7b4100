#include "runtime/CancelSignals.h"

#include <csignal>
#include <initializer_list>

namespace {

volatile std::sig_atomic_t gReceived = 0;

void OnCancelSignal(int signal) {
    if (gReceived == 0)
        gReceived = signal;
}

} // namespace

void CatchCancelSignals() {
    struct sigaction action {};
    action.sa_handler = OnCancelSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (const int signal : {SIGTERM, SIGHUP, SIGINT}) {
        struct sigaction current {};
        if (::sigaction(signal, nullptr, &current) != 0)
            continue;
        // An ignored signal stays ignored (nohup asks for that for SIGHUP).
        if (current.sa_handler == SIG_IGN || (signal == SIGINT && current.sa_handler != SIG_DFL))
            continue;
        (void)::sigaction(signal, &action, nullptr);
    }
}

int ReceivedCancelSignal() {
    return gReceived;
}
