#include "archive/archive.h"

#include "archive/manifest.h"
#include "archive/raw_directory.h"
#include "archive/retention.h"
#include "archive/sealing.h"
#include "archive/verify_capture.h"
#include "common/clock.h"
#include "model/lock.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <map>
#include <set>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <system_error>
#include <unistd.h>

namespace kestrune::manager {

namespace {

using path_t = std::filesystem::path;

bool is_full(const std::system_error &error)
{
    return error.code() == std::errc::no_space_on_device || error.code().value() == EDQUOT;
}

// Runs archive work; whatever it throws becomes an archive_error_t.
template <typename work_t>
auto guarded(work_t work)
{
    try {
        return work();
    } catch (const archive_error_t &) {
        throw;
    } catch (const stopped_t &error) {
        throw archive_error_t(archive_failure_t::INTERRUPTED, error.what());
    } catch (const std::system_error &error) {
        throw archive_error_t(is_full(error) ? archive_failure_t::FULL : archive_failure_t::BROKEN,
                              error.what());
    } catch (const std::exception &error) {
        throw archive_error_t(archive_failure_t::BROKEN, error.what());
    }
}

// Nothing when there is no such file.
std::optional<std::string> read_if_there(const path_t &path, size_t most)
{
    try {
        return read_whole(path, most);
    } catch (const std::system_error &error) {
        if (error.code() == std::errc::no_such_file_or_directory) {
            return {};
        }
        throw;
    }
}

void unlink_if_there(const path_t &path)
{
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        fail_errno(path);
    }
}

void write_tombstone(const path_t &path, const std::string &text)
{
    const path_t part = path.string() + ".part";
    write_whole(part, text);
    if (rename(part.c_str(), path.c_str()) != 0) {
        fail_errno(path);
    }
    sync_directory(path.parent_path());
}

uint64_t free_bytes(const path_t &path)
{
    struct statvfs room = {};
    if (statvfs(path.c_str(), &room) != 0) {
        fail_errno(path);
    }
    return uint64_t{room.f_bavail} * room.f_frsize;
}

// How often each capture is being read, and which are being deleted.
class readings_t {
public:
    bool begin(const ulid_t &id)
    {
        hold_lock_t hold(lock_);
        if (deleted_.contains(id)) {
            return false;
        }
        counts_[id]++;
        return true;
    }
    void end(const ulid_t &id)
    {
        hold_lock_t hold(lock_);
        if (--counts_[id] == 0) {
            counts_.erase(id);
        }
    }
    bool begin_deletion(const ulid_t &id)
    {
        hold_lock_t hold(lock_);
        return !counts_.contains(id) && deleted_.insert(id).second;
    }
    void end_deletion(const ulid_t &id)
    {
        hold_lock_t hold(lock_);
        deleted_.erase(id);
    }
    bool is_read(const ulid_t &id)
    {
        hold_lock_t hold(lock_);
        return counts_.contains(id);
    }

private:
    lock_t lock_;
    std::map<ulid_t, uint32_t> counts_ KS_GUARDED_BY(lock_);
    std::set<ulid_t> deleted_ KS_GUARDED_BY(lock_);
};

class open_reading_t : public reading_t {
public:
    open_reading_t(std::shared_ptr<readings_t> readings, const ulid_t &id)
        : readings_(std::move(readings)), id_(id)
    {
    }
    ~open_reading_t() override { readings_->end(id_); }
    open_reading_t(const open_reading_t &) = delete;
    open_reading_t &operator=(const open_reading_t &) = delete;

    void open(const path_t &path)
    {
        struct stat status = {};
        fd_ = open_file(AT_FDCWD, path);
        if (fstat(fd_.get(), &status) != 0) {
            fail_errno(path);
        }
        size_ = static_cast<uint64_t>(status.st_size);
    }
    int fd() const override { return fd_.get(); }
    uint64_t size() const override { return size_; }

private:
    const std::shared_ptr<readings_t> readings_; // a reading may outlive the archive
    const ulid_t id_;
    fd_t fd_;
    uint64_t size_ = 0;
};

class directory_archive_t final : public archive_t {
public:
    directory_archive_t(const archive_settings_t &settings, const std::vector<probe_settings_t> &probes);
    void configure(const archive_settings_t &settings, const std::vector<probe_settings_t> &probes) override;

    sealed_t seal(const capture_t &capture, const std::function<bool()> &stop) override;
    bool remove_raw(const ulid_t &id) override;
    std::optional<sealed_t> find(const ulid_t &id) override;
    std::vector<std::string> sources(const ulid_t &id, const std::string &probe) override;
    void bury(const ulid_t &id, const std::string &cause, uint64_t at) override;
    bool is_read(const ulid_t &id) const override { return readings_->is_read(id); }
    std::vector<raw_file_t> raw_files(const std::string &probe) override;
    archive_view_t measure(uint64_t sealed_bytes, uint64_t sealed_count, uint64_t oldest,
                           uint64_t raw_bytes) override;
    std::unique_ptr<reading_t> open_pcap(const ulid_t &id) override;
    std::string manifest_text(const ulid_t &id) override;
    std::string summary_text(const ulid_t &id) override;

private:
    path_t file(const ulid_t &id, const std::string &name) const
    {
        return capture_directory(root_, id) / name;
    }
    std::optional<manifest_t> read_manifest(const ulid_t &id) const;
    std::string text_of_file(const ulid_t &id, const std::string &name) const;
    void delete_files(const ulid_t &id, const std::string &cause, uint64_t at) const;

    const path_t root_;
    const std::shared_ptr<readings_t> readings_ = std::make_shared<readings_t>();
    // Of the keeper.
    archive_settings_t settings_;
    std::map<std::string, path_t> files_; // by probe
};

directory_archive_t::directory_archive_t(const archive_settings_t &settings,
                                         const std::vector<probe_settings_t> &probes)
    : root_(settings.directory)
{
    if (mkdir(root_.c_str(), 0750) != 0 && errno != EEXIST) {
        fail_errno(root_);
    }
    open_directory(root_);
    configure(settings, probes);
}

void directory_archive_t::configure(const archive_settings_t &settings,
                                    const std::vector<probe_settings_t> &probes)
{
    settings_ = settings;
    files_.clear();
    for (const probe_settings_t &probe : probes) {
        if (!probe.files.empty()) {
            files_[probe.name] = probe.files;
        }
    }
}

std::optional<manifest_t> directory_archive_t::read_manifest(const ulid_t &id) const
{
    const std::optional<std::string> text = read_if_there(file(id, MANIFEST_NAME), MANIFEST_SIZE_MAX);
    return text ? std::optional(parse_manifest(*text)) : std::nullopt;
}

// A manifest that stands is never replaced: its raw files may be gone already.
sealed_t directory_archive_t::seal(const capture_t &capture, const std::function<bool()> &stop)
{
    if (std::optional<sealed_t> sealed = find(capture.id)) {
        return *sealed;
    }
    sealing_t sealing;
    sealing.root = root_;
    sealing.files = files_;
    sealing.stop = stop;
    return guarded([&] { return seal_capture(capture, sealing); });
}

std::optional<sealed_t> directory_archive_t::find(const ulid_t &id)
{
    return guarded([&]() -> std::optional<sealed_t> {
        const std::optional<std::string> text = read_if_there(file(id, MANIFEST_NAME), MANIFEST_SIZE_MAX);
        if (!text) {
            return {};
        }
        const manifest_t manifest = parse_manifest(*text);
        const std::string wrong = wrong_with_files(capture_directory(root_, id), manifest);
        if (!wrong.empty()) {
            throw archive_error_t(archive_failure_t::BROKEN, wrong);
        }
        return sealed_of(manifest, *text);
    });
}

bool directory_archive_t::remove_raw(const ulid_t &id)
{
    return guarded([&] {
        bool all = true;
        const std::optional<manifest_t> manifest = read_manifest(id);
        for (const manifest_part_t &part : manifest.value_or(manifest_t()).parts) {
            const auto files = files_.find(part.part.probe);
            if (files == files_.end() || part.sources.empty()) {
                continue;
            }
            const raw_directory_t directory(files->second);
            for (const manifest_source_t &source : part.sources) {
                const std::optional<raw_entry_t> entry = directory.look(source.name);
                if (!entry || source.kept) {
                    continue;
                }
                if (entry->id == id && entry->bytes == source.bytes && entry->mtime_ns == source.mtime_ns) {
                    directory.remove(source.name);
                } else {
                    all = false;
                }
            }
        }
        return all && manifest.has_value();
    });
}

std::vector<std::string> directory_archive_t::sources(const ulid_t &id, const std::string &probe)
{
    return guarded([&] {
        std::vector<std::string> names;
        const std::optional<manifest_t> manifest = read_manifest(id);
        for (const manifest_part_t &part : manifest.value_or(manifest_t()).parts) {
            for (const manifest_source_t &source : part.sources) {
                if (part.part.probe == probe) {
                    names.push_back(source.name);
                }
            }
        }
        return names;
    });
}

void directory_archive_t::bury(const ulid_t &id, const std::string &cause, uint64_t at)
{
    if (!readings_->begin_deletion(id)) {
        throw archive_error_t(archive_failure_t::BUSY, "it is being read");
    }
    struct end_t {
        readings_t *readings;
        const ulid_t &id;
        ~end_t() { readings->end_deletion(id); }
    };
    const end_t end = {readings_.get(), id};
    guarded([&] { delete_files(id, cause, at); });
}

// A dead attempt may have left part files. A capture that was never sealed leaves no tombstone.
void directory_archive_t::delete_files(const ulid_t &id, const std::string &cause, uint64_t at) const
{
    const path_t directory = capture_directory(root_, id);
    if (!std::filesystem::exists(directory)) {
        return;
    }
    const path_t tombstone = directory / TOMBSTONE_NAME;
    if (const std::optional<std::string> manifest =
            read_if_there(directory / MANIFEST_NAME, MANIFEST_SIZE_MAX)) {
        const std::string text = tombstone_text({cause, at, *manifest}, id);
        try {
            write_tombstone(tombstone, text);
        } catch (const std::system_error &error) {
            if (!is_full(error)) {
                throw;
            }
            // Deleting is what makes room. The manifest stays until the tombstone stands.
            unlink_if_there(directory / sealed_name(id));
            write_tombstone(tombstone, text);
        }
    }
    for (const std::string &name : {sealed_name(id), std::string(SUMMARY_NAME), std::string(MANIFEST_NAME)}) {
        unlink_if_there(directory / (name + ".part"));
        unlink_if_there(directory / name);
    }
    sync_directory(directory);
    if (!std::filesystem::exists(tombstone)) {
        rmdir(directory.c_str());
    }
}

std::vector<raw_file_t> directory_archive_t::raw_files(const std::string &probe)
{
    const auto files = files_.find(probe);
    if (files == files_.end()) {
        return {};
    }
    return guarded([&] {
        std::vector<raw_file_t> found;
        for (raw_entry_t &entry : raw_directory_t(files->second).list()) {
            found.push_back({probe, std::move(entry.name), entry.id, entry.bytes, entry.mtime_ns});
        }
        return found;
    });
}

// What still has to be sealed needs its room in the archive once more.
archive_view_t directory_archive_t::measure(uint64_t sealed_bytes, uint64_t sealed_count, uint64_t oldest,
                                            uint64_t raw_bytes)
{
    return guarded([&] {
        archive_view_t view;
        view.bytes = sealed_bytes;
        view.raw_bytes = raw_bytes;
        view.captures = sealed_count;
        view.oldest = oldest;
        if (settings_.quota_bytes != 0) {
            view.quota_bytes = settings_.quota_bytes;
        }
        view.min_free_bytes = settings_.min_free_bytes;
        const uint64_t room = free_bytes(root_);
        view.archive_free_bytes = room - std::min(room, raw_bytes);
        view.free_bytes = view.archive_free_bytes;
        for (const auto &[probe, path] : files_) {
            // One that cannot be looked at has an alarm of its own.
            std::error_code error;
            if (std::filesystem::exists(path, error)) {
                view.free_bytes = std::min(view.free_bytes, free_bytes(path));
            }
        }
        view.room = room_left(view);
        return view;
    });
}

std::unique_ptr<reading_t> directory_archive_t::open_pcap(const ulid_t &id)
{
    if (!readings_->begin(id)) {
        throw archive_error_t(archive_failure_t::MISSING, "it is being deleted");
    }
    auto reading = std::make_unique<open_reading_t>(readings_, id);
    const path_t path = file(id, sealed_name(id));
    return guarded([&]() -> std::unique_ptr<reading_t> {
        try {
            reading->open(path);
        } catch (const std::system_error &error) {
            if (error.code() == std::errc::no_such_file_or_directory) {
                throw archive_error_t(archive_failure_t::MISSING, "there is no sealed file");
            }
            throw;
        }
        return std::move(reading);
    });
}

std::string directory_archive_t::manifest_text(const ulid_t &id)
{
    return guarded([&] {
        if (std::optional<std::string> text = read_if_there(file(id, MANIFEST_NAME), MANIFEST_SIZE_MAX)) {
            return *text;
        }
        return parse_tombstone(text_of_file(id, TOMBSTONE_NAME)).manifest;
    });
}

std::string directory_archive_t::summary_text(const ulid_t &id)
{
    return guarded([&] { return text_of_file(id, SUMMARY_NAME); });
}

std::string directory_archive_t::text_of_file(const ulid_t &id, const std::string &name) const
{
    std::optional<std::string> text = read_if_there(file(id, name), MANIFEST_SIZE_MAX);
    if (!text) {
        throw archive_error_t(archive_failure_t::MISSING, "there is no " + name);
    }
    return std::move(*text);
}

} // namespace

std::unique_ptr<archive_t> make_archive(const archive_settings_t &settings,
                                        const std::vector<probe_settings_t> &probes)
{
    return guarded([&] { return std::make_unique<directory_archive_t>(settings, probes); });
}

} // namespace kestrune::manager
