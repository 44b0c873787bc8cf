#include "Interruption.h"

#include <cstddef>

namespace Agent {

namespace {

volatile sig_atomic_t g_came = 0;

void Note(int /*signal*/) { g_came = 1; }

}  // namespace

Interruption::Interruption() {
    g_came = 0;
    for (std::size_t i = 0; i < SIGNALS.size(); ++i) {
        ::sigaction(SIGNALS[i], nullptr, &m_before[i]);
        if (m_before[i].sa_handler == SIG_IGN) {
            continue;
        }
        struct sigaction action {};
        // Without SA_RESTART: what waits for a line comes back.
        action.sa_handler = SIGNALS[i] == SIGPIPE ? SIG_IGN : Note;
        ::sigaction(SIGNALS[i], &action, nullptr);
    }
}

Interruption::~Interruption() {
    for (std::size_t i = 0; i < SIGNALS.size(); ++i) {
        ::sigaction(SIGNALS[i], &m_before[i], nullptr);
    }
    g_came = 0;
}

bool Interruption::Came() { return g_came != 0; }

}  // namespace Agent
