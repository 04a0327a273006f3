#include "listener/listener_state.h"

#include "common/log.h"
#include "common/thread.h"
#include "listener/request_handler.h"
#include "listener/slot.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

void close_keeping_errno(int fd)
{
    const int error = errno;
    close(fd);
    errno = error;
}

// A number above the port range, which getaddrinfo would take modulo 65536.
bool is_beyond_ports(const char *port)
{
    char *end = nullptr;
    return std::strtoul(port, &end, 10) > UINT16_MAX && *end == '\0';
}

addrinfo *resolve(const char *port)
{
    addrinfo hints = {};
    hints.ai_flags = AI_PASSIVE;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *addresses = nullptr;
    const int error = is_beyond_ports(port) ? EAI_SERVICE : getaddrinfo(nullptr, port, &hints, &addresses);
    if (error == 0) {
        return addresses;
    }
    if (error != EAI_SYSTEM) { // the caller reports errno
        errno = error == EAI_MEMORY ? ENOMEM : EINVAL;
    }
    KS_ERROR("kestrune: Listener: Failed to process address information: %s", gai_strerror(error));
    return nullptr;
}

// A socket that listens on the first of the addresses, or -1 after logging why.
int listening_socket(const addrinfo *address)
{
    const int fd =
        socket(address->ai_family, address->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, address->ai_protocol);
    if (fd == -1) {
        KS_ERROR("kestrune: Unable to create socket: %s", strerror(errno));
        return -1;
    }
    const int on = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
        KS_ERROR("kestrune: setsockopt(SO_REUSEADDR) failed");
    } else if (bind(fd, address->ai_addr, address->ai_addrlen) != 0) {
        KS_ERROR("kestrune: Socket bind failed: %s", strerror(errno));
    } else if (listen(fd, LS_LISTEN_BACKLOG) != 0) { // two sockets can bind to a port, one can listen
        KS_ERROR("kestrune: Listener: Unable to listen on socket: %s", strerror(errno));
    } else {
        return fd;
    }
    close_keeping_errno(fd);
    return -1;
}

int open_port(const char *port)
{
    addrinfo *addresses = resolve(port);
    if (addresses == nullptr) {
        return -1;
    }
    const int fd = listening_socket(addresses);
    const int error = errno;
    freeaddrinfo(addresses);
    errno = error;
    return fd;
}

// Start the rules manager, the starter and the listener thread. False after logging why.
bool start_threads(listener_t *listener)
{
    if (rm_init(&listener->rm, listener->live, listener->history, listener->queue_count) != RM_OK) {
        KS_ERROR("kestrune: Listener: Rules manager could not be created");
        return false;
    }
    int error = ls_starter_init(&listener->starter);
    if (error == 0) {
        error = thread_start(&listener->thread, ls_accept, listener);
        if (error == 0) {
            return true;
        }
        ls_starter_destroy(&listener->starter);
    }
    KS_ERROR("kestrune: Listener: Listener thread could not be created");
    rm_destroy(&listener->rm);
    errno = error;
    return false;
}

void fill_slots(listener_t *listener, ls_client_t *slots)
{
    for (uint32_t i = 0; i < LS_MAX_CLIENTS; i++) {
        slots[i].used.store(0);
        slots[i].rm = &listener->rm;
        slots[i].queue_count = listener->queue_count;
        slots[i].history = listener->history;
        slots[i].joinable = false;
        slots[i].reply = nullptr;
        slots[i].permits = &listener->permits;
        slots[i].starter = &listener->starter;
    }
}

void join_handler(ls_client_t *slot)
{
    if (slot->joinable) {
        pthread_join(slot->thread, nullptr);
        slot->joinable = false;
    }
}

// Lowest free slot with no thread of an earlier client, or LS_MAX_CLIENTS.
uint32_t free_slot(ls_client_t *slots)
{
    uint32_t i = 0;
    while (i < LS_MAX_CLIENTS && slots[i].used.load(std::memory_order_acquire) != 0) {
        i++;
    }
    if (i < LS_MAX_CLIENTS) {
        join_handler(&slots[i]);
    }
    return i;
}

// Serve the connection in a slot, or close it after logging why.
void place_client(ls_client_t *slots, int fd)
{
    const uint32_t index = free_slot(slots);
    if (index == LS_MAX_CLIENTS) {
        KS_ERROR("kestrune: Listener: Unable to accept a connection: all slots are taken");
        close(fd);
        return;
    }
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on); // messages are short and must not be delayed
    setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on,
               sizeof on); // frees the slot of a vanished client in the end
    KS_INFO(LOG_EVENT, "kestrune: client connected, slot #%u", index);
    ls_client_t *slot = &slots[index];
    slot->fd = fd;
    rm_channel_open(&slot->channel, fd);
    ls_permit_open(&slot->permit);
    slot->served = false;
    slot->used.store(1);
    if (thread_start(&slot->thread, ls_client_handler, slot) != 0) {
        KS_ERROR("kestrune: Listener: Unable to accept a connection: client handler spawn failed: %s",
                 strerror(errno));
        close(fd);
        slot->used.store(0);
        return;
    }
    slot->joinable = true;
}

bool is_shortage(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

// A connection, or -1 with errno: EAGAIN when none was waiting after all. Cancellation takes effect in the
// poll before accept4, never in accept4 itself, which could lose a connection's descriptor.
int accept_client(int sock)
{
    return thread_poll(sock, POLLIN, -1) == -1 ? -1 : accept4(sock, nullptr, nullptr, SOCK_CLOEXEC);
}

// Returns only when the socket cannot listen.
void accept_clients(listener_t *listener, ls_client_t *slots)
{
    if (listen(listener->sock, LS_LISTEN_BACKLOG) != 0) {
        KS_ERROR("kestrune: Listener: Unable to listen on socket: %s", strerror(errno));
        return;
    }
    for (int failures = 0;;) { // in a row
        const int fd = accept_client(listener->sock);
        if (fd != -1) {
            failures = 0;
            place_client(slots, fd);
            continue;
        }
        const int error = errno;
        if (error != EAGAIN && error != EWOULDBLOCK && error != EINTR) {
            KS_ERROR("kestrune: Listener: Unable to accept a connection: %s", strerror(error));
        }
        if (++failures > 1 || is_shortage(error)) { // a single failure may concern that connection only
            thread_pause(LS_SHORTAGE_PAUSE_MS);
        }
    }
}

} // namespace

listener_t *ls_init(live_capture_t *live, const char *port, int32_t queue_count, history_capture_t **history)
{
    auto *listener = static_cast<listener_t *>(std::calloc(1, sizeof(listener_t)));
    if (listener == nullptr) {
        KS_ERROR("kestrune: Listener: Could not create listener structure");
        return nullptr;
    }
    listener->live = live;
    listener->queue_count = queue_count;
    listener->history = history;
    ls_permits_init(&listener->permits);
    listener->sock = open_port(port);
    if (listener->sock != -1 && start_threads(listener)) {
        return listener;
    }
    const int error = errno;
    if (listener->sock != -1) {
        close(listener->sock);
    }
    std::free(listener);
    errno = error;
    return nullptr;
}

void ls_destroy(listener_t *listener)
{
    if (listener == nullptr) {
        return;
    }
    thread_stop(listener->thread);
    ls_starter_destroy(&listener->starter); // no handler runs any more
    rm_destroy(&listener->rm);
    close(listener->sock);
    std::free(listener);
}

void *ls_accept(void *argument)
{
    auto *listener = static_cast<listener_t *>(argument);
    thread_begin("ks-listener");
    thread_lower_priority(); // and with it the handlers that it starts
    ls_client_t slots[LS_MAX_CLIENTS];
    fill_slots(listener, slots);
    pthread_cleanup_push(ls_cancel_client_handlers, slots);
    accept_clients(listener, slots);
    pthread_cleanup_pop(0);
    return nullptr;
}

void ls_cancel_client_handlers(void *argument)
{
    auto *slots = static_cast<ls_client_t *>(argument);
    for (uint32_t i = 0; i < LS_MAX_CLIENTS; i++) {
        if (slots[i].used.load(std::memory_order_acquire) != 0) {
            pthread_cancel(slots[i].thread);
        }
    }
    for (uint32_t i = 0; i < LS_MAX_CLIENTS; i++) {
        join_handler(&slots[i]);
    }
}
