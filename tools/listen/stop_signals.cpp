#include "listen/stop_signals.h"

#include <unistd.h>
#include <csignal>

namespace tessel::listen {

namespace {

constexpr unsigned alarm_seconds = 1;

volatile std::sig_atomic_t signals_received = 0;

void on_stop_signal(int) {
    if (signals_received < 2) {
        signals_received = signals_received + 1;
    }
    if (signals_received > 1) {
        alarm(alarm_seconds);
    }
}

void on_alarm(int) {
    alarm(alarm_seconds);
}

void handle(int number, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigaction(number, &action, nullptr);
}

}  // namespace

void catch_stop_signals() {
    handle(SIGINT, on_stop_signal);
    handle(SIGTERM, on_stop_signal);
    handle(SIGHUP, on_stop_signal);
    handle(SIGALRM, on_alarm);
}

void ignore_write_signals() {
    handle(SIGPIPE, SIG_IGN);
    handle(SIGXFSZ, SIG_IGN);
    handle(SIGIO, SIG_IGN);
}

int stop_signals() {
    return signals_received;
}

}  // namespace tessel::listen
