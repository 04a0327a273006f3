// What kestrune.so exports, imports and needs, as binutils reads it from the file.
#include <array>
#include <cstdio>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr const char *LIBRARY = KESTRUNE_BUILD_DIR "/kestrune.so";

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif

std::vector<std::string> lines_of(const std::string &command)
{
    std::string output;
    FILE *pipe = popen((command + " " + LIBRARY).c_str(), "re");
    std::array<char, 4096> part;
    for (size_t got = 0; (got = fread(part.data(), 1, part.size(), pipe)) > 0;) {
        output.append(part.data(), got);
    }
    EXPECT_EQ(pclose(pipe), 0) << command;
    std::vector<std::string> lines;
    std::istringstream text(output);
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line);
    }
    return lines;
}

TEST(Symbols, ExactlyTheInterfaceIsExported)
{
    const std::set<std::string> functions = {"plugin_process_desc",
                                             "plugin_process_init",
                                             "plugin_process_init_queue",
                                             "plugin_process_filter",
                                             "plugin_process_update",
                                             "plugin_process_shutdown",
                                             "fhf_init",
                                             "fhf_destroy",
                                             "fhf_clear",
                                             "fhf_init_iter",
                                             "fhf_reinit_iter",
                                             "fhf_destroy_iter",
                                             "fhf_hash",
                                             "fhf_hash_div8",
                                             "fhf_hash_40"};
    const std::set<std::string> variables = {
        "vantor_api_version",  "plugin_type",       "default_buffer_size", "hc_heavy_size",
        "local_verbose_level", "ks_capture_script", "ks_exp_file_path",    "ks_exp_file_path_len",
        "fhf_lt_free_flag",    "fhf_lt_pow_of_two"};
    std::set<std::string> found_functions;
    std::set<std::string> found_variables;
    for (const std::string &line : lines_of("nm -D --defined-only")) {
        std::istringstream fields(line);
        std::string address;
        std::string name;
        char kind = 0;
        fields >> address >> kind >> name;
        ASSERT_NE(std::string("TDBR").find(kind), std::string::npos) << line;
        (kind == 'T' ? found_functions : found_variables).insert(name);
    }
    EXPECT_EQ(found_functions, functions);
    EXPECT_EQ(found_variables, variables);
}

TEST(Symbols, TheHostProvidesThreeOfThemAndTheRuntimeTheRest)
{
    if (SANITIZED) {
        GTEST_SKIP() << "the sanitizers add their own";
    }
    std::set<std::string> of_the_host; // what no library has versioned
    for (const std::string &line : lines_of("nm -D --undefined-only")) {
        std::istringstream fields(line);
        char kind = 0;
        std::string name;
        fields >> kind >> name;
        // Nothing of the plugin throws or allocates in a way that throws.
        EXPECT_NE(name.rfind("_Zn", 0), 0U) << name;
        EXPECT_NE(name.rfind("__cxa_throw", 0), 0U) << name;
        if (name.find('@') != std::string::npos) {
            continue;
        }
        if (kind == 'U') {
            of_the_host.insert(name);
        } else { // weak: markers of the compiler's start files
            EXPECT_TRUE(name == "__gmon_start__" || name.rfind("_ITM_", 0) == 0) << line;
        }
    }
    EXPECT_EQ(of_the_host, (std::set<std::string>{"config_set_values", "verbose_msg", "verbose_level"}));
}

TEST(Symbols, OnlyTheRuntimeIsNeeded)
{
    if (SANITIZED) {
        GTEST_SKIP() << "the sanitizers add their own";
    }
    const std::set<std::string> runtime = {"libc.so.6",
                                           "libm.so.6",
                                           "libgcc_s.so.1",
                                           "libstdc++.so.6",
                                           "ld-linux-x86-64.so.2",
                                           "ld-linux-aarch64.so.1"};
    int needed = 0;
    for (const std::string &line : lines_of("readelf --dynamic --wide")) {
        if (line.find("(NEEDED)") == std::string::npos) {
            EXPECT_EQ(line.find("(TEXTREL)"), std::string::npos);
            EXPECT_EQ(line.find("(RPATH)"), std::string::npos);
            EXPECT_EQ(line.find("(RUNPATH)"), std::string::npos);
            continue;
        }
        const size_t open = line.find('[');
        const std::string name = line.substr(open + 1, line.find(']') - open - 1);
        EXPECT_EQ(runtime.count(name), 1U) << name;
        needed++;
    }
    EXPECT_GE(needed, 1);
}

} // namespace
