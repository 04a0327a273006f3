// Requests to the manager. The token is kept for the life of the browser's tab only.
import type {
    Alarm, Archive, Capture, CapturePage, CaptureRequest, Lookup, Manifest, Probe, Series, Summary,
} from "./types";

const BASE = "/api/v1";
const TOKEN_KEY = "kestrune-token";
const RANDOM_BYTES = 16;

// A refusal in the manager's words, or that it could not be asked (status 0).
export class ApiError extends Error {
    constructor(
        readonly status: number,
        message: string,
        readonly field = "",
    ) {
        super(message);
    }
}

let onRefused: () => void = () => {};

export function whenRefused(action: () => void): void {
    onRefused = action;
}

export function token(): string {
    return sessionStorage.getItem(TOKEN_KEY) ?? "";
}

export function setToken(value: string): void {
    if (value) {
        sessionStorage.setItem(TOKEN_KEY, value);
    } else {
        sessionStorage.removeItem(TOKEN_KEY);
    }
}

// Takes the token out of the address bar, so that it is neither shown nor kept in the history.
export function takeTokenFromUrl(): void {
    const match = /^#token=([\w.~+/=-]+)$/.exec(location.hash);
    if (match) {
        setToken(match[1]!);
        history.replaceState(null, "", location.pathname + "#/");
    }
}

function authorized(headers: Record<string, string> = {}): Record<string, string> {
    return {...headers, Authorization: `Bearer ${token()}`};
}

export function fetchEvents(headers: Record<string, string>, signal: AbortSignal): Promise<Response> {
    return fetch(`${BASE}/events`, {headers: authorized(headers), signal, cache: "no-store"});
}

async function errorOf(response: Response): Promise<ApiError> {
    let detail = `the manager answered ${response.status}`;
    let field = "";
    try {
        const problem: unknown = await response.json();
        if (typeof problem === "object" && problem !== null) {
            const known = problem as {detail?: unknown; field?: unknown};
            detail = typeof known.detail === "string" ? known.detail : detail;
            field = typeof known.field === "string" ? known.field : "";
        }
    } catch {
        // Not from the manager; a proxy between, perhaps.
    }
    return new ApiError(response.status, detail, field);
}

async function ask(method: string, path: string, body?: unknown, headers: Record<string, string> = {}): Promise<Response> {
    let response: Response;
    try {
        const json: Record<string, string> = body === undefined ? {} : {"Content-Type": "application/json"};
        response = await fetch(BASE + path, {
            method,
            headers: authorized({...headers, ...json}),
            body: body === undefined ? null : JSON.stringify(body),
        });
    } catch {
        throw new ApiError(0, "the manager cannot be reached");
    }
    if (response.status === 401) {
        onRefused();
    }
    if (!response.ok) {
        throw await errorOf(response);
    }
    return response;
}

async function get<T>(path: string): Promise<T> {
    return (await ask("GET", path)).json() as Promise<T>;
}

async function send<T>(method: string, path: string, body?: unknown, headers?: Record<string, string>): Promise<T> {
    return (await ask(method, path, body, headers)).json() as Promise<T>;
}

// randomUUID exists on secure origins only.
function randomKey(): string {
    return Array.from(crypto.getRandomValues(new Uint8Array(RANDOM_BYTES)), (byte) => byte.toString(16).padStart(2, "0")).join("");
}

export type CaptureFilter = {address: string; state: string; text: string; since: string; until: string; sort: string};

export function filterQuery(filter: CaptureFilter, cursor: string | null, limit: number): string {
    const query = new URLSearchParams();
    for (const [name, value] of Object.entries(filter)) {
        if (value) {
            query.set(name, value);
        }
    }
    query.set("limit", String(limit));
    if (cursor) {
        query.set("cursor", cursor);
    }
    return query.toString();
}

const name = encodeURIComponent;

export const api = {
    probes: async () => (await get<{probes: Probe[]}>("/probes")).probes,
    series: (probe: string, from: string, step: number) =>
        get<Series>(`/probes/${name(probe)}/series?from=${name(from)}&step=${step}`),
    setHistory: (probe: string, wish: {on: boolean; size_mb?: number}) =>
        send<Probe>("PUT", `/probes/${name(probe)}/history`, wish),
    setHeavy: (probe: string, packets: number) => send<Probe>("PUT", `/probes/${name(probe)}/heavy`, {packets}),
    alarms: async () => (await get<{alarms: Alarm[]}>("/alarms")).alarms,
    archive: () => get<Archive>("/archive"),
    captures: (query: string) => get<CapturePage>(`/captures?${query}`),
    capture: (id: string) => get<Capture>(`/captures/${id}`),
    // The key makes an answer that got lost harmless: the same request may be sent again.
    record: async (request: CaptureRequest) => {
        const key = {"Idempotency-Key": randomKey()};
        try {
            return (await send<CapturePage>("POST", "/captures", request, key)).captures;
        } catch (error) {
            if (!(error instanceof ApiError) || error.status !== 0) {
                throw error;
            }
            return (await send<CapturePage>("POST", "/captures", request, key)).captures;
        }
    },
    stop: (id: string) => send<Capture>("POST", `/captures/${id}/stop`),
    hold: (id: string, hold: boolean) => send<Capture>("PUT", `/captures/${id}/hold`, hold ? {hold, why: "held on the web page"} : {hold}),
    remove: (id: string) => ask("DELETE", `/captures/${id}`),
    manifest: async (id: string) => (await ask("GET", `/captures/${id}/manifest`)).text(),
    summary: (id: string) => get<Summary>(`/captures/${id}/summary`),
    ticket: (id: string) => send<{url: string}>("POST", `/captures/${id}/ticket`),
    lookUp: (address: string, probes?: string[]) =>
        send<Lookup>("POST", "/lookups", probes ? {address, probes} : {address}),
    lookup: (id: string) => get<Lookup>(`/lookups/${id}`),
    keep: (id: string) => send<Capture>("POST", `/lookups/${id}/keep`),
    drop: (id: string) => ask("DELETE", `/lookups/${id}`),
};

export function parseManifest(text: string): Manifest {
    return JSON.parse(text) as Manifest;
}

// The browser saves the file itself: the link needs no token, and nothing passes through this page's memory.
export async function download(id: string): Promise<void> {
    const {url} = await api.ticket(id);
    if (!url.startsWith("/api/v1/")) {
        throw new ApiError(0, "the manager gave a strange link");
    }
    const link = document.createElement("a");
    link.href = url;
    link.download = `${id}.pcapng`;
    link.click();
}

export function saveText(fileName: string, text: string): void {
    const link = document.createElement("a");
    link.href = URL.createObjectURL(new Blob([text], {type: "application/json"}));
    link.download = fileName;
    link.click();
    setTimeout(() => URL.revokeObjectURL(link.href), 10_000);
}
