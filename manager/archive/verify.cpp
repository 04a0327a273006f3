#include "archive/verify.h"

#include "archive/file_io.h"
#include "archive/manifest.h"
#include "archive/pcapng_reader.h"
#include "archive/verify_capture.h"
#include "client/text_forms.h"
#include "model/times.h"

#include <algorithm>
#include <fcntl.h>
#include <system_error>

namespace kestrune::manager {

namespace {

using path_t = std::filesystem::path;

// Empty when the file is as the manifest says.
std::string wrong_with_file(const path_t &directory, const manifest_file_t &file, const manifest_t &manifest)
{
    if (path_t(file.name).filename() != file.name) {
        return "the manifest names a file elsewhere";
    }
    pcapng_content_t content;
    try {
        const fd_t fd = open_file(AT_FDCWD, directory / file.name);
        content = read_pcapng(fd.get(), file.name);
    } catch (const std::system_error &error) {
        return error.code() == std::errc::no_such_file_or_directory ? file.name + " is missing"
                                                                    : std::string(error.what());
    }
    if (content.bytes != file.bytes) {
        return file.name + " has " + std::to_string(content.bytes) + " bytes, not the " +
               std::to_string(file.bytes) + " that were sealed";
    }
    if (content.sha256 != file.sha256) {
        return file.name + " was changed: its SHA-256 is " + content.sha256 +
               ", that of the sealed file is " + file.sha256;
    }
    return file.packets ? wrong_with_content(content, manifest, *file.packets) : std::string();
}

verdict_t verify_tombstone(const path_t &path)
{
    try {
        const tombstone_t tombstone = parse_tombstone(read_whole(path, MANIFEST_SIZE_MAX));
        parse_manifest(tombstone.manifest);
        return {path, true, "was deleted at " + time_text(tombstone.at) + " (" + tombstone.cause + ")"};
    } catch (const std::exception &error) {
        return {path, false, error.what()};
    }
}

verdict_t verify_manifest(const path_t &path)
{
    try {
        const std::string text = read_whole(path, MANIFEST_SIZE_MAX);
        const manifest_t manifest = parse_manifest(text);
        const std::string wrong = wrong_with_files(path.parent_path(), manifest);
        if (!wrong.empty()) {
            return {path, false, wrong};
        }
        uint64_t packets = 0;
        uint64_t bytes = 0;
        for (const manifest_file_t &file : manifest.files) {
            packets += file.packets.value_or(0);
            bytes += file.bytes;
        }
        return {path, true,
                std::to_string(packets) + " packets, " + format_bytes(bytes) +
                    ", as they were sealed; the manifest's SHA-256 is " + sha256_hex(text)};
    } catch (const std::exception &error) {
        return {path, false, error.what()};
    }
}

verdict_t verify_directory(const path_t &path)
{
    if (std::filesystem::exists(path / MANIFEST_NAME)) {
        return verify_manifest(path / MANIFEST_NAME);
    }
    if (std::filesystem::exists(path / TOMBSTONE_NAME)) {
        return verify_tombstone(path / TOMBSTONE_NAME);
    }
    return {path, false, "there is no manifest: it was not sealed, or the manifest is lost"};
}

bool is_capture(const path_t &path)
{
    return parse_ulid(path.filename().string()).has_value() || std::filesystem::exists(path / MANIFEST_NAME);
}

} // namespace

std::string wrong_with_content(const pcapng_content_t &content, const manifest_t &manifest, uint64_t packets)
{
    if (!content.wrong.empty()) {
        return content.wrong;
    }
    uint64_t sum = 0;
    bool same = content.interfaces.size() == manifest.origins.size();
    for (size_t i = 0; same && i < manifest.origins.size(); i++) {
        same = content.interfaces[i] == manifest.origins[i].interface &&
               content.packets[i] == manifest.origins[i].packets;
        sum += content.packets[i];
    }
    return same && sum == packets ? "" : "the file's packets by interface are not those of the manifest";
}

std::string wrong_with_files(const path_t &directory, const manifest_t &manifest)
{
    for (const manifest_file_t &file : manifest.files) {
        std::string wrong = wrong_with_file(directory, file, manifest);
        if (!wrong.empty()) {
            return wrong;
        }
    }
    return {};
}

std::vector<verdict_t> verify_path(const path_t &path)
{
    if (!std::filesystem::is_directory(path)) {
        const bool sealed_file = path.extension() == ".pcapng";
        if (path.filename() == TOMBSTONE_NAME) {
            return {verify_tombstone(path)};
        }
        return {sealed_file ? verify_directory(path.parent_path()) : verify_manifest(path)};
    }
    if (is_capture(path)) {
        return {verify_directory(path)};
    }
    std::vector<path_t> captures;
    for (std::filesystem::recursive_directory_iterator entry(path), end; entry != end; ++entry) {
        if (entry->is_directory() && !entry->is_symlink() && is_capture(entry->path())) {
            captures.push_back(entry->path());
            entry.disable_recursion_pending();
        }
    }
    std::sort(captures.begin(), captures.end());
    std::vector<verdict_t> verdicts;
    std::transform(captures.begin(), captures.end(), std::back_inserter(verdicts), verify_directory);
    if (verdicts.empty()) {
        verdicts.push_back({path, false, "there is no sealed capture"});
    }
    return verdicts;
}

} // namespace kestrune::manager
