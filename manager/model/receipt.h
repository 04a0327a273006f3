// What stands in a capture's manifest and summary (docs/openapi.yaml), and how much room the archive has.
#pragma once

#include "model/capture.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kestrune::manager {

struct share_t {
    std::string name;
    uint64_t packets = 0;
    uint64_t bytes = 0;
};

struct conversation_t {
    std::string a; // the captured address
    std::optional<uint16_t> a_port;
    std::string b;
    std::optional<uint16_t> b_port;
    std::string protocol;
    std::array<uint64_t, 2> packets = {}; // from a, from b
    std::array<uint64_t, 2> bytes = {};
    uint64_t first = 0;
    uint64_t last = 0;
};

struct summary_origin_t {
    std::string probe;
    std::string origin;            // live or history-QUEUE
    std::vector<uint64_t> packets; // by step
    std::vector<uint64_t> bytes;
};

struct summary_t {
    ulid_t id;
    uint64_t packets = 0;
    uint64_t bytes = 0; // on the wire
    uint64_t first = 0;
    uint64_t last = 0;
    uint64_t from = 0; // begin of the first step
    uint64_t step_ns = 0;
    std::vector<summary_origin_t> origins;
    std::vector<conversation_t> conversations;
    uint64_t conversations_more = 0;
    std::vector<share_t> protocols;
    std::vector<share_t> ports;
};

struct manifest_origin_t {
    std::string interface; // NAME/live or NAME/history-QUEUE
    uint64_t packets = 0;
};

struct manifest_source_t {
    std::string name; // directly in the probe's directory
    std::string origin;
    uint64_t bytes = 0;
    uint64_t packets = 0;
    bool torn = false;
    bool kept = false;     // damaged in the middle and therefore not deleted
    uint64_t mtime_ns = 0; // for the comparison before deletion
};

struct said_found_t {
    std::optional<uint64_t> said;
    std::optional<uint64_t> found;
};

struct manifest_part_t {
    part_t part; // probe, state, live, times, ended_by, error, reach, heavy, drops, elsewhere
    said_found_t live;
    said_found_t history;
    std::vector<std::string> differences;
    std::vector<manifest_source_t> sources;
};

struct manifest_file_t {
    std::string name;
    uint64_t bytes = 0;
    std::string sha256;
    std::optional<uint64_t> packets;
    uint64_t first = 0;
    uint64_t last = 0;
};

struct manifest_t {
    std::string manager_version;
    std::string protocol_version;
    capture_t
        capture; // id, address, direction, reason, reference, requested_*, started, ended, sealed, limits
    std::vector<manifest_origin_t> origins;
    std::vector<manifest_part_t> parts;
    std::vector<manifest_file_t> files;
};

enum class room_t : uint8_t { ENOUGH, NO_NEW, END_RUNNING };
std::string_view text_of(room_t room);

struct archive_view_t {
    uint64_t bytes = 0;     // sealed
    uint64_t raw_bytes = 0; // of captures that run or wait for sealing
    std::optional<uint64_t> quota_bytes;
    uint64_t free_bytes = 0;         // least of all file systems involved
    uint64_t archive_free_bytes = 0; // of the archive's own, where deleting makes room; less raw_bytes
    uint64_t min_free_bytes = 0;
    uint64_t captures = 0; // sealed ones
    uint64_t oldest = 0;   // requested_at; 0: none
    room_t room = room_t::ENOUGH;
};

} // namespace kestrune::manager
