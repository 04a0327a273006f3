// SIGINT, SIGTERM and SIGHUP as a descriptor that every wait of the program polls.
#pragma once

namespace kestrune {

// From now on the first signal makes interrupt_fd readable for good; a second one ends the process with
// status 130 at once. Call it before any thread starts. Throws client_error_t (LOCAL).
void catch_interrupts();
// Readable once the program should stop; -1 before catch_interrupts.
int interrupt_fd();
bool interrupted();
// Stops the program as a signal does.
void raise_interrupt();

} // namespace kestrune
