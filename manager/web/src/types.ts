// The interface's objects as docs/openapi.yaml has them. Times are RFC 3339 with nanoseconds.

export type Reach = {avg: number; min: number; max: number} | null;

export type History = {on: boolean; size_bytes: number; free_bytes: number; packets: number; reach_s: Reach};

export type Drops = {kernel: number; interface: number} | null;

export type Probe = {
    name: string;
    address: string;
    state: "up" | "down" | "incompatible";
    since: string | null;
    queues: number | null;
    history: History | null;
    heavy: number | null;
    rules: number | null;
    packets: number | null;
    drops: Drops;
    error: string | null;
};

export type Column = (number | null)[];

export type Series = {
    probe: string;
    from: string;
    step_s: number;
    reach_s: {avg: Column; min: Column; max: Column};
    packets_per_s: Column;
    drops_per_s: Column;
};

export type Direction = "src" | "dst" | "both";

export type CaptureState = "requested" | "recording" | "searching" | "finished" | "sealed" | "failed" | "deleted";

export type EndedBy = "packets" | "time" | "removed" | "error" | "probe_gone" | "unknown" | null;

export type Part = {
    probe: string;
    state: "requested" | "recording" | "searching" | "finished" | "failed";
    live: "none" | "unknown" | "running" | "refused" | "over";
    percent: number;
    live_packets: number;
    history_packets: number;
    ended_by: EndedBy;
    error: string | null;
    files: string[] | null;
};

export type File = {bytes: number; packets: number; sha256: string} | null;

export type Limits = {packets: number; seconds: number} | null;

export type Capture = {
    id: string;
    address: string;
    direction: Direction;
    state: CaptureState;
    reason: string | null;
    reference: Record<string, unknown> | null;
    requested_at: string;
    requested_by: string;
    ended_at: string | null;
    percent: number;
    limits: Limits;
    live_packets: number;
    history_packets: number;
    parts: Part[];
    file: File;
    hold: {why: string; by: string; at: string} | null;
    error: string | null;
    deleted: {cause: string; at: string} | null;
};

export type CaptureEvent = {
    id: string;
    address: string;
    direction: Direction;
    state: CaptureState;
    percent: number;
    live_packets: number;
    history_packets: number;
    requested_at: string;
    requested_by: string;
    ended_at: string | null;
    file: File;
    hold: boolean;
    lookup: boolean;
};

export type CapturePage = {captures: Capture[]; next?: string | null};

export type CaptureRequest = {
    addresses: string[];
    probes?: string[];
    direction?: Direction;
    packets?: number;
    seconds?: number;
    history_only?: boolean;
    reason?: string;
};

export type Share = {name: string; packets: number; bytes: number};

export type Conversation = {
    a: string;
    a_port: number | null;
    b: string;
    b_port: number | null;
    protocol: string;
    packets: [number, number];
    bytes: [number, number];
    first: string;
    last: string;
};

export type Summary = {
    id: string;
    packets: number;
    bytes: number;
    first: string | null;
    last: string | null;
    from: string | null;
    step_ns: number;
    origins: {probe: string; origin: string; packets: number[]; bytes: number[]}[];
    conversations: Conversation[];
    conversations_more: number;
    protocols: Share[];
    ports: Share[];
};

export type Lookup = {
    id: string;
    address: string;
    state: "searching" | "done" | "failed";
    requested_at: string;
    expires_at: string | null;
    reach_s: Reach;
    history_packets: number;
    parts: Part[];
    summary: Summary | null;
};

export type Alarm = {
    key: string;
    probe: string | null;
    severity: "warning" | "error";
    text: string;
    since: string;
    ended_at: string | null;
};

export type Archive = {
    bytes: number;
    raw_bytes: number;
    quota_bytes: number | null;
    free_bytes: number;
    min_free_bytes: number;
    captures: number;
    oldest: string | null;
    room: "enough" | "no_new" | "end_running";
};

export type SaidFound = {said: number | null; found: number | null};

export type ManifestPart = {
    probe: string;
    state: "finished" | "failed";
    live: "none" | "unknown" | "refused" | "over";
    started_at: string | null;
    ended_at: string | null;
    ended_by: EndedBy;
    error: string | null;
    reach_s: Reach;
    heavy: number | null;
    drops: Drops;
    live_packets: SaidFound;
    history_packets: SaidFound;
    differences: string[];
    sources: {name: string; origin: string; bytes: number; packets: number; torn: boolean; kept: boolean}[];
    elsewhere: string[];
};

export type Manifest = {
    id: string;
    address: string;
    direction: Direction;
    requested_at: string;
    started_at: string | null;
    ended_at: string | null;
    sealed_at: string | null;
    limits: Limits;
    parts: ManifestPart[];
    files: {name: string; bytes: number; sha256: string; packets: number | null; first: string | null; last: string | null}[];
};
