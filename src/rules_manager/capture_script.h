// The capture script of a finished rule: its command and its run, and the list of
// history files, composed the same way.
//
// The command is a text for the system shell, and paths hold names that clients chose. Every
// character that is special between double quotes (\ " $ `) is escaped, so the script gets each path
// unchanged and the shell runs nothing of it.
#pragma once

#include "rules_manager/rules_manager.h"

#include <atomic>
#include <cstdint>
#include <sys/types.h>

// Compose the rule's command in rm->filenames. False after logging a lack of memory. Monitor only.
[[nodiscard]] bool rm_compose_command(rules_manager_t *rm, const rm_rule_t *rule);

// Compose the names of the rule's history files in rm->filenames, relative to the export directory, separated
// by commas, as many as fit into MSG_TEXT_WIRE_MAX bytes. False after logging a lack of memory. Monitor only.
[[nodiscard]] bool rm_compose_history_list(rules_manager_t *rm, const rm_rule_t *rule);

// A script that runs longer than this is logged, once a run: until it ends, no other rule finishes.
constexpr int32_t RM_SCRIPT_NOTICE_MS = 30000;
extern std::atomic<int32_t> rm_script_notice_ms;

// Run the command in the system shell and wait for it. The result is that of system(): the wait status, -1
// when no process could be created, exit status 127 when the shell could not be run. The shell has a process
// group of its own, no blocked signals and default dispositions.
//
// Can be cancelled while it waits. Then, and only then, *running is the process, not reaped, for
// rm_kill_command. Leaves cancellation disabled.
int rm_run_command(const char *command, pid_t *running);

// Kill the process group of a command and its shell, whatever group that is in by now, and reap the shell.
void rm_kill_command(pid_t running);
