// Asking for captures and lookups: one field for whatever was pasted, and the limits in words.
import {useEffect, useId, useMemo, useRef, useState} from "preact/hooks";
import {findAddresses, type Found} from "./addresses";
import {api} from "./api";
import {countText, plural, reachText, spanText} from "./format";
import {say, sayError, useStore} from "./store";
import type {Capture, CaptureRequest, Direction, Probe} from "./types";
import {Button, Title} from "./ui";

const ADDRESSES_MAX = 1000;
const LOOKUPS_MAX = 10; // at once, from this page
const CHIPS_MAX = 60;
const DEFAULT_MINUTES = "5";
const DEFAULT_PACKETS = "100000";
const REASON_MAX = 300;

function Chips({found, onRemove}: {found: Found; onRemove: (text: string) => void}) {
    const shown = found.addresses.slice(0, CHIPS_MAX);
    return (
        <ul class="chips" aria-label="Addresses found">
            {found.wrong.map((one) => (
                <li key={`wrong ${one.text}`} class="chip chip-wrong">
                    <span class="address">{one.text}</span> <span>{one.why}</span>
                    <button type="button" aria-label={`Remove ${one.text}`} onClick={() => onRemove(one.text)}>×</button>
                </li>
            ))}
            {shown.map((address) => (
                <li key={address} class="chip">
                    <span class="address">{address}</span>
                    <button type="button" aria-label={`Remove ${address}`} onClick={() => onRemove(address)}>×</button>
                </li>
            ))}
            {found.addresses.length > shown.length && <li class="hint">and {countText(found.addresses.length - shown.length)} more</li>}
        </ul>
    );
}

export function foundText(found: Found): string {
    if (found.addresses.length === 0 && found.wrong.length === 0) {
        return "";
    }
    const good = found.addresses.length === 0 ? "No address found" : plural(found.addresses.length, "address", "addresses");
    return found.wrong.length === 0 ? good : `${good}, ${countText(found.wrong.length)} left out`;
}

// How far back one press reaches: the least and the most of the chosen probes.
export function reachOf(probes: Probe[]): string {
    const reaches = probes.filter((probe) => probe.state === "up" && probe.history?.on).flatMap((probe) => probe.history?.reach_s ?? []);
    if (probes.length === 0) {
        return "";
    }
    if (probes.every((probe) => probe.state !== "up")) {
        return "No probe can be reached now.";
    }
    if (reaches.length === 0) {
        return "No probe has a history now: only what comes from now on can be recorded.";
    }
    const min = Math.min(...reaches.map((reach) => reach.min));
    const max = Math.max(...reaches.map((reach) => reach.max));
    return `The probes reach back ${reachText({min, max, avg: min})}.`;
}

type Limits = {minutes: string; packets: string; historyOnly: boolean; direction: Direction; probes: string[] | null; reason: string};

const START: Limits = {minutes: DEFAULT_MINUTES, packets: DEFAULT_PACKETS, historyOnly: false, direction: "both", probes: null, reason: ""};

// What is wrong with the limits; empty: nothing.
function wrongLimits(limits: Limits): string {
    const minutes = Number(limits.minutes);
    const packets = Number(limits.packets);
    if (limits.historyOnly) {
        return "";
    }
    if (!(minutes * 60 >= 1) || minutes * 60 > 604800) {
        return "The time is between a second and seven days.";
    }
    return Number.isInteger(packets) && packets >= 1 && packets <= 4294967295 ? "" : "The packets are a whole number from 1 on.";
}

export function limitsInWords(limits: Pick<Limits, "minutes" | "packets" | "historyOnly">): string {
    if (limits.historyOnly) {
        return "What the rings hold now, nothing live.";
    }
    return `Live for ${spanText(Number(limits.minutes) * 60)} or ${plural(Number(limits.packets), "packet")} at each probe, and what the rings hold.`;
}

function requestOf(addresses: string[], limits: Limits): CaptureRequest {
    const request: CaptureRequest = {addresses, direction: limits.direction};
    if (limits.historyOnly) {
        request.history_only = true;
    } else {
        request.packets = Number(limits.packets);
        request.seconds = Math.round(Number(limits.minutes) * 60);
    }
    if (limits.probes) {
        request.probes = limits.probes;
    }
    if (limits.reason.trim()) {
        request.reason = limits.reason.trim();
    }
    return request;
}

function LimitFields({limits, set, probes}: {limits: Limits; set: (part: Partial<Limits>) => void; probes: Probe[]}) {
    const chosen = (name: string) => limits.probes === null || limits.probes.includes(name);
    const toggle = (name: string) => {
        const names = probes.map((probe) => probe.name).filter((one) => (one === name ? !chosen(one) : chosen(one)));
        set({probes: names.length === probes.length ? null : names});
    };
    return (
        <div class="limit-fields">
            <div class="line">
                <label>Live for <input type="number" class="short" min="0.1" step="any" value={limits.minutes} disabled={limits.historyOnly}
                    onInput={(event) => set({minutes: event.currentTarget.value})} /> minutes</label>
                <label>or <input type="number" class="medium" min="1" value={limits.packets} disabled={limits.historyOnly}
                    onInput={(event) => set({packets: event.currentTarget.value})} /> packets</label>
                <label class="check"><input type="checkbox" checked={limits.historyOnly} onChange={(event) => set({historyOnly: event.currentTarget.checked})} />
                    <span>only what the rings hold, nothing live</span></label>
            </div>
            <div class="line">
                <label>Packets <select value={limits.direction} onChange={(event) => set({direction: event.currentTarget.value as Direction})}>
                    <option value="both">to and from the address</option>
                    <option value="src">sent by the address</option>
                    <option value="dst">sent to the address</option>
                </select></label>
                <label class="grow">Reason <input type="text" maxLength={REASON_MAX} placeholder="for whoever finds this later" value={limits.reason}
                    onInput={(event) => set({reason: event.currentTarget.value})} /></label>
            </div>
            <fieldset class="line">
                <legend>At the probes</legend>
                {probes.map((probe) => (
                    <label key={probe.name} class="check">
                        <input type="checkbox" checked={chosen(probe.name)} onChange={() => toggle(probe.name)} />
                        <span>{probe.name} <span class="hint">{probe.state !== "up" ? probe.state : probe.history?.on ? `reaches back ${reachText(probe.history.reach_s)}` : "no history"}</span></span>
                    </label>
                ))}
            </fieldset>
        </div>
    );
}

function open(hash: string): void {
    location.hash = hash;
}

async function lookFirst(addresses: string[], probes: string[] | null): Promise<void> {
    const asked = addresses.slice(0, LOOKUPS_MAX);
    try {
        const lookups = await Promise.all(asked.map((address) => api.lookUp(address, probes ?? undefined)));
        if (addresses.length > asked.length) {
            say(`Looking at the first ${LOOKUPS_MAX} of ${addresses.length} addresses.`);
        }
        open(`#/lookups/${lookups.map((lookup) => lookup.id).join(",")}`);
    } catch (error) {
        sayError("The rings could not be searched", error);
    }
}

async function record(request: CaptureRequest): Promise<boolean> {
    let captures: Capture[];
    try {
        captures = await api.record(request);
    } catch (error) {
        sayError("Nothing was begun", error);
        return false;
    }
    const only = captures.length === 1 ? captures[0] : undefined;
    open(only ? `#/captures/${only.id}` : "#/captures");
    return true;
}

// `short`: the limits are one line until they are asked for.
export function CaptureForm({short}: {short?: boolean}) {
    const probes = useStore((state) => state.probes);
    const [text, setText] = useState(() => sessionStorage.getItem("kestrune-draft") ?? "");
    const [limits, setLimits] = useState(START);
    const [changing, setChanging] = useState(!short);
    const field = useRef<HTMLTextAreaElement>(null);
    const id = useId();
    const found = useMemo(() => findAddresses(text), [text]);
    useEffect(() => sessionStorage.setItem("kestrune-draft", text), [text]);
    const chosen = probes.filter((probe) => limits.probes === null || limits.probes.includes(probe.name));
    const wrong = wrongLimits(limits);
    const none = found.addresses.length === 0;
    const many = found.addresses.length > ADDRESSES_MAX;
    const blocked = none || many || (limits.probes !== null && limits.probes.length === 0);
    const set = (part: Partial<Limits>) => setLimits({...limits, ...part});
    // What was found may be written differently in the text; the rest of the list is kept as it was understood.
    const remove = (gone: string) => {
        const rest = [...found.addresses, ...found.wrong.map((one) => one.text)].filter((one) => one !== gone);
        setText(rest.join("\n"));
        field.current?.focus();
    };
    const look = async () => {
        await lookFirst(found.addresses, limits.probes);
        sessionStorage.removeItem("kestrune-draft");
    };
    const start = async () => {
        if (await record(requestOf(found.addresses, limits))) {
            sessionStorage.removeItem("kestrune-draft");
        }
    };
    return (
        <section class="panel form" aria-label="Look at addresses">
            <label class="field" htmlFor={id}>
                <span>Which addresses? <span class="hint">One or many; a list, log lines or a whole alert may be pasted.</span></span>
            </label>
            <textarea id={id} ref={field} class="address" rows={Math.min(8, Math.max(short ? 1 : 3, text.split("\n").length))} value={text} spellcheck={false}
                autocomplete="off" placeholder="192.0.2.17" aria-describedby={`${id}-found`} onInput={(event) => setText(event.currentTarget.value)}
                onKeyDown={(event) => {
                    if (event.key === "Enter" && (event.ctrlKey || event.metaKey) && !blocked) {
                        event.preventDefault();
                        void look();
                    }
                }} />
            <Chips found={found} onRemove={remove} />
            <p id={`${id}-found`} class="hint" aria-live="polite">{foundText(found)}</p>
            {changing && <LimitFields limits={limits} set={set} probes={probes} />}
            {wrong || many ? <p class="loss" role="alert">{wrong || `At most ${countText(ADDRESSES_MAX)} addresses at once.`}</p> : null}
            <div class="actions">
                <Button kind="primary" disabled={blocked} action={look}>Look first</Button>
                <span class="explain">Shows at once what passed already. {reachOf(chosen)} Nothing is kept unless you say so.</span>
                <Button disabled={blocked || wrong !== ""} action={start}>Record</Button>
                <span class="explain">
                    {wrong ? "" : limitsInWords(limits)}{" "}
                    {!changing && <button type="button" class="link" onClick={() => setChanging(true)}>Change the limits</button>}
                </span>
            </div>
        </section>
    );
}

export function NewCapture() {
    return (
        <>
            <Title text="New capture" />
            <CaptureForm />
        </>
    );
}
