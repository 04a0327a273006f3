#include "listener/receive.h"

#include "common/log.h"
#include "common/thread.h"
#include "protocol/message.h"

#include <cerrno>
#include <sys/socket.h>

bool ls_receive(const ls_client_t *slot, uint8_t *bytes, uint32_t size)
{
    uint32_t received = 0;
    while (received < size) {
        thread_cancel_enable();
        const ssize_t got = recv(slot->fd, bytes + received, size - received, MSG_WAITALL);
        thread_cancel_disable();
        if (got > 0) {
            received += static_cast<uint32_t>(got);
        } else if (got == 0 || errno != EINTR) {
            KS_INFO(LOG_EVENT,
                    "kestrune: Listener: Connection closed: disconnected or recv failed due to an error");
            return false;
        }
    }
    return true;
}

bool ls_must_wait(const ls_client_t *slot)
{
    uint8_t byte;
    return recv(slot->fd, &byte, sizeof byte, MSG_PEEK | MSG_DONTWAIT) < 0;
}

bool ls_receive_value(const ls_client_t *slot, uint32_t *value)
{
    uint8_t bytes[MSG_VALUE_SIZE];
    if (!ls_receive(slot, bytes, sizeof bytes)) {
        return false;
    }
    msg_reader_t in = msg_reader(bytes, sizeof bytes);
    return msg_get_u32(&in, value);
}
