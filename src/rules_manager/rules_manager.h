// The rules manager: the registry of watched addresses ("rules") and of the control connections that asked
// for updates, and the monitor thread that watches the rules' captures until they are over. Below it: the
// live capture, the history captures, the control protocol. Above it: the listener, which holds it by value.
//
//   registry.cpp         rules: add, drop, list, detail; life of the registry
//   rule_files.cpp       names of a rule's capture files
//   update_clients.cpp   registrations and the update messages
//   monitor.cpp          the monitor thread and its pass
//   capture_script.cpp   the capture script's command and its run
//   send_channel.cpp     sending on a connection that others send on too
//
// Life of a rule: added and linked -> captures run, the monitor announces its progress -> its total progress
// is 100: unlinked and owned by the monitor -> capture script, VISUAL update -> released.
//
// Threads: client handlers call the operations concurrently; the monitor works on the same list. rm_init
// starts the monitor thread, rm_destroy stops it. It can be cancelled in its pause and while it waits for the
// capture script; it holds no lock then. Handlers and monitor run with cancellation disabled here.
//
// Locks: `lock` guards the list, the rules in it and the registrations. It comes before the locks
// of the captures, which never call back, and before a channel's lock. No thread waits for a client
// or for the script while it holds `lock`.
//
// Invariants:
//   1. An address is in the list at most once; the list runs newest first.
//   2. A rule with live_progress 100 has no running live capture.
//   3. channels[i] is set exactly while clients[i] is not -1; every registration of a connection is removed
//      before its descriptor is closed.
#pragma once

#include "common/ip_addr.h"
#include "common/lock.h"
#include "history_capture/history_capture.h"
#include "live_capture/live_capture.h"
#include "protocol/message.h"
#include "rules_manager/send_channel.h"

#include <atomic>
#include <cstdint>
#include <pthread.h>

constexpr uint32_t RM_MAX_CLIENTS = 128;
constexpr int32_t RM_MAX_QUEUES = 255;         // queue_count has 8 bits
constexpr uint8_t RM_MAX_SEARCHED_QUEUES = 64; // hist_done has a bit per queue; others get no searches
constexpr uint32_t RM_NAME_SIZE = 128;         // bytes of a name with its terminator
constexpr uint32_t RM_PASS_PAUSE_MS = 5000;
static_assert(RM_NAME_SIZE == MSG_NAME_MAX + 1);

enum : int32_t {
    RM_OK = 0,
    RM_NO_LOCK = -1,        // rm_init
    RM_NO_THREAD = -3,      // rm_init
    RM_NOT_ADDED = -1,      // rm_add_rule: no memory, or the file name is too long
    RM_OTHER_NAME = -2,     // rm_add_rule: the address has a rule of another name
    RM_NOT_LIVE = -7,       // rm_add_rule: the address has a rule, but no live capture
    RM_UNKNOWN = -4,        // rm_drop_rule, rm_address_detail
    RM_NO_MEMORY = -1,      // rm_address_list
    RM_ALL_REGISTERED = 1,  // rm_register_client: RM_MAX_CLIENTS registrations
    RM_NO_SLOT = -7,        // rm_register_client: client_count does not fit the slots
    RM_NOT_REGISTERED = -6, // rm_unregister_client
};

// Pause between two passes of every monitor, milliseconds; read before each pause.
extern std::atomic<uint32_t> rm_pass_pause_ms;

// Guarded by the registry's lock while in the list; the monitor's own afterwards.
struct rm_rule_t {
    ip_addr_t addr;
    uint8_t direction;       // SRC, DST or BOTH
    uint32_t id;             // in the order of creation, from 0
    int8_t live_progress;    // percent; 100: finished, or no live capture
    uint32_t live_packets;   // stored together with live_progress
    int8_t hist_progress;    // percent; 100: finished, or no history search
    uint32_t hist_packets;   // of the searches in hist_done
    uint8_t last_progress;   // total last announced
    uint8_t has_history;     // 1: at least one queue took the search
    uint64_t hist_done;      // bit i: queue i's search has been collected
    char name[RM_NAME_SIZE]; // 1 to 127 bytes and a terminator
    char *live_file;         // owned path; empty when there is none
    char **hist_files;       // owned array of queue_count owned paths, null where a queue has none
    rm_rule_t *next;         // owned
};

struct rules_manager_t {
    int32_t clients[RM_MAX_CLIENTS] KS_GUARDED_BY(lock); // descriptors; -1: free
    uint32_t next_rule_id KS_GUARDED_BY(lock);
    uint32_t rule_count KS_GUARDED_BY(lock);
    rm_rule_t *rules KS_GUARDED_BY(lock); // owned list
    live_capture_t *live;                 // borrowed; set by rm_init like the next two
    history_capture_t **history;          // borrowed; one per queue
    uint8_t queue_count;
    char *filenames;                          // owned; the monitor's buffer for commands and lists, or null
    int32_t filenames_size;                   // bytes there
    int32_t client_count KS_GUARDED_BY(lock); // slots in use
    fair_rwlock_t lock;                       // before the captures' locks and a channel's
    pthread_t thread;                         // runs rm_manage

    rm_channel_t *channels[RM_MAX_CLIENTS] KS_GUARDED_BY(lock); // borrowed; of clients[i]
};

// The answer of rm_address_detail.
struct rm_detail_t {
    msg_ip_detail_t fixed;
    uint8_t name[MSG_NAME_WIRE_MAX]; // fixed.name_length bytes
};

// Set up *rm and start its monitor. RM_OK; RM_NO_LOCK or RM_NO_THREAD after logging why, with
// errno of the failing step and nothing left behind. queues is at most RM_MAX_QUEUES; more
// than RM_MAX_SEARCHED_QUEUES is logged once.
[[nodiscard]] int32_t rm_init(rules_manager_t *rm, live_capture_t *live, history_capture_t **history,
                              int32_t queues);

// Stop the monitor (a running capture script is killed), release every rule and the rest. No handler may use the
// registry any more.
void rm_destroy(rules_manager_t *rm);

// Forget every registration and release every rule. No pass may be under way.
void rm_clean(rules_manager_t *rm) KS_EXCLUDES(rm->lock);

// The rules. All take the lock themselves.

// Watch an address: a live capture unless a limit is 0, and a history search in every queue whose
// ring is on. An existing rule of this address and name gets the new limits instead, and becomes BOTH
// when the direction differs. time_limit in seconds, name_len from 1 to MSG_NAME_MAX. RM_OK,
// RM_NOT_ADDED, RM_OTHER_NAME or RM_NOT_LIVE.
[[nodiscard]] int32_t rm_add_rule(rules_manager_t *rm, const ip_addr_t *addr, uint8_t direction,
                                  uint32_t packet_limit, uint32_t time_limit, const char *name,
                                  uint32_t name_len) KS_EXCLUDES(rm->lock);

// End the live capture, or narrow a rule of both directions to the remaining one. RM_OK or RM_UNKNOWN.
[[nodiscard]] int32_t rm_drop_rule(rules_manager_t *rm, const ip_addr_t *addr, uint8_t direction)
    KS_EXCLUDES(rm->lock);

// The rules of a direction, or of all (msg_target::ALL), newest first. Returns the number of records; above 0
// the caller frees *list. RM_NO_MEMORY.
[[nodiscard]] int32_t rm_address_list(rules_manager_t *rm, uint8_t filter, msg_ip_list_item_t **list)
    KS_EXCLUDES(rm->lock);

// RM_OK; RM_UNKNOWN, with zero counters, without a rule or without a running live capture.
[[nodiscard]] int32_t rm_address_detail(rules_manager_t *rm, rm_detail_t *reply, const ip_addr_t *addr)
    KS_EXCLUDES(rm->lock);

// Registrations for updates. fd identifies the connection, whose messages go out through channel. A
// connection registered twice receives every update twice.

// RM_OK, RM_ALL_REGISTERED or RM_NO_SLOT.
[[nodiscard]] int32_t rm_register_client(rules_manager_t *rm, int32_t fd, rm_channel_t *channel)
    KS_EXCLUDES(rm->lock);

// Remove one registration. RM_OK or RM_NOT_REGISTERED.
[[nodiscard]] int32_t rm_unregister_client(rules_manager_t *rm, int32_t fd) KS_EXCLUDES(rm->lock);

// Remove all registrations of a connection, before its descriptor is closed.
void rm_forget_client(rules_manager_t *rm, int32_t fd) KS_EXCLUDES(rm->lock);

// Body of the monitor thread, and one pass of it. Two threads must not make a pass at
// once. Leaves cancellation disabled.
void *rm_manage(void *rules_manager);
void rm_check_and_update(rules_manager_t *rm) KS_EXCLUDES(rm->lock);
