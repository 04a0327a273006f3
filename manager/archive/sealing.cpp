#include "archive/sealing.h"

#include "archive/differences.h"
#include "archive/manifest.h"
#include "archive/merge.h"
#include "archive/pcapng_reader.h"
#include "archive/pcapng_writer.h"
#include "archive/raw_directory.h"
#include "archive/summary.h"
#include "archive/verify_capture.h"
#include "common/clock.h"
#include "model/times.h"
#include "protocol/message.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

namespace kestrune::manager {

namespace {

using path_t = std::filesystem::path;

constexpr int ATTEMPTS = 3; // while raw files change

struct raw_source_t {
    size_t part = 0;
    raw_name_t name;
    raw_entry_t entry;
    const raw_directory_t *directory = nullptr;
    uint32_t interface = 0;
    bool operator==(const raw_source_t &other) const { return entry == other.entry; }
};

struct interface_t {
    size_t part = 0;
    std::string origin;
};

path_t part_path(const path_t &path)
{
    return path.string() + ".part";
}

void make_directory(const path_t &path)
{
    if (mkdir(path.c_str(), 0750) != 0 && errno != EEXIST) {
        fail_errno(path);
    }
}

void rename_file(const path_t &from, const path_t &to)
{
    if (rename(from.c_str(), to.c_str()) != 0) {
        fail_errno(to);
    }
}

// The merge's records go to the sealed file and into the summary.
class sealed_writer_t : public packet_sink_t {
public:
    sealed_writer_t(path_t path, const capture_t &capture, const std::vector<interface_t> &interfaces)
        : path_(std::move(path)), capture_(capture), interfaces_(interfaces)
    {
    }
    void begin() override;
    void add(const record_t &record) override
    {
        writer_->packet(record);
        summary_->add(record);
        packets_[record.origin]++;
    }
    void finish();
    const std::vector<uint64_t> &packets() const { return packets_; } // by interface
    const summary_t &summary() const { return finished_; }
    uint64_t bytes() const { return output_->size(); }
    const std::string &sha256() const { return sha256_; }

private:
    std::string comment() const;
    std::string interface_name(const interface_t &interface) const
    {
        return capture_.parts[interface.part].probe + '/' + interface.origin;
    }

    const path_t path_;
    const capture_t &capture_;
    const std::vector<interface_t> &interfaces_;
    std::optional<output_t> output_;
    std::optional<pcapng_writer_t> writer_;
    std::optional<summary_maker_t> summary_;
    std::vector<uint64_t> packets_;
    summary_t finished_;
    std::string sha256_;
};

std::string sealed_writer_t::comment() const
{
    std::string text = "Capture " + capture_.id.text() + " of " + ip_addr_text(capture_.addr).text;
    text += ", requested by " + capture_.requested_by + " at " + time_text(capture_.requested_at);
    return capture_.reason.empty() ? text : text + ". Reason: " + capture_.reason;
}

void sealed_writer_t::begin()
{
    output_.emplace(path_, true);
    writer_.emplace(&*output_);
    summary_.emplace(capture_.addr, interfaces_.size());
    packets_.assign(interfaces_.size(), 0);
    writer_->section(comment(), "kestrune-manager " KESTRUNE_VERSION);
    for (const interface_t &interface : interfaces_) {
        writer_->interface(interface_name(interface), CAPTURED_MAX);
    }
}

// Drops are those of the probe while its live capture ran.
void sealed_writer_t::finish()
{
    for (uint32_t i = 0; i < interfaces_.size(); i++) {
        const part_t &part = capture_.parts[interfaces_[i].part];
        if (interfaces_[i].origin != "live") {
            continue;
        }
        interface_statistics_t statistics;
        statistics.interface = i;
        statistics.start_ns = part.started_at;
        statistics.end_ns = statistics.at_ns = part.ended_at;
        if (part.drops) {
            statistics.interface_drops = part.drops->interface;
            statistics.kernel_drops = part.drops->kernel;
        }
        writer_->statistics(statistics);
    }
    output_->sync();
    sha256_ = output_->hex();
    finished_ = summary_->finish();
    finished_.id = capture_.id;
    for (size_t i = 0; i < interfaces_.size(); i++) {
        finished_.origins[i].probe = capture_.parts[interfaces_[i].part].probe;
        finished_.origins[i].origin = interfaces_[i].origin;
    }
}

class sealer_t {
public:
    sealer_t(const capture_t &capture, const sealing_t &sealing);
    sealed_t run();

private:
    std::vector<raw_source_t> list() const;
    void number_interfaces();
    void make_directories() const;
    std::vector<merge_count_t> merge(sealed_writer_t *writer) const;
    bool attempt();
    void write_summary(const summary_t &summary);
    void name_files() const;
    void read_back(const sealed_writer_t &writer) const;
    void make_manifest(const sealed_writer_t &writer, const std::vector<merge_count_t> &counts);
    manifest_part_t manifest_part(size_t index, const std::vector<merge_count_t> &counts) const;
    void write_manifest();
    void clean_up() const noexcept;
    path_t file(const std::string &name) const { return directory_ / name; }
    void step(int number) const { sealing_.after_step(number); }

    const capture_t &capture_;
    const sealing_t &sealing_;
    const path_t directory_;
    const std::string sealed_name_;
    std::map<std::string, raw_directory_t> directories_; // by probe
    std::vector<raw_source_t> sources_;                  // in the order of equal times
    std::vector<interface_t> interfaces_;
    manifest_file_t summary_file_;
    manifest_t manifest_;
    std::string manifest_text_;
};

sealer_t::sealer_t(const capture_t &capture, const sealing_t &sealing)
    : capture_(capture), sealing_(sealing), directory_(capture_directory(sealing.root, capture.id)),
      sealed_name_(sealed_name(capture.id))
{
    for (const part_t &part : capture.parts) {
        const auto files = sealing.files.find(part.probe);
        if (part.local && files == sealing.files.end()) {
            throw archive_error_t(archive_failure_t::UNREADABLE,
                                  "the directory of probe " + part.probe + " is not configured");
        }
        if (part.local) {
            directories_.emplace(part.probe, files->second);
        }
    }
}

sealed_t sealer_t::run()
{
    try {
        for (int i = 0; i < ATTEMPTS; i++) {
            if (attempt()) {
                write_manifest();
                return sealed_of(manifest_, manifest_text_);
            }
        }
        throw archive_error_t(archive_failure_t::UNREADABLE, "its raw files are still being written");
    } catch (...) {
        clean_up();
        throw;
    }
}

// Histories by queue before the live capture of a part; the parts as they are configured.
std::vector<raw_source_t> sealer_t::list() const
{
    std::vector<raw_source_t> sources;
    for (size_t i = 0; i < capture_.parts.size(); i++) {
        const auto directory = directories_.find(capture_.parts[i].probe);
        if (!capture_.parts[i].local || directory == directories_.end()) {
            continue;
        }
        for (const raw_entry_t &entry : directory->second.list(capture_.id)) {
            if (const std::optional<raw_name_t> name = parse_raw_name(entry.name)) {
                sources.push_back({i, *name, entry, &directory->second});
            }
        }
    }
    const auto order = [](const raw_source_t &source) {
        return std::tuple(source.part, source.name.is_live(), source.name.queue, source.name.rule,
                          source.name.version);
    };
    std::sort(sources.begin(), sources.end(),
              [&](const raw_source_t &a, const raw_source_t &b) { return order(a) < order(b); });
    return sources;
}

void sealer_t::number_interfaces()
{
    interfaces_.clear();
    for (raw_source_t &source : sources_) {
        const std::string origin = source.name.origin();
        if (interfaces_.empty() || interfaces_.back().part != source.part ||
            interfaces_.back().origin != origin) {
            interfaces_.push_back({source.part, origin});
        }
        source.interface = static_cast<uint32_t>(interfaces_.size() - 1);
    }
}

void sealer_t::make_directories() const
{
    make_directory(directory_.parent_path());
    make_directory(directory_);
}

// Steps 1 to 6. False: the raw files changed meanwhile.
bool sealer_t::attempt()
{
    sources_ = list();
    number_interfaces();
    step(1);
    make_directories();
    sealed_writer_t writer(part_path(file(sealed_name_)), capture_, interfaces_);
    const std::vector<merge_count_t> counts = merge(&writer);
    step(2);
    writer.finish();
    write_summary(writer.summary());
    step(3);
    name_files();
    step(4);
    make_manifest(writer, counts);
    if (sealing_.read_back) {
        read_back(writer);
    }
    step(5);
    const bool unchanged = list() == sources_;
    step(6);
    return unchanged;
}

std::vector<merge_count_t> sealer_t::merge(sealed_writer_t *writer) const
{
    std::vector<merge_input_t> inputs;
    for (const raw_source_t &source : sources_) {
        inputs.push_back({[&source] { return source.directory->open(source.entry); }, source.entry.name,
                          source.interface});
    }
    return merge_inputs(inputs, {sealing_.memory, directory_, sealing_.stop}, writer);
}

void sealer_t::write_summary(const summary_t &summary)
{
    const std::string text = summary_text(summary);
    write_whole(part_path(file(SUMMARY_NAME)), text);
    summary_file_ = {SUMMARY_NAME, text.size(), sha256_hex(text), std::nullopt, 0, 0};
}

void sealer_t::name_files() const
{
    for (const std::string &name : {sealed_name_, std::string(SUMMARY_NAME)}) {
        rename_file(part_path(file(name)), file(name));
    }
    sync_directory(directory_);
}

void sealer_t::read_back(const sealed_writer_t &writer) const
{
    const fd_t fd = open_file(AT_FDCWD, file(sealed_name_));
    posix_fadvise(fd.get(), 0, 0, POSIX_FADV_DONTNEED); // read what the disk has, not what memory has
    const pcapng_content_t content = read_pcapng(fd.get(), sealed_name_, sealing_.stop);
    std::string wrong = wrong_with_content(content, manifest_, writer.summary().packets);
    if (content.bytes != writer.bytes() || content.sha256 != writer.sha256()) {
        wrong = "other bytes were read than were written";
    }
    if (!wrong.empty()) {
        throw archive_error_t(archive_failure_t::BROKEN, "reading " + sealed_name_ + " back: " + wrong);
    }
}

manifest_part_t sealer_t::manifest_part(size_t index, const std::vector<merge_count_t> &counts) const
{
    manifest_part_t whole;
    whole.part = capture_.parts[index];
    if (whole.part.live == live_t::RUNNING) {
        whole.part.live = live_t::OVER;
    }
    for (size_t i = 0; i < sources_.size(); i++) {
        if (sources_[i].part == index) {
            const raw_entry_t &entry = sources_[i].entry;
            const bool damaged = counts[i].end == input_end_t::DAMAGED;
            whole.sources.push_back({entry.name, sources_[i].name.origin(), entry.bytes, counts[i].packets,
                                     counts[i].end == input_end_t::TORN, damaged, entry.mtime_ns});
        }
    }
    whole.live.said = whole.part.said_live;
    whole.history.said = whole.part.said_history;
    if (whole.part.local) {
        whole.live.found = found_packets(whole, true);
        whole.history.found = found_packets(whole, false);
    }
    whole.differences = differences_of(whole);
    return whole;
}

void sealer_t::make_manifest(const sealed_writer_t &writer, const std::vector<merge_count_t> &counts)
{
    manifest_ = {};
    manifest_.manager_version = KESTRUNE_VERSION;
    manifest_.protocol_version = std::to_string(MSG_VERSION_MAJOR) + '.' + std::to_string(MSG_VERSION_MINOR);
    manifest_.capture = capture_;
    for (size_t i = 0; i < interfaces_.size(); i++) {
        manifest_.origins.push_back(
            {capture_.parts[interfaces_[i].part].probe + '/' + interfaces_[i].origin, writer.packets()[i]});
    }
    for (size_t i = 0; i < capture_.parts.size(); i++) {
        manifest_.parts.push_back(manifest_part(i, counts));
    }
    const summary_t &summary = writer.summary();
    manifest_.files = {
        {sealed_name_, writer.bytes(), writer.sha256(), summary.packets, summary.first, summary.last},
        summary_file_};
}

// Steps 7 and 8.
void sealer_t::write_manifest()
{
    manifest_.capture.sealed_at = wall_now_ns();
    manifest_text_ = manifest_text(manifest_);
    write_whole(part_path(file(MANIFEST_NAME)), manifest_text_);
    step(7);
    rename_file(part_path(file(MANIFEST_NAME)), file(MANIFEST_NAME));
    sync_directory(directory_);
    sync_directory(directory_.parent_path());
    sync_directory(sealing_.root);
    step(8);
}

// Room for others, and for the next attempt. A manifest that got its name keeps its files.
void sealer_t::clean_up() const noexcept
{
    if (access(file(MANIFEST_NAME).c_str(), F_OK) == 0) {
        return;
    }
    for (const std::string &name : {sealed_name_, std::string(SUMMARY_NAME), std::string(MANIFEST_NAME)}) {
        unlink(part_path(file(name)).c_str());
        unlink(file(name).c_str());
    }
}

} // namespace

path_t capture_directory(const path_t &root, const ulid_t &id)
{
    return root / date_text(id.time_ms() * NS_PER_MS) / id.text();
}

std::string sealed_name(const ulid_t &id)
{
    return id.text() + ".pcapng";
}

sealed_t sealed_of(const manifest_t &manifest, const std::string &text)
{
    sealed_t sealed;
    const auto file = std::find_if(manifest.files.begin(), manifest.files.end(),
                                   [](const manifest_file_t &one) { return one.packets.has_value(); });
    if (file == manifest.files.end()) {
        throw manifest_error_t("it names no sealed file");
    }
    sealed.file = {file->bytes, *file->packets, file->sha256};
    sealed.manifest_sha256 = sha256_hex(text);
    sealed.sealed_at = manifest.capture.sealed_at;
    for (const manifest_part_t &whole : manifest.parts) {
        part_t &part = sealed.parts.emplace_back(whole.part);
        part.live_packets = whole.live.found.value_or(part.live_packets);
        part.history_packets = whole.history.found.value_or(part.history_packets);
    }
    return sealed;
}

sealed_t seal_capture(const capture_t &capture, const sealing_t &sealing)
{
    return sealer_t(capture, sealing).run();
}

} // namespace kestrune::manager
