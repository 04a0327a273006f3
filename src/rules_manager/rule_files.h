// Names of a rule's capture files, and the memory of a rule. The live file is the export directory, the
// rule's name, "_" and its id, followed by "_" and a version if that file exists: /data/web_7, /data/web_7_1.
// Queue i's history file is the live file's name and "_hc_i".
#pragma once

#include "rules_manager/rules_manager.h"

#include <cstdint>

// The suffixes of id and version together with their terminator.
constexpr uint32_t RM_SUFFIX_SIZE = 10;
constexpr int RM_MAX_VERSION = 999; // used even if its file exists

// The name as an owned string, or null after logging why (no memory, suffixes too long).
char *rm_name_live_file(const char *name, uint32_t name_len, uint32_t id);

// The name as an owned string, or null without a message.
char *rm_name_history_file(const char *live_file, uint32_t queue);

// The part of a file's name after the export directory.
const char *rm_relative_name(const char *path);

// Release a rule that is in no list, with everything it owns. Null is accepted.
void rm_release_rule(rm_rule_t *rule, uint32_t queue_count);
