// The picture of a capture or a lookup: packets or bytes over time, and who talked with whom.
import {useMemo, useRef, useState} from "preact/hooks";
import uPlot from "uplot";
import {bytesText, clockText, countText, plural, shortText, spanText, stepText, timeMs, whenText} from "./format";
import {axes, color, Plot, type Points} from "./plots";
import type {Conversation, Share, Summary} from "./types";
import {Bar} from "./ui";

type Unit = "packets" | "bytes";

const HEIGHT = 240;
const ZOOM = 0.5;
const MOVE = 0.25;

function addColumns(columns: number[][], length: number): number[] {
    const sum = new Array<number>(length).fill(0);
    for (const column of columns) {
        column.forEach((value, index) => (sum[index]! += value));
    }
    return sum;
}

// Begin of each step in seconds, history, live; one step more, so that the last one is drawn whole.
export function pointsOf(summary: Summary, unit: Unit): Points {
    const from = summary.from ? timeMs(summary.from) / 1000 : 0;
    const length = Math.max(0, ...summary.origins.map((origin) => origin.packets.length));
    const of = (live: boolean) =>
        addColumns(summary.origins.filter((origin) => (origin.origin === "live") === live).map((origin) => origin[unit]), length);
    const times = Array.from({length: length + 1}, (_, index) => from + (index * summary.step_ns) / 1e9);
    return [times, [...of(false), 0], [...of(true), 0]];
}

// The marked moment belongs into the picture when it is near the packets.
function range(points: Points, asked: number): [number, number] {
    const times = points[0];
    const first = times[0] ?? asked;
    const last = times[times.length - 1] ?? asked;
    const span = Math.max(last - first, 1e-6);
    const margin = span * 0.02;
    const near = asked > first - span && asked < last + span;
    return near ? [Math.min(first, asked - margin), Math.max(last, asked + margin)] : [first, last];
}

function drawMoment(plot: uPlot, asked: number): void {
    const x = plot.valToPos(asked, "x", true);
    const {left, top, width, height} = plot.bbox;
    if (x < left || x > left + width) {
        return;
    }
    const context = plot.ctx;
    const scale = devicePixelRatio;
    context.save();
    context.strokeStyle = color("text");
    context.fillStyle = color("text");
    context.lineWidth = scale;
    context.setLineDash([4 * scale, 3 * scale]);
    context.beginPath();
    context.moveTo(x, top);
    context.lineTo(x, top + height);
    context.stroke();
    context.font = `${12 * scale}px "Segoe UI", Roboto, "Noto Sans", "Liberation Sans", Arial, sans-serif`;
    const right = x > left + width - 60 * scale;
    context.textAlign = right ? "right" : "left";
    context.textBaseline = "top";
    context.fillText("asked", x + (right ? -5 : 5) * scale, top + 2 * scale);
    context.restore();
}

function series(label: string, name: string): uPlot.Series {
    return {
        label,
        stroke: color(name),
        fill: color(`${name}-fill`),
        width: 1.5,
        points: {show: false},
        paths: uPlot.paths.stepped!({align: 1}),
    };
}

function TrafficPlot({summary, unit, asked}: {summary: Summary; unit: Unit; asked: number}) {
    const points = useMemo(() => pointsOf(summary, unit), [summary, unit]);
    const plot = useRef<uPlot | null>(null);
    const [under, setUnder] = useState<number | null>(null);
    const [zoomed, setZoomed] = useState(false);
    const whole = range(points, asked);
    const options = (): Omit<uPlot.Options, "width" | "height"> => ({
        scales: {x: {time: whole[1] - whole[0] > 0.05, range: (_, low, high) => (low === null || high === null ? whole : [low, high])}},
        axes: axes((value) => shortText(value, unit === "bytes" ? "B" : ""), `${unit} per ${stepText(summary.step_ns)}`, 64),
        series: [{}, series("history", "history"), series("live", "live")],
        legend: {show: false},
        cursor: {drag: {x: true, y: false, setScale: true}, points: {show: false}, bind: {dblclick: (self) => () => (show(self, whole), null)}},
        hooks: {
            draw: [(self) => drawMoment(self, asked)],
            setCursor: [(self) => setUnder(self.cursor.idx ?? null)],
            setScale: [(self) => setZoomed((self.scales.x!.max ?? 0) - (self.scales.x!.min ?? 0) < (whole[1] - whole[0]) * 0.999)],
            ready: [(self) => show(self, whole)],
        },
    });
    const show = (self: uPlot, [min, max]: [number, number]) => {
        const low = Math.max(min, whole[0]);
        self.setScale("x", {min: low, max: Math.min(Math.max(max, low + summary.step_ns / 1e9), whole[1])});
    };
    const zoom = (by: number) => {
        const {min, max} = plot.current!.scales.x!;
        const middle = (min! + max!) / 2;
        const half = ((max! - min!) * by) / 2;
        show(plot.current!, [middle - half, middle + half]);
    };
    const move = (by: number) => {
        const {min, max} = plot.current!.scales.x!;
        const width = max! - min!;
        const low = Math.min(Math.max(min! + width * by, whole[0]), whole[1] - width);
        show(plot.current!, [low, low + width]);
    };
    const onKey = (event: KeyboardEvent) => {
        const steps = points[0].length - 1;
        const point = (index: number) => setUnder(Math.max(0, Math.min(steps - 1, index)));
        const actions: Record<string, () => void> = {
            ArrowLeft: () => (event.shiftKey ? move(-MOVE) : point((under ?? steps) - 1)),
            ArrowRight: () => (event.shiftKey ? move(MOVE) : point((under ?? -1) + 1)),
            "+": () => zoom(ZOOM),
            "-": () => zoom(1 / ZOOM),
            Escape: () => show(plot.current!, whole),
        };
        const action = actions[event.key];
        if (action) {
            event.preventDefault();
            action();
        }
    };
    const outside = asked < whole[0] || asked > whole[1];
    return (
        <div>
            {outside && <p class="hint">{`Asked at ${whenText(new Date(asked * 1000).toISOString())}, ${asked > whole[1] ? "after the last packet" : "before the first packet"}.`}</p>}
            <Plot options={options} points={points} height={HEIGHT} remake={`${summary.id} ${unit}`} focusable onKeyDown={onKey}
                onMake={(made) => (plot.current = made)}
                label={`${unit} over time: ${sentence(summary)} Arrow keys read the numbers, plus and minus zoom, shift with arrows moves.`} />
            <div class="plot-foot">
                <Readout summary={summary} points={points} unit={unit} index={under} />
                {zoomed ? (
                    <span class="buttons">
                        <button type="button" class="quiet" onClick={() => move(-MOVE)} aria-label="Earlier">‹</button>
                        <button type="button" class="quiet" onClick={() => move(MOVE)} aria-label="Later">›</button>
                        <button type="button" class="quiet" onClick={() => show(plot.current!, whole)}>Show all</button>
                    </span>
                ) : (
                    <span class="hint">Drag across the picture to zoom.</span>
                )}
            </div>
        </div>
    );
}

function Readout({summary, points, unit, index}: {summary: Summary; points: Points; unit: Unit; index: number | null}) {
    const text = (value: number | null | undefined) => (unit === "bytes" ? bytesText(value ?? 0) : countText(value ?? 0));
    const places = Math.max(0, Math.min(9, Math.ceil(9 - Math.log10(summary.step_ns))));
    const inside = index !== null && index < points[0].length - 1;
    return (
        <output class="readout" aria-live="polite">
            <span class="key key-history">out of the rings{inside && <b> {text(points[1]![index])}</b>}</span>
            <span class="key key-live">live{inside && <b> {text(points[2]![index])}</b>}</span>
            {inside && <span class="at">at {clockText(points[0][index]! * 1000, places)}</span>}
        </output>
    );
}

function sentence(summary: Summary): string {
    const live = summary.origins.filter((origin) => origin.origin === "live").flatMap((origin) => origin.packets);
    const count = live.reduce((sum, value) => sum + value, 0);
    return `${plural(summary.packets - count, "packet")} out of the rings and ${countText(count)} live.`;
}

function port(value: number | null): string {
    return value === null ? "" : String(value);
}

function ConversationRow({one, most}: {one: Conversation; most: number}) {
    const bytes = one.bytes[0] + one.bytes[1];
    const span = (timeMs(one.last) - timeMs(one.first)) / 1000;
    return (
        <tr>
            <td class="address">{one.b}</td>
            <td class="number">{port(one.b_port)}</td>
            <td>{one.protocol}</td>
            <td class="number">{port(one.a_port)}</td>
            <td class="number">{countText(one.packets[0])}</td>
            <td class="number">{countText(one.packets[1])}</td>
            <td class="number">{bytesText(bytes)}</td>
            <td class="bar-cell"><Bar share={bytes / most} label={`${Math.round((bytes / most) * 100)} % of the largest`} /></td>
            <td class="number">{whenText(one.first)}</td>
            <td class="number">{spanText(span)}</td>
        </tr>
    );
}

function Conversations({summary}: {summary: Summary}) {
    const most = Math.max(1, ...summary.conversations.map((one) => one.bytes[0] + one.bytes[1]));
    return (
        <section class="panel" aria-labelledby="conversations">
            <h2 id="conversations">Conversations</h2>
            <div class="scroll-x" tabIndex={0} role="group" aria-label="Conversations, the largest first">
                <table class="plain">
                    <thead>
                        <tr>
                            <th scope="col">With</th>
                            <th scope="col" class="number">Its port</th>
                            <th scope="col">Protocol</th>
                            <th scope="col" class="number">Own port</th>
                            <th scope="col" class="number">Packets sent</th>
                            <th scope="col" class="number">received</th>
                            <th scope="col" class="number" aria-label="Bytes">Bytes</th>
                            <th scope="col"><span class="hidden">Share</span></th>
                            <th scope="col" class="number">Began</th>
                            <th scope="col" class="number">Lasted</th>
                        </tr>
                    </thead>
                    <tbody>
                        {summary.conversations.map((one) => (
                            <ConversationRow key={`${one.protocol} ${one.a_port} ${one.b} ${one.b_port}`} one={one} most={most} />
                        ))}
                    </tbody>
                </table>
            </div>
            {summary.conversations_more > 0 && <p class="hint">and {plural(summary.conversations_more, "smaller one")}.</p>}
        </section>
    );
}

function Shares({id, title, shares, whole}: {id: string; title: string; shares: Share[]; whole: number}) {
    return (
        <section class="panel" aria-labelledby={id}>
            <h2 id={id}>{title}</h2>
            <table class="plain">
                <thead>
                    <tr>
                        <th scope="col">Name</th>
                        <th scope="col" class="number">Packets</th>
                        <th scope="col" class="number">Bytes</th>
                        <th scope="col"><span class="hidden">Share of all bytes</span></th>
                    </tr>
                </thead>
                <tbody>
                    {shares.map((one) => (
                        <tr key={one.name}>
                            <td>{one.name}</td>
                            <td class="number">{countText(one.packets)}</td>
                            <td class="number">{bytesText(one.bytes)}</td>
                            <td class="bar-cell">
                                <Bar share={one.bytes / Math.max(1, whole)} label={`${Math.round((100 * one.bytes) / Math.max(1, whole))} % of all bytes`} />
                            </td>
                        </tr>
                    ))}
                </tbody>
            </table>
        </section>
    );
}

export function Picture({summary, requestedAt}: {summary: Summary; requestedAt: string}) {
    const [unit, setUnit] = useState<Unit>("packets");
    if (summary.packets === 0) {
        return <p class="panel empty">No packets of this address were there.</p>;
    }
    const asked = timeMs(requestedAt) / 1000;
    return (
        <>
            <section class="panel" aria-labelledby="picture">
                <div class="panel-head">
                    <h2 id="picture">{`${plural(summary.packets, "packet")}, ${bytesText(summary.bytes)}`}</h2>
                    <fieldset class="choice">
                        <legend class="hidden">What the picture shows</legend>
                        {(["packets", "bytes"] as const).map((one) => (
                            <label key={one}>
                                <input type="radio" name="unit" checked={unit === one} onChange={() => setUnit(one)} />
                                <span>{one === "packets" ? "Packets" : "Bytes"}</span>
                            </label>
                        ))}
                    </fieldset>
                </div>
                <TrafficPlot key={unit} summary={summary} unit={unit} asked={asked} />
            </section>
            <Conversations summary={summary} />
            <div class="columns">
                <Shares id="protocols" title="Protocols" shares={summary.protocols} whole={summary.bytes} />
                <Shares id="ports" title="Ports" shares={summary.ports} whole={summary.bytes} />
            </div>
        </>
    );
}
