#!/usr/bin/env python3
"""Hold the medians of the benches against their goals.

    ratios.py result.json ...      results of storage_bench and live_bench (--benchmark_out=result.json)

Prints a line per goal. The exit status is 1 when a goal is missed or nothing could be compared.
"""
import json
import sys

KEYS = (0, 1, 10, 100, 1000)
SIZES = (64, 512, 1500)


def medians(paths):
    found = {}
    for path in paths:
        with open(path, encoding="utf-8") as file:
            for run in json.load(file)["benchmarks"]:
                if "each" in run and run.get("aggregate_name", "median") == "median":
                    found[run["run_name"].partition("/iterations")[0]] = run["each"]
    return found


def goals():
    """The comparisons: text, numerator, denominator, factor, limit.

    A limit below 0 is a least ratio; of limit 0 the ratio is only told.
    """
    for kind, arg, top, flat in (("look_up", "keys", None, 1.3), ("unwatched", "addresses", 1.5, 1.3)):
        def name(variant, count, threads):
            return f"{kind}/{variant}/{arg}:{count}/threads:{threads}"
        for threads in (1, 2):
            yield (f"{kind}, {threads} threads: 1000 {arg} / 1", name("shared", 1000, threads),
                   name("shared", 1, threads), 1, flat)
        for count in KEYS:
            yield (f"{kind}, 2 threads, {count} {arg}: shared / own", name("shared", count, 2),
                   name("own", count, 2), 1, 1.1)
        for count in KEYS if top else ():
            for threads in (1, 2):
                yield (f"{kind}, {threads} threads, {count} {arg}: path / bare loop",
                       name("shared", count, threads), f"unwatched/floor/threads:{threads}", 1, top)
    yield ("bpf_filter / two look-ups, 1000 addresses", "bpf_filter/hosts:1000",
           "look_up/shared/keys:1000/threads:1", 0.5, -200)
    for count in (1, 100, 1000):
        for rival in ("bpf_filter", "tcpdump"):
            yield (f"{rival} / unwatched packet, {count} addresses", f"{rival}/hosts:{count}",
                   f"unwatched/shared/addresses:{count}/threads:1", 1, 0)
    for count in KEYS:
        yield (f"look_up, 1 threads, {count} keys: always locked / tags first",
               f"look_up/always_locked/keys:{count}/threads:1", f"look_up/shared/keys:{count}/threads:1", 1, 0)
    for size in SIZES:
        yield (f"pcap writer / bare calls, {size} bytes", f"write/pcap_writer/bytes:{size}",
               f"write/bare_calls/bytes:{size}", 1, 1.1)
        yield (f"watched packet / bare calls, {size} bytes", f"watched/plugin/bytes:{size}",
               f"watched/bare_calls/bytes:{size}", 1, 1.15)


def main():
    found = medians(sys.argv[1:])
    compared = missed = 0
    for text, above, below, factor, limit in goals():
        if above not in found or below not in found:
            continue
        ratio = found[above] / found[below] * factor
        met = ratio <= limit if limit > 0 else ratio >= -limit
        compared += limit != 0
        missed += not met
        bound = f"at most {limit}" if limit > 0 else f"at least {-limit}" if limit < 0 else "told only"
        print(f"{text:60} {ratio:8.2f}   {bound:14} {'' if met else 'MISSED'}")
    print(f"{compared} compared, {missed} missed")
    return 1 if missed or not compared else 0


if __name__ == "__main__":
    sys.exit(main())
