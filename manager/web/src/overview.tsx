// The probes, what is wrong, what runs, and the quickest way to look at an address.
import {useEffect, useMemo, useState} from "preact/hooks";
import uPlot from "uplot";
import {api} from "./api";
import {bytesText, countText, plural, reachText, shortText, spanText, timeMs} from "./format";
import {CaptureForm} from "./form";
import {axes, color, Plot, Sparkline, type Points} from "./plots";
import {sayError, useStore, type ProbeSample} from "./store";
import type {Alarm, Capture, Probe, Series} from "./types";
import {Bar, Button, Dialog, runs, StateMark, Time, Title, useTick} from "./ui";

const RANGES = [
    {hours: 1, step: 10},
    {hours: 6, step: 10},
    {hours: 24, step: 60},
];
const SPARK_POINTS = 60;
const LEAST_RANGE_S = 120;
const MIB = 1024 * 1024;
const RUNNING_MAX = 6;
const EVERY_PACKET = 4294967295;

type Columns = {times: number[]; min: (number | null)[]; max: (number | null)[]; packets: (number | null)[]; drops: (number | null)[]};

function columnsOf(series: Series): Columns {
    const from = timeMs(series.from) / 1000;
    return {
        times: series.reach_s.min.map((_, index) => from + index * series.step_s),
        min: series.reach_s.min,
        max: series.reach_s.max,
        packets: series.packets_per_s,
        drops: series.drops_per_s,
    };
}

function rate(now: number | null, before: number | null, seconds: number): number | null {
    return now === null || before === null || now < before || seconds <= 0 ? null : (now - before) / seconds;
}

// What the events told since the series was read, as further points a step apart.
function withSamples(columns: Columns, samples: ProbeSample[], step: number): Columns {
    const result: Columns = {
        times: [...columns.times], min: [...columns.min], max: [...columns.max], packets: [...columns.packets], drops: [...columns.drops],
    };
    let before: ProbeSample | null = null;
    for (const sample of samples) {
        const at = sample.at / 1000;
        const last = result.times[result.times.length - 1] ?? 0;
        if (at >= last + step) {
            const seconds = before ? (sample.at - before.at) / 1000 : 0;
            result.times.push(at);
            result.min.push(sample.reach?.reach_s?.min ?? null);
            result.max.push(sample.reach?.reach_s?.max ?? null);
            result.packets.push(rate(sample.packets, before?.packets ?? null, seconds));
            result.drops.push(rate(sample.drops, before?.drops ?? null, seconds));
            before = sample;
        } else if (!before || at <= last) {
            before = sample;
        }
    }
    return result;
}

// From the first measurement on, but at least two minutes.
function trimmed({times, min, max}: Columns): Points {
    const first = min.findIndex((value) => value !== null);
    const last = times[times.length - 1] ?? 0;
    const earliest = Math.min(first < 0 ? last : times[first]!, last - LEAST_RANGE_S);
    const begin = Math.max(0, times.findIndex((time) => time >= earliest));
    return [times.slice(begin), min.slice(begin), max.slice(begin)];
}

function lastOf(values: (number | null)[]): number | null {
    for (let index = values.length - 1; index >= Math.max(0, values.length - 3); index--) {
        if (values[index] !== null && values[index] !== undefined) {
            return values[index]!;
        }
    }
    return null;
}

function useColumns(probe: string, range: (typeof RANGES)[number]): Columns | null {
    const generation = useStore((state) => state.generation);
    const samples = useStore((state) => state.probeSamples[probe]);
    const [series, setSeries] = useState<Series | null>(null);
    useEffect(() => {
        let wanted = true;
        const from = new Date(Date.now() - range.hours * 3_600_000).toISOString();
        api.series(probe, from, range.step).then((got) => wanted && setSeries(got), () => {});
        return () => {
            wanted = false;
        };
    }, [probe, generation, range]);
    return useMemo(() => (series ? withSamples(columnsOf(series), samples ?? [], series.step_s) : null), [series, samples]);
}

function ReachPlot({probe, points, range}: {probe: string; points: Points; range: string}) {
    const options = (): Omit<uPlot.Options, "width" | "height"> => ({
        scales: {x: {time: true}, y: {range: (_, __, high) => [0, Math.max(10, (high ?? 0) * 1.15)]}},
        axes: axes((value) => (value === 0 ? "0" : spanText(value)), "reaches back", 92),
        series: [
            {},
            {label: "least", stroke: color("accent"), fill: color("accent-fill"), width: 1.5, points: {show: false}},
            {label: "most", stroke: color("dim"), width: 1, points: {show: false}, dash: [3, 3]},
        ],
        legend: {show: false},
        cursor: {show: false},
    });
    const last = lastOf(points[1]!);
    const label = `How far back ${probe} reached over the last hours; now ${last === null ? "unknown" : spanText(last)}`;
    return <Plot options={options} points={points} height={120} label={label} remake={`${probe} ${range}`} />;
}

function Figure({title, value, values}: {title: string; value: string; values: (number | null)[]}) {
    return (
        <div class="figure">
            <dt>{title}</dt>
            <dd class="number">{value}</dd>
            <dd><Sparkline values={values} label={`${title} over the last ten minutes: now ${value}`} /></dd>
        </div>
    );
}

function rateText(value: number | null, unit: string): string {
    return value === null ? "unknown" : shortText(value < 10 ? Math.round(value * 10) / 10 : Math.round(value), unit);
}

function ProbeCard({probe, range}: {probe: Probe; range: (typeof RANGES)[number]}) {
    const columns = useColumns(probe.name, range);
    const points = useMemo(() => (columns ? trimmed(columns) : null), [columns]);
    const [dialog, setDialog] = useState<"history" | "heavy" | null>(null);
    const up = probe.state === "up";
    const packets = columns?.packets.slice(-SPARK_POINTS) ?? [];
    const drops = columns?.drops.slice(-SPARK_POINTS) ?? [];
    return (
        <article class={`panel probe probe-${probe.state}`} aria-label={`Probe ${probe.name}`}>
            <div class="panel-head">
                <h3>{probe.name}</h3>
                <span class={`state state-${up ? "sealed" : "failed"}`}>{probe.state}</span>
                <span class="hint">{up ? "up since" : "since"} <Time time={probe.since} /></span>
            </div>
            {probe.error && <p class="loss">{probe.error}</p>}
            <p class="reach">
                {up && probe.history?.on ? <>Reaches back <b class="number">{reachText(probe.history.reach_s)}</b></> : up ? "The history is off: nothing of the past can be seen." : "Not reachable: nothing can be recorded here now."}
            </p>
            {points && <ReachPlot probe={probe.name} points={points} range={`${range.hours}`} />}
            <dl class="figures">
                <Figure title="Packets" value={up ? rateText(lastOf(packets), "/s") : "unknown"} values={packets} />
                <Figure title="Dropped" value={up ? rateText(lastOf(drops), "/s") : "unknown"} values={drops} />
                <div class="figure">
                    <dt>Recording now</dt>
                    <dd class="number">{probe.rules === null ? "unknown" : plural(probe.rules, "address", "addresses")}</dd>
                </div>
            </dl>
            <div class="settings">
                <span>{historyText(probe)}</span>
                <Button kind="quiet" disabled={!up} action={() => setDialog("history")} label={`Change the history of ${probe.name}`}>Change</Button>
                <span>{heavyText(probe.heavy)}</span>
                <Button kind="quiet" disabled={!up} action={() => setDialog("heavy")} label={`Change the heavy threshold of ${probe.name}`}>Change</Button>
            </div>
            {dialog === "history" && <HistoryDialog probe={probe} onClose={() => setDialog(null)} />}
            {dialog === "heavy" && <HeavyDialog probe={probe} onClose={() => setDialog(null)} />}
        </article>
    );
}

function historyText(probe: Probe): string {
    if (!probe.history) {
        return "History unknown";
    }
    const {on, size_bytes, packets} = probe.history;
    return on ? `History on: ${Math.round(size_bytes / MIB)} MiB, holds ${plural(packets, "packet")}` : "History off";
}

function heavyText(heavy: number | null): string {
    if (heavy === null) {
        return "Heavy threshold unknown";
    }
    return heavy === EVERY_PACKET ? "Keeps all packets of each flow" : `Heavy threshold: keeps the first ${plural(heavy, "packet")} of each flow`;
}

function lossText(probe: Probe): string {
    const history = probe.history;
    if (!history?.on || history.packets === 0) {
        return "The rings are empty: nothing is lost.";
    }
    const span = history.reach_s ? `the last ${spanText(history.reach_s.max)}` : "what they hold";
    return `This throws away what the rings hold: ${span}, ${plural(history.packets, "packet")}. It cannot be undone, and until the rings fill again nothing of the past can be seen.`;
}

function HistoryDialog({probe, onClose}: {probe: Probe; onClose: () => void}) {
    const now = probe.history;
    const [on, setOn] = useState(now?.on ?? false);
    const [size, setSize] = useState(String(Math.max(1, Math.round((now?.size_bytes ?? 64 * MIB) / MIB))));
    const megabytes = Number(size);
    const valid = !on || (Number.isInteger(megabytes) && megabytes >= 1 && megabytes <= 4294967295);
    const same = on === now?.on && (!on || megabytes * MIB === now?.size_bytes);
    const loses = !same && now?.on === true;
    const apply = async () => {
        try {
            await api.setHistory(probe.name, on ? {on, size_mb: megabytes} : {on});
            onClose();
        } catch (error) {
            sayError(`The history of ${probe.name} was not changed`, error);
            onClose();
        }
    };
    return (
        <Dialog title={`History of ${probe.name}`} onClose={onClose}>
            <label class="check">
                <input type="checkbox" checked={on} onChange={(event) => setOn(event.currentTarget.checked)} />
                <span>Keep a history of all traffic</span>
            </label>
            <label class="field">
                <span>Size in MiB, all queues together</span>
                <input type="number" min="1" value={size} disabled={!on} onInput={(event) => setSize(event.currentTarget.value)} />
            </label>
            {!same && valid && <p class={loses ? "loss" : "hint"} role="alert">{loses ? lossText(probe) : "The history begins empty."}</p>}
            {!valid && <p class="loss">A size is a whole number of MiB, at least 1.</p>}
            <div class="buttons">
                <Button action={onClose} focus>Leave as it is</Button>
                <Button kind={loses ? "danger" : "primary"} disabled={same || !valid} action={apply}>
                    {!on ? "Turn off and lose it" : loses ? "Change and lose it" : "Turn on"}
                </Button>
            </div>
        </Dialog>
    );
}

function HeavyDialog({probe, onClose}: {probe: Probe; onClose: () => void}) {
    const [all, setAll] = useState(probe.heavy === EVERY_PACKET);
    const [packets, setPackets] = useState(String(probe.heavy === EVERY_PACKET ? 20 : (probe.heavy ?? 20)));
    const count = Number(packets);
    const valid = all || (packets !== "" && Number.isInteger(count) && count >= 0 && count <= EVERY_PACKET);
    const apply = async () => {
        try {
            await api.setHeavy(probe.name, all ? EVERY_PACKET : count);
        } catch (error) {
            sayError(`The threshold of ${probe.name} was not changed`, error);
        }
        onClose();
    };
    return (
        <Dialog title={`Heavy threshold of ${probe.name}`} onClose={onClose}>
            <p>The history keeps the first packets of each flow. Fewer of them reach further back.</p>
            <label class="field">
                <span>Packets of each flow</span>
                <input type="number" min="0" value={packets} disabled={all} onInput={(event) => setPackets(event.currentTarget.value)} />
            </label>
            <label class="check">
                <input type="checkbox" checked={all} onChange={(event) => setAll(event.currentTarget.checked)} />
                <span>All packets</span>
            </label>
            <div class="buttons">
                <Button action={onClose}>Cancel</Button>
                <Button kind="primary" disabled={!valid} action={apply}>Set</Button>
            </div>
        </Dialog>
    );
}

function Alarms({alarms}: {alarms: Alarm[]}) {
    return (
        <section aria-labelledby="alarms" class={alarms.length > 0 ? "panel" : "hidden"}>
            <h2 id="alarms">Alarms</h2>
            <div aria-live="polite"><ul class="alarms">
                {alarms.map((alarm) => (
                    <li key={alarm.key} class={`alarm-${alarm.severity}`}>
                        <b>{alarm.severity}</b> <span>{alarm.probe ? `${alarm.probe}: ` : ""}{alarm.text}</span> <span class="hint">since <Time time={alarm.since} /></span>
                    </li>
                ))}
            </ul></div>
        </section>
    );
}

// Read once; afterwards the events tell.
function Running() {
    const generation = useStore((state) => state.generation);
    const events = useStore((state) => state.captureEvents);
    const [read, setRead] = useState<Capture[]>([]);
    useEffect(() => {
        api.captures("state=requested,recording,searching&limit=50").then((page) => setRead(page.captures), () => {});
    }, [generation]);
    const rows = new Map<string, Pick<Capture, "id" | "address" | "state" | "percent" | "live_packets" | "history_packets">>();
    Object.values(events).filter((event) => !event.lookup).reverse().forEach((event) => rows.set(event.id, event));
    read.forEach((capture) => rows.has(capture.id) || rows.set(capture.id, capture));
    const running = [...rows.values()].filter((row) => runs(row.state));
    if (running.length === 0) {
        return null;
    }
    return (
        <section class="panel" aria-labelledby="running">
            <h2 id="running">Recording now</h2>
            <ul class="running">
                {running.slice(0, RUNNING_MAX).map((row) => (
                    <li key={row.id}>
                        <a href={`#/captures/${row.id}`} class="address">{row.address}</a>
                        <StateMark state={row.state} />
                        <Bar share={row.percent / 100} label={`${row.percent} % of its limit`} />
                        <span class="number">{plural(row.live_packets + row.history_packets, "packet")}</span>
                    </li>
                ))}
            </ul>
            {running.length > RUNNING_MAX && <a href="#/captures">and {running.length - RUNNING_MAX} more</a>}
        </section>
    );
}

function ArchiveLine() {
    const archive = useStore((state) => state.archive);
    if (!archive) {
        return null;
    }
    const quota = archive.quota_bytes ? ` of at most ${bytesText(archive.quota_bytes)}` : "";
    return (
        <p class="hint">
            Archive: {plural(archive.captures, "capture")}, {bytesText(archive.bytes)}{quota}; {bytesText(archive.free_bytes)} free on the disk
            {archive.oldest && <>; the oldest is of <Time time={archive.oldest} /></>}.
            {archive.room !== "enough" && <b class="loss"> {archive.room === "no_new" ? "No room for new captures." : "No room: running captures are being ended."}</b>}
        </p>
    );
}

export function Overview() {
    const probes = useStore((state) => state.probes);
    const alarms = useStore((state) => state.alarms);
    const loaded = useStore((state) => state.loaded);
    const [hours, setHours] = useState(1);
    useTick(60_000);
    const range = RANGES.find((one) => one.hours === hours)!;
    return (
        <>
            <Title text="Overview" />
            <CaptureForm short />
            <Alarms alarms={alarms} />
            <Running />
            <section aria-labelledby="probes">
                <div class="panel-head">
                    <h2 id="probes">{countText(probes.length)} {probes.length === 1 ? "probe" : "probes"}</h2>
                    <label class="hint">
                        Plots show{" "}
                        <select value={hours} onChange={(event) => setHours(Number(event.currentTarget.value))}>
                            {RANGES.map((one) => <option key={one.hours} value={one.hours}>the last {one.hours === 1 ? "hour" : `${one.hours} hours`}</option>)}
                        </select>
                    </label>
                </div>
                {!loaded && <p class="empty">Reading the probes …</p>}
                <div class="cards">
                    {probes.map((probe) => <ProbeCard key={probe.name} probe={probe} range={range} />)}
                </div>
            </section>
            <ArchiveLine />
        </>
    );
}
