// Raw files become sealed ones that an independent reader reads, whatever is wrong with them and whenever it is cut
// short; a changed byte is found; deleting makes room.
#include "archive/archive.h"
#include "archive/manifest.h"
#include "archive/merge.h"
#include "archive/pcapng_reader.h"
#include "archive/raw_directory.h"
#include "archive/retention.h"
#include "archive/sealing.h"
#include "archive/verify.h"
#include "client/text_forms.h"
#include "common/clock.h"
#include "model/times.h"
#include "support/pcap_read.h"
#include "support/process.h"

#include <algorithm>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <sched.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace kestrune;
using namespace kestrune::manager;

namespace {

using path_t = std::filesystem::path;
using json_t = nlohmann::json;
using packets_t = std::vector<pcap_record_t>;

constexpr const char *ID = "01KAQ4A00000000000000000ZZ";
constexpr const char *ADDRESS = "2601:647:4b02:1d20:fd05:6f66:ecce:8bc7";

std::string raw_bytes(const packets_t &packets)
{
    const uint32_t header[] = {0xa1b23c4d, 0x00040002, 0, 0, 65535, 1};
    std::string bytes(reinterpret_cast<const char *>(header), sizeof header);
    for (const pcap_record_t &packet : packets) {
        const uint32_t record[] = {static_cast<uint32_t>(packet.timestamp / NS_PER_S),
                                   static_cast<uint32_t>(packet.timestamp % NS_PER_S),
                                   static_cast<uint32_t>(packet.data.size()), packet.full_length};
        bytes.append(reinterpret_cast<const char *>(record), sizeof record) += packet.data;
    }
    return bytes;
}

void write_file(const path_t &path, const std::string &bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

packets_t numbered_packets(uint32_t count, uint64_t from_ns = 1'700'000'000 * NS_PER_S)
{
    packets_t packets;
    for (uint32_t i = 0; i < count; i++) {
        packets.push_back(
            {from_ns + i * 1000, 60 + i, std::string(20 + i % 40, static_cast<char>('a' + i % 26))});
    }
    return packets;
}

class ArchiveTest : public testing::Test {
protected:
    ArchiveTest() : archive_settings_{scratch_.path("archive"), 0, 0, 0}
    {
        capture_.id = parse_ulid(ID).value();
        capture_.addr = parse_address(ADDRESS);
        capture_.state = capture_state_t::FINISHED;
        capture_.reason = "a reason";
        capture_.reference = R"({"case":17})";
        capture_.requested_by = "alice";
        capture_.requested_at = 1'700'000'000 * NS_PER_S;
        capture_.started_at = capture_.requested_at + 1;
        capture_.ended_at = capture_.requested_at + 2;
        sealing_.root = archive_settings_.directory;
        std::filesystem::create_directory(sealing_.root);
        for (const char *name : {"north", "east", "south"}) {
            std::filesystem::create_directory(scratch_.path(name));
            probes_.push_back({name, {"127.0.0.1", "1"}, scratch_.path(name), {}, {}});
            sealing_.files[name] = scratch_.path(name);
            part_t part;
            part.probe = name;
            part.local = true;
            part.state = part_state_t::FINISHED;
            part.live = live_t::OVER;
            part.ended_by = ended_by_t::TIME;
            part.started_at = capture_.started_at;
            part.ended_at = capture_.ended_at;
            capture_.parts.push_back(part);
        }
        capture_.parts[0].drops = {5, 6};
    }

    path_t raw(const std::string &probe, const std::string &rest) const
    {
        return path_t(scratch_.path(probe)) / (ID + rest);
    }
    path_t sealed(const std::string &name = sealed_name(parse_ulid(ID).value())) const
    {
        return capture_directory(sealing_.root, capture_.id) / name;
    }
    verdict_t verdict() const { return verify_path(sealed("").parent_path()).at(0); }
    manifest_t manifest() const { return parse_manifest(file_bytes(sealed(MANIFEST_NAME))); }
    std::unique_ptr<archive_t> archive() const { return make_archive(archive_settings_, probes_); }

    temp_dir_t scratch_;
    archive_settings_t archive_settings_;
    std::vector<probe_settings_t> probes_;
    capture_t capture_;
    sealing_t sealing_;
};

std::string output_of(const std::string &command)
{
    std::string output;
    FILE *stream = popen(command.c_str(), "r");
    for (int c = fgetc(stream); c != EOF; c = fgetc(stream)) {
        output += static_cast<char>(c);
    }
    EXPECT_EQ(pclose(stream), 0) << command;
    return output;
}

packets_t sample(const std::string &name, const std::string &scratch)
{
    output_of("editcap -F nsecpcap " KESTRUNE_SOURCE_DIR "/examples/pcaps/" + name + " " + scratch);
    return read_pcap(scratch);
}

// A row of tshark's fields, by name.
std::vector<std::map<std::string, std::string>> dissected(const path_t &file,
                                                          const std::vector<std::string> &fields)
{
    std::string command = "tshark -n -r " + file.string() +
                          " -o ip.defragment:FALSE -o ipv6.defragment:FALSE "
                          "-T fields -E occurrence=f -E separator=';'";
    for (const std::string &field : fields) {
        command += " -e " + field;
    }
    std::vector<std::map<std::string, std::string>> rows;
    std::istringstream lines(output_of(command + " 2>/dev/null"));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream values(line);
        auto &row = rows.emplace_back();
        for (const std::string &field : fields) {
            std::getline(values, row[field], ';');
        }
    }
    return rows;
}

// What tshark counts by conversation (TCP and UDP with ports) is what the summary says.
void expect_conversations(const json_t &summary, const path_t &file)
{
    std::map<std::string, std::pair<uint64_t, uint64_t>> expected;
    const auto rows =
        dissected(file, {"frame.len", "ipv6.src", "ipv6.dst", "ip.src", "ip.dst", "tcp.srcport",
                         "tcp.dstport", "udp.srcport", "udp.dstport", "ip.flags.mf", "ipv6.fraghdr.more"});
    for (auto row : rows) {
        const bool tcp = !row["tcp.srcport"].empty();
        const std::string prefix = tcp ? "tcp" : "udp";
        if (row[prefix + ".srcport"].empty() || !row["ipv6.fraghdr.more"].empty() ||
            row["ip.flags.mf"] == "1") {
            continue;
        }
        std::string ends[] = {row["ip.src"] + row["ipv6.src"] + ' ' + row[prefix + ".srcport"],
                              row["ip.dst"] + row["ipv6.dst"] + ' ' + row[prefix + ".dstport"]};
        std::sort(std::begin(ends), std::end(ends));
        auto &count = expected[prefix + ' ' + ends[0] + ' ' + ends[1]];
        count.first++;
        count.second += std::stoull(row["frame.len"]);
    }
    std::vector<uint64_t> largest;
    for (const auto &[key, count] : expected) {
        largest.push_back(count.second);
    }
    std::sort(largest.rbegin(), largest.rend());
    size_t with_ports = 0;
    for (const json_t &found : summary.at("conversations")) {
        if (found.at("a_port").is_null()) {
            continue;
        }
        std::string ends[] = {
            found.at("a").get<std::string>() + ' ' + std::to_string(found.at("a_port").get<int>()),
            found.at("b").get<std::string>() + ' ' + std::to_string(found.at("b_port").get<int>())};
        std::sort(std::begin(ends), std::end(ends));
        const auto count = expected[found.at("protocol").get<std::string>() + ' ' + ends[0] + ' ' + ends[1]];
        EXPECT_EQ(found["packets"][0].get<uint64_t>() + found["packets"][1].get<uint64_t>(), count.first)
            << found;
        EXPECT_EQ(found["bytes"][0].get<uint64_t>() + found["bytes"][1].get<uint64_t>(), count.second)
            << found;
        EXPECT_EQ(count.second, largest[with_ports++]) << found;
    }
    EXPECT_GE(with_ports, 10U);
}

// Every packet is in the step of its time and in its origin.
void expect_steps(const json_t &summary, const std::vector<std::pair<pcap_record_t, std::string>> &packets)
{
    const uint64_t from = parse_time(summary.at("from").get<std::string>()).value();
    const uint64_t step = summary.at("step_ns");
    std::map<std::string, std::map<uint64_t, uint64_t>> expected;
    for (const auto &[packet, interface] : packets) {
        expected[interface][(packet.timestamp - from) / step]++;
    }
    for (const json_t &origin : summary.at("origins")) {
        const std::string name =
            origin["probe"].get<std::string>() + '/' + origin["origin"].get<std::string>();
        std::map<uint64_t, uint64_t> found;
        EXPECT_LE(origin["packets"].size(), 600U);
        for (size_t i = 0; i < origin["packets"].size(); i++) {
            origin["packets"][i] != 0 ? void(found[i] = origin["packets"][i]) : void();
        }
        EXPECT_EQ(found, expected[name]) << name;
    }
    EXPECT_GT(summary.at("origins").at(0).at("packets").size(), 100U) << "coarser than it needs to be";
}

TEST_F(ArchiveTest, SealsRealCapturesOfThreeProbesForAnyReader)
{
    const packets_t web = sample("web-dualstack-tls.pcap", scratch_.path("web"));
    const packets_t fragments = sample("ipv6-fragments.pcap", scratch_.path("fragments"));
    const packets_t tags = sample("vlan-qinq-icmp.pcap", scratch_.path("tags"));
    std::vector<std::pair<pcap_record_t, std::string>> expected; // with the interface's name
    const auto put = [&](const char *probe, const std::string &rest, const char *origin,
                         const packets_t &packets) {
        write_file(raw(probe, rest), raw_bytes(packets));
        packets_t sorted = packets;
        std::stable_sort(sorted.begin(), sorted.end(),
                         [](const auto &a, const auto &b) { return a.timestamp < b.timestamp; });
        for (const pcap_record_t &packet : sorted) {
            expected.emplace_back(packet, std::string(probe) + '/' + origin);
        }
    };
    // In the order that equal times have in the sealed file. The live file of the north is that of two queues, one of
    // them late.
    packets_t late;
    for (size_t i = 0; i < web.size(); i++) {
        late.push_back(web[i % 2 == 0 ? i : i - std::min<size_t>(i, 40)]);
    }
    put("north", "_7_hc_2", "history-2", fragments);
    put("north", "_7_hc_10", "history-10", tags);
    put("north", "_7_1", "live", late);
    put("east", "_0_hc_0", "history-0", web);
    put("east", "_0", "live", fragments);
    put("south", "_3", "live", tags);
    std::stable_sort(expected.begin(), expected.end(),
                     [](const auto &a, const auto &b) { return a.first.timestamp < b.first.timestamp; });
    write_file(raw("south", "_x"), "not a name that the plugin gives");

    const sealed_t result = archive()->seal(capture_, [] { return false; });
    EXPECT_EQ(result.file.packets, expected.size());
    EXPECT_EQ(result.parts.at(0).live_packets, web.size());
    EXPECT_EQ(result.parts.at(0).history_packets, fragments.size() + tags.size());
    EXPECT_TRUE(verdict().good) << verdict().text;

    // Packets by libpcap's form that editcap makes of it, interfaces by tshark.
    output_of("editcap -F nsecpcap " + sealed().string() + " " + scratch_.path("back"));
    const packets_t back = read_pcap(scratch_.path("back"));
    const auto rows = dissected(sealed(), {"frame.interface_name"});
    ASSERT_EQ(back.size(), expected.size());
    ASSERT_EQ(rows.size(), expected.size());
    for (size_t i = 0; i < expected.size(); i++) {
        ASSERT_EQ(back[i], expected[i].first) << i;
        ASSERT_EQ(rows[i].at("frame.interface_name"), expected[i].second) << i;
    }
    const std::string information = output_of("capinfos " + sealed().string());
    EXPECT_NE(information.find("nanoseconds (9)"), std::string::npos) << information;
    EXPECT_NE(information.find("Reason: a reason"), std::string::npos) << information;

    const json_t summary = json_t::parse(archive()->summary_text(capture_.id));
    EXPECT_EQ(summary.at("packets"), expected.size());
    expect_conversations(summary, sealed());
    expect_steps(summary, expected);

    EXPECT_TRUE(archive()->remove_raw(capture_.id));
    EXPECT_TRUE(std::filesystem::exists(raw("south", "_x"))) << "nobody's file";
    EXPECT_EQ(archive()->raw_files("north").size(), 0U);
    EXPECT_EQ(archive()->find(capture_.id)->file.sha256, result.file.sha256);
    EXPECT_EQ(archive()->seal(capture_, {}).manifest_sha256, result.manifest_sha256) << "not sealed anew";
}

// A file of a probe that was killed, or of a full disk, at each of its bytes.
TEST_F(ArchiveTest, ReadsTornFilesUpToTheCutAndSaysSo)
{
    const packets_t packets = numbered_packets(3);
    const std::string whole = raw_bytes(packets);
    capture_.parts[0].said_live = 3;
    std::vector<size_t> ends = {raw_bytes({}).size()};
    for (const pcap_record_t &packet : packets) {
        ends.push_back(ends.back() + 16 + packet.data.size());
    }
    for (size_t size = 0; size <= whole.size(); size++) {
        write_file(raw("north", "_0"), whole.substr(0, size));
        std::filesystem::remove_all(sealed("").parent_path());
        const auto count =
            static_cast<size_t>(std::upper_bound(ends.begin(), ends.end(), size) - ends.begin());
        const sealed_t result = seal_capture(capture_, sealing_);
        const manifest_part_t part = manifest().parts.at(0);
        ASSERT_EQ(result.file.packets, count == 0 ? 0 : count - 1) << size;
        ASSERT_EQ(part.sources.at(0).torn, std::find(ends.begin(), ends.end(), size) == ends.end()) << size;
        ASSERT_EQ(part.differences.size(), size_t{part.sources.at(0).torn} + (count != 4)) << size;
        ASSERT_FALSE(part.sources.at(0).kept);
        ASSERT_TRUE(verdict().good) << size << verdict().text;
    }
}

// Bytes in the middle that no probe writes: read up to there, and the raw file stays.
TEST_F(ArchiveTest, KeepsADamagedRawFile)
{
    const std::pair<size_t, uint32_t> damages[] = {{0, 0xa1b2c3d4},
                                                   {24 + 16 + 20 + 4, 1'000'000'000},
                                                   {24 + 16 + 20 + 8, 65536},
                                                   {24 + 16 + 20 + 12, 3}};
    for (const auto &[at, value] : damages) {
        std::string bytes = raw_bytes(numbered_packets(3));
        bytes.replace(at, 4, reinterpret_cast<const char *>(&value), 4);
        write_file(raw("north", "_0"), bytes);
        std::filesystem::remove_all(sealed("").parent_path());
        EXPECT_EQ(archive()->seal(capture_, [] { return false; }).file.packets, at == 0 ? 0U : 1U);
        EXPECT_TRUE(manifest().parts.at(0).sources.at(0).kept);
        EXPECT_TRUE(archive()->remove_raw(capture_.id));
        EXPECT_EQ(file_bytes(raw("north", "_0")), bytes);
    }
}

TEST_F(ArchiveTest, FindsEveryChangedByte)
{
    write_file(raw("north", "_0"), raw_bytes(numbered_packets(4)));
    write_file(raw("east", "_0_hc_0"), raw_bytes(numbered_packets(4)));
    seal_capture(capture_, sealing_);
    ASSERT_TRUE(verdict().good) << verdict().text;
    for (const path_t &path : {sealed(), sealed(SUMMARY_NAME), sealed(MANIFEST_NAME)}) {
        const std::string bytes = file_bytes(path);
        std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
        for (size_t at = 0; at < bytes.size(); at++) {
            const auto offset = static_cast<std::streamoff>(at);
            file.seekp(offset).put(static_cast<char>(bytes[at] ^ 1)).flush();
            ASSERT_FALSE(verdict().good) << path << at;
            file.seekp(offset).put(bytes[at]).flush();
        }
        for (const std::string &changed : {bytes + "x", bytes.substr(0, bytes.size() - 1), std::string()}) {
            write_file(path, changed);
            ASSERT_FALSE(verdict().good) << path;
        }
        std::filesystem::remove(path);
        EXPECT_FALSE(verdict().good);
        write_file(path, bytes);
    }
    ASSERT_TRUE(verdict().good);
}

// The process dies behind each step. Raw or sealed files are there, and the next attempt comes to the same end.
TEST_F(ArchiveTest, LeavesRawOrSealedFilesWhereverItDies)
{
    const std::string bytes = raw_bytes(numbered_packets(50));
    for (int last = 1; last <= 8; last++) {
        std::filesystem::remove_all(sealed("").parent_path());
        write_file(raw("north", "_0"), bytes);
        const pid_t child = fork();
        if (child == 0) {
            sealing_.after_step = [last](int step) { step == last ? _exit(step) : void(); };
            seal_capture(capture_, sealing_);
            _exit(0);
        }
        int status = 0;
        waitpid(child, &status, 0);
        ASSERT_EQ(WEXITSTATUS(status), last);
        EXPECT_EQ(file_bytes(raw("north", "_0")), bytes) << last;
        EXPECT_EQ(archive()->find(capture_.id).has_value(), last == 8) << last;
        EXPECT_EQ(archive()->remove_raw(capture_.id), last == 8) << "the sweep; " << last;
        EXPECT_EQ(archive()->seal(capture_, [] { return false; }).file.packets, 50U) << last;
        EXPECT_TRUE(verdict().good) << last << verdict().text;
        EXPECT_TRUE(archive()->remove_raw(capture_.id));
        for (const auto &entry : std::filesystem::directory_iterator(sealed("").parent_path())) {
            EXPECT_NE(entry.path().extension(), ".part") << last;
        }
    }
}

TEST_F(ArchiveTest, BeginsAnewWhenARawFileComesOrChangesMeanwhile)
{
    write_file(raw("north", "_0"), raw_bytes(numbered_packets(2)));
    int changes = 0;
    sealing_.after_step = [&](int step) {
        if (step == 5 && ++changes <= 2) {
            write_file(raw("east", "_" + std::to_string(changes)), raw_bytes(numbered_packets(3)));
        }
    };
    EXPECT_EQ(seal_capture(capture_, sealing_).file.packets, 2U + 3 + 3);
    EXPECT_EQ(manifest().parts.at(1).sources.size(), 2U);
    write_file(raw("east", "_1"), raw_bytes(numbered_packets(4))); // after the sealing
    EXPECT_FALSE(archive()->remove_raw(capture_.id));
    EXPECT_EQ(archive()->raw_files("east").size(), 1U) << "it is not the one that was sealed";

    std::filesystem::remove_all(sealed("").parent_path());
    changes = -100;
    sealing_.after_step = [&](int step) {
        step == 5 ? write_file(raw("east", "_1"), raw_bytes(numbered_packets(uint32_t(++changes + 200))))
                  : void();
    };
    EXPECT_THROW(seal_capture(capture_, sealing_), archive_error_t);
    EXPECT_FALSE(std::filesystem::exists(sealed()));
}

TEST_F(ArchiveTest, DeletesWhatNobodyReadsAndKeepsTheManifest)
{
    write_file(raw("north", "_0"), raw_bytes(numbered_packets(2)));
    const std::unique_ptr<archive_t> archive = this->archive();
    archive->seal(capture_, [] { return false; });
    const std::string manifest = archive->manifest_text(capture_.id);
    const auto failure = [&](auto work) {
        try {
            work();
        } catch (const archive_error_t &error) {
            return error.failure();
        }
        return archive_failure_t::BROKEN;
    };
    {
        const std::unique_ptr<reading_t> reading = archive->open_pcap(capture_.id);
        EXPECT_EQ(reading->size(), std::filesystem::file_size(sealed()));
        EXPECT_TRUE(archive->is_read(capture_.id));
        EXPECT_EQ(failure([&] { archive->bury(capture_.id, "quota", 5); }), archive_failure_t::BUSY);
    }
    for (int again = 0; again < 2; again++) {
        archive->bury(capture_.id, "quota", 5);
        EXPECT_EQ(archive->manifest_text(capture_.id), manifest);
        EXPECT_EQ(failure([&] { archive->open_pcap(capture_.id); }), archive_failure_t::MISSING);
        EXPECT_EQ(failure([&] { archive->summary_text(capture_.id); }), archive_failure_t::MISSING);
        EXPECT_FALSE(archive->find(capture_.id));
        EXPECT_TRUE(verdict().good) << verdict().text;
        EXPECT_NE(verdict().text.find("deleted at 1970-01-01T00:00:00.000000005Z (quota)"),
                  std::string::npos);
    }
}

// Disorder beyond any window, more inputs than are merged at once, cut ends: as a stable sort of everything.
TEST_F(ArchiveTest, MergesAnyOrderOfAnyNumberOfFiles)
{
    struct sink_t : packet_sink_t {
        void begin() override { records.clear(); }
        void add(const record_t &record) override
        {
            records.emplace_back(
                pcap_record_t{record.time_ns, record.length,
                              std::string(reinterpret_cast<const char *>(record.data), record.captured)},
                record.origin);
        }
        std::vector<std::pair<pcap_record_t, uint32_t>> records;
    };
    std::mt19937 random(20261123);
    const auto below = [&](uint32_t limit) { return std::uniform_int_distribution(0U, limit - 1)(random); };
    for (const auto &[files, most, size, jump] :
         {std::tuple(3U, 40U, 65'536U, 30U), std::tuple(230U, 8U, 3'000U, 30U),
          std::tuple(2U, 20'000U, 60U, 5U), std::tuple(1U, 30'000U, 80U, 40'000U)}) {
        sink_t expected;
        std::vector<merge_input_t> inputs;
        std::vector<uint64_t> counts;
        for (uint32_t i = 0; i < files; i++) {
            packets_t packets;
            for (uint32_t n = most / 2 + below(most); n > 0; n--) {
                const uint64_t time = 1000 * NS_PER_S + packets.size() * 2 + below(jump);
                packets.push_back({time, 65'535, std::string(below(size), static_cast<char>(n))});
            }
            const path_t path = scratch_.path(std::to_string(i));
            write_file(path, raw_bytes(packets) + std::string(below(2) * 9, 'x'));
            inputs.push_back({[path] { return open_file(AT_FDCWD, path); }, path, i});
            counts.push_back(packets.size());
            for (const pcap_record_t &packet : packets) {
                expected.records.emplace_back(packet, i);
            }
        }
        std::stable_sort(expected.records.begin(), expected.records.end(),
                         [](const auto &a, const auto &b) { return a.first.timestamp < b.first.timestamp; });
        sink_t found;
        const auto results =
            merge_inputs(inputs, {size_t{256} << 10, scratch_.path(), [] { return false; }}, &found);
        for (size_t i = 0; i < files; i++) {
            EXPECT_EQ(results[i].packets, counts[i]) << i;
        }
        EXPECT_TRUE(found.records == expected.records) << files;
        EXPECT_FALSE(std::filesystem::exists(scratch_.path("merge.run")));
        EXPECT_THROW(merge_inputs(inputs, {size_t{256} << 10, scratch_.path(), [] { return true; }}, &found),
                     stopped_t);
    }
}

// A million packets (ten with KESTRUNE_LONG) of three files, one of them in no order at all. In a child, whose peak
// counts beside that of one that does nothing.
TEST_F(ArchiveTest, SealsAnyNumberOfPacketsIn64MiB)
{
    const uint64_t count = std::getenv("KESTRUNE_LONG") != nullptr ? 10'000'000 : 1'000'000;
    for (const char *probe : {"north", "east", "south"}) {
        std::mt19937 random(1);
        std::ofstream file(raw(probe, "_0"), std::ios::binary);
        file << raw_bytes({});
        for (uint64_t i = 0; i < count / 3; i++) {
            const uint64_t time = probe[0] == 's' ? random() : i * 1000;
            file << raw_bytes({{NS_PER_S + time, 60, std::string(60, '\0')}}).substr(raw_bytes({}).size());
        }
    }
    std::array<int64_t, 2> peaks_kib = {};
    for (const bool seals : {false, true}) {
        const pid_t child = fork();
        if (child == 0) {
            _exit(seals ? int{seal_capture(capture_, sealing_).file.packets != count / 3 * 3} : 0);
        }
        int status = 0;
        rusage usage = {};
        wait4(child, &status, 0, &usage);
        ASSERT_EQ(status, 0);
        peaks_kib[seals] = usage.ru_maxrss;
    }
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LT(peaks_kib[1] - peaks_kib[0], 64 << 10);
#endif
    EXPECT_TRUE(verdict().good) << verdict().text;
    RecordProperty("peak_kib", std::to_string(peaks_kib[1] - peaks_kib[0]));
}

TEST(RetentionTest, DeletesTheOldestForAgeThenQuotaThenRoom)
{
    constexpr uint64_t DAY = 86'400 * NS_PER_S;
    std::vector<sealed_entry_t> oldest;
    for (uint8_t i = 0; i < 6; i++) {
        oldest.push_back({ulid_t{{i}}, (i + 1) * DAY, 100});
    }
    struct case_t {
        uint64_t raw, room, quota, min_free, free;
        uint32_t days;
        std::string causes;
        room_t left;
    };
    const case_t cases[] = {
        {0, 1000, 0, 0, 1000, 0, "", room_t::ENOUGH},
        {0, 1000, 0, 0, 1000, 8, "older than 8 days,older than 8 days,", room_t::ENOUGH},
        {0, 1000, 640, 0, 1000, 0, "", room_t::ENOUGH},
        {1, 1000, 640, 0, 1000, 0, "quota,", room_t::NO_NEW},
        {400, 1000, 640, 0, 1000, 9, "older than 9 days,quota,quota,quota,", room_t::END_RUNNING},
        {0, 99, 0, 300, 99, 0, "free space,free space,free space,", room_t::END_RUNNING},
        {0, 300, 0, 300, 299, 0, "", room_t::NO_NEW}, // a probe's disk, where deleting does not help
    };
    for (const case_t &one : cases) {
        archive_view_t view;
        view.bytes = 600;
        view.raw_bytes = one.raw;
        view.archive_free_bytes = one.room;
        view.free_bytes = one.free;
        view.min_free_bytes = one.min_free;
        view.quota_bytes = one.quota == 0 ? std::nullopt : std::optional(one.quota);
        std::string causes;
        for (const victim_t &victim :
             choose_victims(oldest, view, {"", one.quota, one.min_free, one.days}, 11 * DAY - 1)) {
            causes += victim.cause + ',';
        }
        EXPECT_EQ(causes, one.causes);
        EXPECT_EQ(room_left(view), one.left);
    }
}

// In a mount namespace of its own, where the archive is a file system of 2 MiB.
TEST_F(ArchiveTest, LosesNothingOnAFileSystemThatFills)
{
    const pid_t child = fork();
    if (child == 0) {
        if (unshare(CLONE_NEWNS | (geteuid() == 0 ? 0 : CLONE_NEWUSER)) != 0 ||
            mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("none", sealing_.root.c_str(), "tmpfs", 0, "size=2m") != 0) {
            _exit(77);
        }
        archive_settings_.min_free_bytes = 2;
        const std::unique_ptr<archive_t> archive = this->archive();
        std::vector<sealed_entry_t> entries;
        ulid_maker_t ids(capture_.id);
        bool full = false;
        for (int i = 0; i < 12 && !full; i++) {
            capture_.id = ids.make(0);
            const path_t file = path_t(scratch_.path("north")) / (capture_.id.text() + "_0");
            write_file(file, raw_bytes(packets_t(5, {1, 60'000, std::string(60'000, 'x')})));
            try {
                const sealed_t sealed = archive->seal(capture_, [] { return false; });
                entries.push_back({capture_.id, sealed.sealed_at, sealed.file.bytes});
                EXPECT_TRUE(archive->remove_raw(capture_.id));
            } catch (const archive_error_t &error) {
                full = error.failure() == archive_failure_t::FULL;
                EXPECT_TRUE(full) << error.what();
                EXPECT_TRUE(std::filesystem::exists(file)) << "the only copy";
            }
        }
        EXPECT_TRUE(full);
        for (const verdict_t &verdict : verify_path(sealing_.root)) {
            EXPECT_EQ(verdict.good, verdict.path.string().find(capture_.id.text()) == std::string::npos)
                << verdict.text;
        }
        archive_view_t view = archive->measure(0, 0, 0, 400'000);
        EXPECT_EQ(view.room, room_t::END_RUNNING);
        for (const victim_t &victim : choose_victims(entries, view, archive_settings_, 1)) {
            archive->bury(victim.id, victim.cause, 1);
        }
        EXPECT_EQ(archive->measure(0, 0, 0, 400'000).room, room_t::ENOUGH);
        EXPECT_EQ(archive->seal(capture_, [] { return false; }).file.packets, 5U);
        _exit(HasFailure() ? 1 : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (WEXITSTATUS(status) == 77) {
        GTEST_SKIP() << "no mount namespace here";
    }
    EXPECT_EQ(status, 0);
}

TEST(RawNameTest, TakesOnlyTheNamesThatThePluginGives)
{
    const std::pair<const char *, const char *> names[] = {{"_0", "live"},
                                                           {"_4294967295_12", "live"},
                                                           {"_7_hc_63", "history-63"},
                                                           {"_7_1_hc_0", "history-0"},
                                                           {"", ""},
                                                           {"_", ""},
                                                           {"_00", ""},
                                                           {"_7_", ""},
                                                           {"_7_hc_", ""},
                                                           {"_7_hc_1_", ""},
                                                           {"_7_1_2", ""},
                                                           {"_4294967296", ""},
                                                           {"_-1", ""},
                                                           {"_7_hc_1_hc_2", ""},
                                                           {"_7.part", ""}};
    for (const auto &[rest, origin] : names) {
        const auto parsed = parse_raw_name(std::string(ID) + rest);
        EXPECT_EQ(parsed ? parsed->origin() : "", origin) << rest;
    }
}

} // namespace
