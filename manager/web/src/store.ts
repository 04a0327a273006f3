// All state that more than one view sees, and what the events make of it.
import {useEffect, useState} from "preact/hooks";
import {api, ApiError, fetchEvents, setToken, token, whenRefused} from "./api";
import {EventFollower, type Connection, type ServerEvent} from "./events";
import {timeMs} from "./format";
import type {Alarm, Archive, CaptureEvent, Probe} from "./types";

export type ProbeSample = {at: number; packets: number | null; drops: number | null; reach: Probe["history"]}; // at: ms
export type CaptureSample = {at: number; live: number; history: number};
export type Message = {id: number; text: string; kind: "info" | "error"; undo?: () => void; until: number};

export type State = {
    signedIn: boolean;
    refused: boolean; // the last token was wrong
    connection: Connection;
    lostSince: number | null; // ms
    loaded: boolean;
    generation: number; // grows when everything is to be read anew
    probes: Probe[];
    alarms: Alarm[];
    archive: Archive | null;
    probeSamples: Record<string, ProbeSample[]>;
    captureEvents: Record<string, CaptureEvent>; // the last one of each, of those that changed while this page was open
    captureSamples: Record<string, CaptureSample[]>; // of captures that run
    deleting: Record<string, true>; // requests that wait for their ten seconds
    messages: Message[];
};

const SAMPLES_MAX = 1500;
const PROBES_MS = 5_000;
const EVENTS_MAX = 5000;
const MESSAGE_MS = 8000;
export const UNDO_MS = 10_000;

let state: State = {
    signedIn: false,
    refused: false,
    connection: "connecting",
    lostSince: null,
    loaded: false,
    generation: 0,
    probes: [],
    alarms: [],
    archive: null,
    probeSamples: {},
    captureEvents: {},
    captureSamples: {},
    deleting: {},
    messages: [],
};
const listeners = new Set<() => void>();
let follower: EventFollower | null = null;
let messageNumber = 0;

export function current(): State {
    return state;
}

export function change(part: Partial<State>): void {
    state = {...state, ...part};
    listeners.forEach((listener) => listener());
}

// The chosen part of the state; draws again when it is another one.
export function useStore<T>(choose: (state: State) => T): T {
    const [, redraw] = useState(0);
    const chosen = choose(state);
    useEffect(() => {
        let last = chosen;
        const listener = () => {
            const next = choose(state);
            if (!Object.is(next, last)) {
                last = next;
                redraw((count) => count + 1);
            }
        };
        listeners.add(listener);
        listener();
        return () => {
            listeners.delete(listener);
        };
    });
    return chosen;
}

// Messages

export function say(text: string, kind: Message["kind"] = "info", undo?: () => void): number {
    const id = ++messageNumber;
    const time = undo ? UNDO_MS : MESSAGE_MS;
    const message: Message = {id, text, kind, until: Date.now() + time, ...(undo ? {undo} : {})};
    change({messages: [...state.messages.slice(-4), message]});
    if (kind === "info") {
        setTimeout(() => dismiss(id), time);
    }
    return id;
}

export function dismiss(id: number): void {
    if (state.messages.some((message) => message.id === id)) {
        change({messages: state.messages.filter((message) => message.id !== id)});
    }
}

export function sayError(what: string, error: unknown): void {
    if (error instanceof ApiError && error.status === 401) {
        return; // the token is asked for
    }
    say(`${what}: ${error instanceof Error ? error.message : "unknown error"}`, "error");
}

// Deleting: the request goes out after ten seconds, unless it is undone.
export function deleteLater(id: string, address: string): void {
    if (state.deleting[id]) {
        return;
    }
    const timer = setTimeout(() => void deleteNow(id, address), UNDO_MS);
    change({deleting: {...state.deleting, [id]: true}});
    const message = say(`The capture of ${address} will be deleted.`, "info", () => {
        clearTimeout(timer);
        forgetDeleting(id);
        dismiss(message);
    });
}

function forgetDeleting(id: string): void {
    const {[id]: _, ...deleting} = state.deleting;
    change({deleting});
}

async function deleteNow(id: string, address: string): Promise<void> {
    try {
        await api.remove(id);
        say(`The capture of ${address} is deleted.`);
    } catch (error) {
        sayError(`The capture of ${address} was not deleted`, error);
    }
    forgetDeleting(id);
}

// Events

function addSample<T>(samples: T[] | undefined, sample: T): T[] {
    return [...(samples ?? []).slice(1 - SAMPLES_MAX), sample];
}

function takeProbe(probe: Probe): void {
    const known = state.probes.some((one) => one.name === probe.name);
    const sample: ProbeSample = {
        at: Date.now(),
        packets: probe.packets,
        drops: probe.drops ? probe.drops.kernel + probe.drops.interface : null,
        reach: probe.history,
    };
    change({
        probes: known ? state.probes.map((one) => (one.name === probe.name ? probe : one)) : [...state.probes, probe],
        probeSamples: {...state.probeSamples, [probe.name]: addSample(state.probeSamples[probe.name], sample)},
    });
}

function takeCapture(event: CaptureEvent): void {
    const {[event.id]: _, ...others} = state.captureEvents;
    const ids = Object.keys(others);
    if (ids.length >= EVENTS_MAX) {
        delete others[ids[0]!];
    }
    const samples = {...state.captureSamples};
    if (event.state === "recording" || event.state === "searching") {
        const sample = {at: Date.now(), live: event.live_packets, history: event.history_packets};
        samples[event.id] = addSample(samples[event.id], sample);
    } else if (event.state !== "requested" && event.state !== "finished") {
        delete samples[event.id];
    }
    change({captureEvents: {...others, [event.id]: event}, captureSamples: samples});
    if (event.state === "sealed" || event.state === "deleted") {
        refreshArchive();
    }
}

function takeAlarm(alarm: Alarm): void {
    const others = state.alarms.filter((one) => one.key !== alarm.key);
    change({alarms: alarm.ended_at ? others : [...others, alarm].sort((a, b) => timeMs(a.since) - timeMs(b.since))});
}

let archiveTimer: ReturnType<typeof setTimeout> | undefined;

function refreshArchive(): void {
    clearTimeout(archiveTimer);
    archiveTimer = setTimeout(() => {
        api.archive().then((archive) => change({archive}), () => {});
    }, 500);
}

function onEvent(event: ServerEvent): void {
    if (event.event === "reset") {
        void loadAll();
        return;
    }
    let data: unknown;
    try {
        data = JSON.parse(event.data);
    } catch {
        return;
    }
    if (event.event === "probe") {
        takeProbe(data as Probe);
    } else if (event.event === "capture") {
        takeCapture(data as CaptureEvent);
    } else if (event.event === "alarm") {
        takeAlarm(data as Alarm);
    }
}

function onConnection(connection: Connection, fresh: boolean): void {
    if (connection === "refused") {
        signOut();
        return;
    }
    const lostSince = connection === "lost" ? (state.lostSince ?? Date.now()) : null;
    change({connection, lostSince});
    if (connection === "live" && fresh) {
        void loadAll();
    }
}

async function loadAll(): Promise<void> {
    try {
        const [probes, alarms, archive] = await Promise.all([api.probes(), api.alarms(), api.archive()]);
        change({probes, alarms, archive, captureEvents: {}, captureSamples: {}, loaded: true, generation: state.generation + 1});
    } catch (error) {
        sayError("The manager's state could not be read", error);
    }
}

// Events tell what has changed at a probe. How far back it reaches changes all the time and is asked for.
async function readProbes(): Promise<void> {
    if (!state.signedIn || document.hidden) {
        return;
    }
    try {
        (await api.probes()).forEach(takeProbe);
    } catch {
        // The line of the events shows that the manager is gone.
    }
}

// Signing in

export function start(): void {
    whenRefused(signOut);
    window.addEventListener("online", () => follower?.hurry());
    document.addEventListener("visibilitychange", () => follower?.hurry());
    setInterval(() => void readProbes(), PROBES_MS);
    if (token() !== "") {
        change({signedIn: true});
        follow();
    }
}

export function signIn(value: string): void {
    setToken(value);
    change({signedIn: true, refused: false, loaded: false});
    follow();
}

function signOut(): void {
    setToken("");
    follower?.stop();
    change({signedIn: false, refused: true});
}

function follow(): void {
    follower?.stop();
    follower = new EventFollower({onEvent, onConnection}, {fetch: fetchEvents});
    void follower.run();
}
