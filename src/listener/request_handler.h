// A connection's thread: receives requests, carries them out and replies.
#pragma once

// Body of the thread, and its clean-up: end the connection and free the slot. The argument is the slot.
void *ls_client_handler(void *slot);
void ls_client_handler_cleanup(void *slot);
