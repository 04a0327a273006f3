// SIGINT, SIGTERM and SIGHUP as a descriptor that every wait of the program polls.
#pragma once

namespace kestrune {

// From now on the first signal makes interrupt_fd readable for good; a second one ends the process with
// status 130 at once. Call before any thread starts. Throws client_error_t (LOCAL).
void catch_interrupts();
// Readable once the program was asked to stop; -1 before catch_interrupts.
int interrupt_fd();
bool interrupted();
// Asks the program to stop, as a signal does.
void raise_interrupt();

} // namespace kestrune
