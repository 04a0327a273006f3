// The configuration: its defaults are those of the documented file, and each error names its line.
#include "config/settings.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

namespace kestrune::manager {
namespace {

namespace fs = std::filesystem;

class ManagerConfig : public testing::Test {
protected:
    void SetUp() override
    {
        folder_ = fs::temp_directory_path() / ("kestrune-config-" + std::to_string(getpid()));
        fs::create_directories(folder_ / "captures");
        fs::create_directories(folder_ / "other");
        before_ = fs::current_path();
        fs::current_path(folder_);
    }
    void TearDown() override
    {
        fs::current_path(before_);
        fs::remove_all(folder_);
    }

    settings_t read(const std::string &text) const
    {
        std::ofstream(folder_ / "m.toml") << text;
        return read_settings("m.toml", "state");
    }
    std::string error_of(const std::string &text) const
    {
        try {
            (void)read(text);
            return "";
        } catch (const settings_error_t &error) {
            return error.what();
        }
    }

    fs::path folder_;
    fs::path before_;
};

TEST_F(ManagerConfig, DocumentedFileHasTheDefaults)
{
    std::ifstream file(KESTRUNE_SOURCE_DIR "/docs/manager.toml");
    const std::string text((std::istreambuf_iterator<char>(file)), {});
    const settings_t documented = read(text);
    const settings_t standard = read_settings("", "state");
    EXPECT_EQ(documented.probes, standard.probes);
    EXPECT_EQ(documented.probes.at(0).files, folder_ / "captures");
    EXPECT_EQ(documented.http.host + std::to_string(documented.http.port), "127.0.0.18564");
    EXPECT_EQ(documented.limits.most, standard.limits.most);
    EXPECT_EQ(documented.limits.standard, standard.limits.standard);
    EXPECT_EQ(documented.archive.min_free_bytes, standard.archive.min_free_bytes);
    EXPECT_EQ(standard.archive.directory, folder_ / "state/archive");
    EXPECT_EQ(standard.http.token_file, folder_ / "state/tokens");
}

TEST_F(ManagerConfig, ErrorsHaveFileLineAndKey)
{
    const std::string probe = "[[probe]]\nname = \"a\"\naddress = \"127.0.0.1\"\n"; // lines 1 to 3
    const struct {
        std::string text;
        std::string error; // the beginning; empty: none
    } cases[] = {
        {"[http]\nlisten = \"127.0.0.1:80\"\nlistem = 1\n", "m.toml:3: there is no key http.listem"},
        {"\n[htpp]\n", "m.toml:2: there is no key htpp"},
        {"[http]\nlisten = 8564\n", "m.toml:2: http.listen is to be a string"},
        {"[http]\nlisten = \"localhost:80\"\n", "m.toml:2: http.listen"},
        {"[http]\nlisten = \"127.0.0.1:65536\"\n", "m.toml:2: http.listen"},
        {"[http]\nlisten = \"::1:80\"\n", "m.toml:2: http.listen"},
        {"[http]\nlisten = \"[::1]:80\"\n", ""},
        {"[http]\nlisten = \"0.0.0.0:80\"\n", "m.toml:2: http.listen is beyond loopback"},
        {"[http]\nlisten = \"0.0.0.0:80\"\ninsecure = true\n", ""},
        {"[http]\nnames = [\"a\",\n\"b:80\"]\n", "m.toml:3: http.names"},
        {"[http\n", "m.toml:1: "},
        {"[limits]\npackets = 0\n", "m.toml:2: limits.packets"},
        {"[limits]\npackets = 4294967296\n", "m.toml:2: limits.packets"},
        {"[limits]\nmax_seconds = 604801\n", "m.toml:2: limits.max_seconds"},
        {"[limits]\n\nmax_packets = 5\n", "m.toml:3: limits.packets is above limits.max_packets"},
        {"[archive]\nquota_mb = -1\n", "m.toml:2: archive.quota_mb"},
        {"[archive]\ndirectory = \"m.toml\"\n", "m.toml:2: "},
        {"[probe]\nname = \"a\"\n", "m.toml:1: probe is to be an array of tables"},
        {"\n[[probe]]\nname = \"a\"\n", "m.toml:2: a [[probe]] needs"},
        {probe, ""},
        {probe + "files = \"nowhere\"\n",
         "m.toml:4: " + (folder_ / "nowhere").string() + ": No such file or directory"},
        {probe + "files = \"m.toml\"\n", "m.toml:4: "},
        {probe + "metrics = \"https://x/\"\n", "m.toml:4: probe.metrics"},
        {probe + "[[probe]]\nname = \"a\"\naddress = \"127.0.0.2\"\n",
         "m.toml:5: two probes have the name a"},
        {probe + "[[probe]]\nname = \"b\"\naddress = \"127.0.0.1:37564\"\n", "m.toml:5: the probes a and b"},
        {probe +
             "files = \"other\"\n[[probe]]\nname = \"b\"\naddress = \"::1\"\nfiles = \"captures/../other\"\n",
         "m.toml:6: the probes a and b have the same files"},
        {"[[probe]]\nname = \"a/b\"\naddress = \"::1\"\n", "m.toml:2: probe.name"},
        {"[[probe]]\nname = \"..\"\naddress = \"::1\"\n", "m.toml:2: probe.name"},
        {"[[probe]]\nname = \"a\"\naddress = \"127.0.0.1:x\"\n", "m.toml:3: probe.address"},
    };
    for (const auto &[text, error] : cases) {
        const std::string found = error_of(text);
        EXPECT_EQ(found.substr(0, error.size()), error) << text;
        EXPECT_TRUE(!error.empty() || found.empty()) << text << found;
    }
}

TEST_F(ManagerConfig, MetricsUrlIsTakenApart)
{
    const auto url = [this](const std::string &text) {
        const probe_settings_t probe =
            read("[[probe]]\nname = \"a\"\naddress = \"::1\"\nmetrics = \"" + text + "\"\n").probes.at(0);
        return probe.metrics->text() + " " + probe.metrics_path;
    };
    EXPECT_EQ(url("http://127.0.0.1:9564/metrics?a=b"), "127.0.0.1:9564 /metrics?a=b");
    EXPECT_EQ(url("http://[::1]"), "[::1]:80 /");
}

} // namespace
} // namespace kestrune::manager
