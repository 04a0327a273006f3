#include "archive/differences.h"

#include <algorithm>

namespace kestrune::manager {

namespace {

std::string packets_text(uint64_t packets)
{
    return std::to_string(packets) + (packets == 1 ? " packet" : " packets");
}

bool is_cut(const manifest_source_t &source)
{
    return source.torn || source.kept;
}

// `is_cut`: a file of this origin could not be read to its end.
void compare(const char *what, const said_found_t &counts, bool is_cut, std::vector<std::string> *sentences)
{
    if (!counts.said || !counts.found || *counts.said == *counts.found) {
        return;
    }
    const std::string begin = "The probe counted " + packets_text(*counts.said) + " of the " + what +
                              ", the files hold " + std::to_string(*counts.found) + ": ";
    if (*counts.found > *counts.said) {
        sentences->push_back(begin + "its last count came before its end.");
    } else {
        const std::string missing = packets_text(*counts.said - *counts.found);
        sentences->push_back(begin + missing + (is_cut ? " not written, or behind a cut." : " not written."));
    }
}

} // namespace

std::vector<std::string> differences_of(const manifest_part_t &part)
{
    std::vector<std::string> sentences;
    for (const manifest_source_t &source : part.sources) {
        if (source.torn) {
            sentences.push_back(source.name + " is torn behind " + packets_text(source.packets) +
                                ": the disk was full, or the probe ended while it wrote.");
        }
        if (source.kept) {
            sentences.push_back(source.name + " is damaged behind " + packets_text(source.packets) +
                                ": it was read up to there and is kept where it lies.");
        }
    }
    const auto cut = [&](bool live) {
        return std::any_of(part.sources.begin(), part.sources.end(), [&](const manifest_source_t &source) {
            return (source.origin == "live") == live && is_cut(source);
        });
    };
    compare("live capture", part.live, cut(true), &sentences);
    compare("history", part.history, cut(false), &sentences);
    return sentences;
}

} // namespace kestrune::manager
