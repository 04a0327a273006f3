// One capture: what comes while it runs, then the picture, the receipt, and the file.
import {useEffect, useMemo, useRef, useState} from "preact/hooks";
import uPlot from "uplot";
import {api, ApiError, download, parseManifest, saveText} from "./api";
import {CaptureActions} from "./captures";
import {countText, directionText, plural, spanText, timeMs} from "./format";
import {Picture} from "./picture";
import {axes, color, Plot, shortMarks, type Points} from "./plots";
import {fileText, limitsText, progressOf, receiptOf, type PartReceipt, type Sentence} from "./receipt";
import {sayError, useStore, type CaptureSample} from "./store";
import type {Capture, CaptureEvent, Summary} from "./types";
import {Bar, Button, Command, runs, StateMark, Time, Title, useTick} from "./ui";

type Papers = {summary: Summary; manifest: string};

// The capture as the events say, read anew whenever its state is another one.
function useCapture(id: string): {capture: Capture | null; error: string} {
    const event = useStore((state) => state.captureEvents[id]);
    const generation = useStore((state) => state.generation);
    const [capture, setCapture] = useState<Capture | null>(null);
    const [error, setError] = useState("");
    useEffect(() => {
        let wanted = true;
        api.capture(id).then(
            (got) => wanted && (setCapture(got), setError("")),
            (failure: unknown) => wanted && setError(failure instanceof ApiError && failure.status === 404 ? "There is no such capture." : String((failure as Error).message)),
        );
        return () => {
            wanted = false;
        };
    }, [id, generation, event?.state, event?.hold, event?.percent]);
    // Events count all probes together; with one probe that is its own count, newer than what was read.
    const counted = (read: Capture, {live_packets, history_packets}: CaptureEvent) =>
        read.parts.length === 1 ? [{...read.parts[0]!, live_packets, history_packets}] : read.parts;
    const merged = useMemo(
        () => capture && event
            ? {...capture, state: event.state, percent: event.percent, live_packets: event.live_packets, history_packets: event.history_packets,
                ended_at: event.ended_at, file: event.file, parts: counted(capture, event)}
            : capture,
        [capture, event],
    );
    return {capture: merged, error};
}

function usePapers(id: string, sealed: boolean): Papers | null {
    const [papers, setPapers] = useState<Papers | null>(null);
    useEffect(() => {
        if (!sealed) {
            setPapers(null);
            return;
        }
        let wanted = true;
        Promise.all([api.summary(id), api.manifest(id)]).then(
            ([summary, manifest]) => wanted && setPapers({summary, manifest}),
            (error: unknown) => sayError("The picture cannot be shown", error),
        );
        return () => {
            wanted = false;
        };
    }, [id, sealed]);
    return papers;
}

function rates(samples: CaptureSample[]): Points {
    const times: number[] = [];
    const live: (number | null)[] = [];
    const history: (number | null)[] = [];
    samples.forEach((sample, index) => {
        const before = samples[index - 1];
        const seconds = before ? (sample.at - before.at) / 1000 : 0;
        if (before && seconds > 0.2) {
            times.push(sample.at / 1000);
            live.push(Math.max(0, sample.live - before.live) / seconds);
            history.push(Math.max(0, sample.history - before.history) / seconds);
        }
    });
    return [times, history, live];
}

// What came since this page was opened; the picture of the whole capture follows when it is sealed.
function LivePlot({id}: {id: string}) {
    const samples = useStore((state) => state.captureSamples[id]);
    const points = useMemo(() => rates(samples ?? []), [samples]);
    const options = (): Omit<uPlot.Options, "width" | "height"> => ({
        scales: {x: {time: true}, y: {range: (_, __, high) => [0, Math.max(1, (high ?? 0) * 1.1)]}},
        axes: axes(shortMarks, "packets a second", 62),
        series: [
            {},
            {stroke: color("history"), fill: color("history-fill"), width: 1.5, points: {show: false}},
            {stroke: color("live"), fill: color("live-fill"), width: 1.5, points: {show: false}},
        ],
        legend: {show: false},
        cursor: {show: false},
    });
    if (points[0].length < 2) {
        return <p class="hint">Packets are being counted …</p>;
    }
    return (
        <>
            <Plot options={options} points={points} height={160} remake={id} label="Packets a second since this page was opened" />
            <p class="plot-foot"><span class="readout"><span class="key key-history">out of the rings</span><span class="key key-live">live</span></span></p>
        </>
    );
}

function remaining(capture: Capture, now: number): string {
    if (!capture.limits || capture.state !== "recording") {
        return "";
    }
    const left = capture.limits.seconds - (now - timeMs(capture.requested_at)) / 1000;
    return left > 0 ? `At most ${spanText(left)} are left.` : "Its time is over.";
}

function Progress({capture}: {capture: Capture}) {
    const now = useTick(1000);
    return (
        <section class="panel" aria-labelledby="progress">
            <div class="panel-head">
                <h2 id="progress">{plural(capture.live_packets, "packet")} live{capture.history_packets > 0 && `, ${countText(capture.history_packets)} out of the rings`}</h2>
                {capture.history_packets === 0 && <span class="hint">What the rings held is counted when they are searched.</span>}
            </div>
            <div class="line"><Bar share={capture.percent / 100} label={`${capture.percent} % of its limit`} /><span class="number">{capture.percent} %</span><span class="hint">{remaining(capture, now)}</span></div>
            <LivePlot id={capture.id} />
            <Parts parts={progressOf(capture)} />
        </section>
    );
}

function Sentences({sentences}: {sentences: Sentence[]}) {
    return <p>{sentences.map((one, index) => <span key={index} class={one.loss ? "loss" : ""}>{one.text} </span>)}</p>;
}

function Parts({parts}: {parts: PartReceipt[]}) {
    return (
        <dl class="parts">
            {parts.map((part) => (
                <div key={part.probe}>
                    <dt>{part.probe}</dt>
                    <dd><Sentences sentences={part.sentences} /></dd>
                </div>
            ))}
        </dl>
    );
}

function Receipt({text}: {text: string}) {
    const receipt = useMemo(() => receiptOf(parseManifest(text)), [text]);
    return (
        <section class="panel" aria-labelledby="receipt">
            <h2 id="receipt">What is in the file, and what is not</h2>
            <Sentences sentences={receipt.whole} />
            <Parts parts={receipt.parts} />
        </section>
    );
}

function Asked({capture}: {capture: Capture}) {
    return (
        <section class="panel" aria-labelledby="asked">
            <h2 id="asked">What was asked</h2>
            <dl class="facts">
                <dt>Packets</dt><dd>{directionText(capture.direction, capture.address)}</dd>
                <dt>Limits</dt><dd>{limitsText(capture.limits)}</dd>
                <dt>By</dt><dd>{capture.requested_by}, <Time time={capture.requested_at} /></dd>
                <dt>Reason</dt><dd>{capture.reason ?? "none given"}</dd>
                {capture.reference && <><dt>Reference</dt><dd><code>{JSON.stringify(capture.reference)}</code></dd></>}
                {capture.hold && <><dt>Hold</dt><dd>since <Time time={capture.hold.at} />, by {capture.hold.by}: {capture.hold.why}</dd></>}
                {capture.deleted && <><dt>Deleted</dt><dd><Time time={capture.deleted.at} />, {capture.deleted.cause}</dd></>}
                <dt>Number</dt><dd class="address">{capture.id}</dd>
            </dl>
        </section>
    );
}

function FilePanel({capture, manifest}: {capture: Capture; manifest: string | null}) {
    if (!capture.file) {
        return null;
    }
    return (
        <section class="panel" aria-labelledby="file">
            <h2 id="file">The file</h2>
            <p>{capture.id}.pcapng: {fileText(capture.file.bytes, capture.file.packets)}</p>
            <div class="buttons">
                {manifest && <Button action={() => saveText(`${capture.id}.manifest.json`, manifest)}>Manifest</Button>}
            </div>
            <p class="hint">Open it in Wireshark:</p>
            <Command label="command for Wireshark" text={`wireshark ${capture.id}.pcapng`} />
            <p class="hint">Its SHA-256, to compare with the downloaded file:</p>
            <Command label="SHA-256" text={capture.file.sha256} />
            <p class="hint">Check it against its manifest, where the archive lies:</p>
            <Command label="command to verify" text={`kestrunectl verify ${capture.requested_at.slice(0, 10)}/${capture.id}`} />
        </section>
    );
}

// Stops, waits for the file, and hands it to the browser.
function useStopAndDownload(capture: Capture | null): {waiting: boolean; press: () => Promise<void>} {
    const [waiting, setWaiting] = useState(false);
    const done = useRef(false);
    const state = capture?.state;
    useEffect(() => {
        if (!waiting || !capture || done.current) {
            return;
        }
        if (state === "sealed") {
            done.current = true;
            setWaiting(false);
            download(capture.id).catch((error: unknown) => sayError("It cannot be downloaded", error));
        } else if (state === "failed" || state === "deleted") {
            setWaiting(false);
        }
    }, [waiting, state]);
    const press = async () => {
        if (!capture) {
            return;
        }
        done.current = false;
        setWaiting(true);
        try {
            await api.stop(capture.id);
        } catch (error) {
            if (!(error instanceof ApiError && error.status === 409)) { // 409: it is over, and the file comes
                setWaiting(false);
                sayError("It was not stopped", error);
            }
        }
    };
    return {waiting, press};
}

function Head({capture}: {capture: Capture}) {
    const {waiting, press} = useStopAndDownload(capture);
    const elsewhere = capture.parts.some((part) => part.files !== null);
    const sealed = capture.state === "sealed";
    const save = () => download(capture.id).catch((error: unknown) => sayError("It cannot be downloaded", error));
    return (
        <div class="head-line">
            <StateMark state={capture.state} elsewhere={elsewhere} />
            {capture.hold && <span class="state">hold</span>}
            <span aria-live="polite" class="hint">{headText(capture, waiting)}</span>
            <span class="buttons">
                {runs(capture.state) && !waiting && <Button kind="primary" action={press}>Stop and download</Button>}
                {sealed && <Button kind="primary" action={save}>Download</Button>}
                <CaptureActions saves row={{id: capture.id, address: capture.address, state: sealed ? "sealed" : capture.state, hold: capture.hold !== null, elsewhere}} />
            </span>
        </div>
    );
}

function headText(capture: Capture, waiting: boolean): string {
    if (waiting) {
        return "Stopping; the file is being made and comes by itself …";
    }
    if (capture.state === "requested") {
        return capture.parts.find((part) => part.error)?.error ?? "Waits for its probes, or for a look at the same address to end.";
    }
    if (capture.state === "finished") {
        return capture.error ? `Cannot be sealed yet: ${capture.error}` : capture.parts.every((part) => part.files !== null) ? "" : "The file is being made …";
    }
    return "";
}

export function CaptureView({id}: {id: string}) {
    const {capture, error} = useCapture(id);
    const papers = usePapers(id, capture?.state === "sealed");
    if (!capture) {
        return (
            <>
                <Title text="Capture" />
                <p class="panel empty">{error || "Reading …"} <a href="#/captures">All captures</a></p>
            </>
        );
    }
    return (
        <>
            <Title text={capture.address} />
            <Head capture={capture} />
            {runs(capture.state) && <Progress capture={capture} />}
            {!runs(capture.state) && !papers && capture.state !== "sealed" && (
                <section class="panel" aria-label="What came"><Parts parts={progressOf(capture)} /></section>
            )}
            {papers && <Receipt text={papers.manifest} />}
            {papers && <Picture summary={papers.summary} requestedAt={capture.requested_at} />}
            <div class="columns">
                <Asked capture={capture} />
                <FilePanel capture={capture} manifest={papers?.manifest ?? null} />
            </div>
        </>
    );
}

