#include "archive/merge.h"

#include <algorithm>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <span>

namespace kestrune::manager {

namespace {

// A raw file, or the run that took the place of one or several.
struct source_t {
    const merge_input_t *input = nullptr; // null: a run
    merge_count_t *count = nullptr;       // of the raw file
    fd_t run;
};

// The run as a sink, for rounds.
class run_sink_t : public packet_sink_t {
public:
    explicit run_sink_t(const std::filesystem::path &scratch) : scratch_(scratch) {}
    void begin() override { run_.emplace(scratch_); }
    void add(const record_t &record) override { run_->add(record); }
    fd_t finish() { return run_->finish(); }

private:
    const std::filesystem::path scratch_;
    std::optional<run_writer_t> run_;
};

class merger_t {
public:
    explicit merger_t(const merge_settings_t &settings) : settings_(settings) {}
    void merge_all(std::vector<source_t> sources, packet_sink_t *sink);

private:
    using inputs_t = std::vector<std::unique_ptr<sorted_input_t>>;
    // The first input that each record may come from, in the order of the next records.
    struct head_t {
        uint64_t time_ns;
        size_t input;
        auto operator<=>(const head_t &) const = default;
    };

    void merge_some(std::span<source_t> sources, packet_sink_t *sink);
    bool try_merge(std::span<source_t> sources, packet_sink_t *sink);
    bool step(sorted_input_t *input, size_t index);
    void sift_down();
    void sort_source(source_t *source);
    bool is_in_order(const source_t &source, size_t window);
    std::unique_ptr<sorted_input_t> open(const source_t &source, size_t window) const;
    void stop_when_asked() const
    {
        if (settings_.stop()) {
            throw stopped_t();
        }
    }

    const merge_settings_t &settings_;
    std::vector<head_t> heads_; // a heap, the next record's at the front
};

std::unique_ptr<sorted_input_t> merger_t::open(const source_t &source, size_t window) const
{
    if (source.input != nullptr) {
        return std::make_unique<sorted_input_t>(source.input->open(), source.input->name,
                                                source.input->origin, window);
    }
    fd_t copy(fcntl(source.run.get(), F_DUPFD_CLOEXEC, 0));
    if (copy.get() < 0) {
        fail_errno("run");
    }
    return std::make_unique<sorted_input_t>(std::move(copy), "run", std::nullopt, window);
}

// Groups of neighbours keep the order of equal times.
void merger_t::merge_all(std::vector<source_t> sources, packet_sink_t *sink)
{
    while (sources.size() > INPUTS_MAX) {
        std::vector<source_t> merged;
        for (size_t begin = 0; begin < sources.size(); begin += INPUTS_MAX) {
            const size_t count = std::min(INPUTS_MAX, sources.size() - begin);
            run_sink_t run(settings_.scratch);
            merge_some(std::span(sources).subspan(begin, count), &run);
            merged.push_back({nullptr, nullptr, run.finish()});
        }
        sources = std::move(merged);
    }
    merge_some(sources, sink);
}

// Files in order are the rule, so this is found out by trying; after the first surprise all of them are looked at.
void merger_t::merge_some(std::span<source_t> sources, packet_sink_t *sink)
{
    if (try_merge(sources, sink)) {
        return;
    }
    const size_t window = settings_.memory / sources.size();
    for (source_t &source : sources) {
        if (source.input != nullptr && !is_in_order(source, window)) {
            sort_source(&source);
        }
    }
    if (!try_merge(sources, sink)) {
        throw std::runtime_error("a raw file changed while it was read");
    }
}

bool merger_t::try_merge(std::span<source_t> sources, packet_sink_t *sink)
{
    sink->begin();
    inputs_t inputs;
    heads_.clear();
    for (const source_t &source : sources) {
        inputs.push_back(open(source, settings_.memory / sources.size()));
        heads_.push_back({0, inputs.size() - 1});
    }
    // Each input is opened at its first record when it comes to the front.
    for (size_t i = 0; i < inputs.size(); i++) {
        const sorted_input_t::step_t step = inputs[i]->next();
        if (step == sorted_input_t::step_t::DISORDER) {
            return false;
        }
        heads_[i].time_ns = step == sorted_input_t::step_t::RECORD ? inputs[i]->record().time_ns : UINT64_MAX;
    }
    std::erase_if(heads_, [](const head_t &head) { return head.time_ns == UINT64_MAX; });
    std::make_heap(heads_.begin(), heads_.end(), std::greater<>());
    while (!heads_.empty()) {
        stop_when_asked();
        sorted_input_t *input = inputs[heads_.front().input].get();
        sink->add(input->record());
        if (!step(input, heads_.front().input)) {
            return false;
        }
    }
    for (size_t i = 0; i < sources.size(); i++) {
        if (sources[i].count != nullptr && sources[i].input != nullptr) {
            *sources[i].count = {inputs[i]->packets(), inputs[i]->end()};
        }
    }
    return true;
}

// The front of the heap moves on to its input's next record. False: it is out of order.
bool merger_t::step(sorted_input_t *input, size_t index)
{
    switch (input->next()) {
    case sorted_input_t::step_t::RECORD:
        heads_.front() = {input->record().time_ns, index};
        sift_down();
        return true;
    case sorted_input_t::step_t::END:
        std::pop_heap(heads_.begin(), heads_.end(), std::greater<>());
        heads_.pop_back();
        return true;
    default:
        return false;
    }
}

void merger_t::sift_down()
{
    const head_t moved = heads_.front();
    size_t at = 0;
    for (size_t child = 1; child < heads_.size(); child = 2 * at + 1) {
        if (child + 1 < heads_.size() && heads_[child + 1] < heads_[child]) {
            child++;
        }
        if (!(heads_[child] < moved)) {
            break;
        }
        heads_[at] = heads_[child];
        at = child;
    }
    heads_[at] = moved;
}

bool merger_t::is_in_order(const source_t &source, size_t window)
{
    const std::unique_ptr<sorted_input_t> input = open(source, window);
    for (;;) {
        stop_when_asked();
        switch (input->next()) {
        case sorted_input_t::step_t::END:
            return true;
        case sorted_input_t::step_t::DISORDER:
            return false;
        default:
            break;
        }
    }
}

// Runs by level: as soon as a level has INPUTS_MAX of them they become one of the next. The older ones are in the
// higher levels, so the order of equal times holds, and few descriptors are open however long the file is.
class runs_t {
public:
    runs_t(const merge_settings_t &settings, size_t memory) : settings_(settings)
    {
        settings_.memory = memory;
    }
    void add(fd_t run, size_t level = 0)
    {
        levels_.resize(std::max(levels_.size(), level + 1));
        levels_[level].push_back({nullptr, nullptr, std::move(run)});
        if (levels_[level].size() == INPUTS_MAX) {
            add(merged(std::move(levels_[level])), level + 1);
            levels_[level].clear();
        }
    }
    fd_t finish()
    {
        std::vector<source_t> all;
        for (size_t level = levels_.size(); level > 0; level--) {
            std::move(levels_[level - 1].begin(), levels_[level - 1].end(), std::back_inserter(all));
        }
        return merged(std::move(all));
    }

private:
    fd_t merged(std::vector<source_t> runs) const
    {
        run_sink_t sink(settings_.scratch);
        merger_t(settings_).merge_all(std::move(runs), &sink);
        return sink.finish();
    }
    merge_settings_t settings_;
    std::vector<std::vector<source_t>> levels_;
};

// A piece of half the memory becomes a run. The other half is left for the runs' merge.
void merger_t::sort_source(source_t *source)
{
    const size_t half = settings_.memory / 2;
    runs_t runs(settings_, half);
    const std::unique_ptr<sorted_input_t> input = open(*source, half);
    while (input->begin_piece()) {
        run_writer_t run(settings_.scratch);
        while (input->next_of_piece()) {
            stop_when_asked();
            run.add(input->record());
        }
        runs.add(run.finish());
    }
    *source->count = {input->packets(), input->end()};
    *source = {nullptr, source->count, runs.finish()};
}

} // namespace

std::vector<merge_count_t> merge_inputs(const std::vector<merge_input_t> &inputs,
                                        const merge_settings_t &settings, packet_sink_t *sink)
{
    std::vector<merge_count_t> counts(inputs.size());
    std::vector<source_t> sources;
    for (size_t i = 0; i < inputs.size(); i++) {
        sources.push_back({&inputs[i], &counts[i], fd_t()});
    }
    merger_t(settings).merge_all(std::move(sources), sink);
    return counts;
}

} // namespace kestrune::manager
