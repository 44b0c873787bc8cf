#include "Interruption.h"

#include <signal.h>

#include <initializer_list>

namespace Agent {

namespace {

volatile sig_atomic_t g_came = 0;

void Handle(void (*handler)(int)) {
    struct sigaction action {};
    // Without SA_RESTART: what waits for a line comes back.
    action.sa_handler = handler;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        ::sigaction(signal, &action, nullptr);
    }
}

}  // namespace

Interruption::Interruption() {
    g_came = 0;
    Handle([](int /*signal*/) { g_came = 1; });
}

Interruption::~Interruption() {
    Handle(SIG_DFL);
    g_came = 0;
}

bool Interruption::Came() { return g_came != 0; }

}  // namespace Agent
