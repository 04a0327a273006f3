// The capture script of a finished rule: its command and its run, and the list of history files, which is
// made the same way.
//
// The command is a text for the system shell, and paths hold names that clients chose: every character that
// is special between double quotes (\ " $ `) is escaped, so that the script gets each path as it is and the
// shell runs nothing of it.
#pragma once

#include "rules_manager/rules_manager.h"

#include <cstdint>
#include <sys/types.h>

// Compose in rm->filenames the command for the rule. False after logging that memory lacks. Monitor only.
[[nodiscard]] bool rm_compose_command(rules_manager_t *rm, const rm_rule_t *rule);

// Compose in rm->filenames the names of the rule's history files relative to the export directory, separated
// by commas, as many as stay within MSG_TEXT_WIRE_MAX bytes. False after logging that memory lacks. Monitor
// only.
[[nodiscard]] bool rm_compose_history_list(rules_manager_t *rm, const rm_rule_t *rule);

// Run the command in the system shell and wait for it. The result is that of system(): the wait status, -1
// when there was no process to run it, exit status 127 when the shell could not be run. The shell has a
// process group of its own, no signal blocked and default dispositions.
//
// Can be cancelled while it waits; *running is then (and only then) the process, not reaped, for
// rm_kill_command. Leaves cancellation disabled.
int rm_run_command(const char *command, pid_t *running);

// Kill the process group of a command and its shell, wherever that is by now, and reap the shell.
void rm_kill_command(pid_t running);
