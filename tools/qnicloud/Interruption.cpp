#include "Interruption.h"

#include <csignal>

namespace qnicloud {
namespace {

volatile std::sig_atomic_t interrupted = 0;

extern "C" void noteInterruption(int) {
    interrupted = 1;
}

}  // namespace

void Interruption::install() {
    struct sigaction action {};
    action.sa_handler = noteInterruption;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool Interruption::requested() {
    return interrupted != 0;
}

}  // namespace qnicloud
