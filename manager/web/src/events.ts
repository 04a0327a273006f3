// Server-sent events read by fetch, which can send a token, with resuming.

export type ServerEvent = {id: string; event: string; data: string};

// Cuts the text of a stream into events. Comments and fields that are not used here are skipped.
export class EventParser {
    private rest = "";
    private id = "";
    private event = "";
    private data: string[] = [];

    feed(text: string): ServerEvent[] {
        const events: ServerEvent[] = [];
        const lines = (this.rest + text).split("\n");
        this.rest = lines.pop() ?? "";
        for (const line of lines) {
            const event = this.takeLine(line.replace(/\r$/, ""));
            if (event) {
                events.push(event);
            }
        }
        return events;
    }

    private takeLine(line: string): ServerEvent | null {
        if (line === "") {
            return this.finish();
        }
        const colon = line.indexOf(":");
        const field = colon < 0 ? line : line.slice(0, colon);
        const value = colon < 0 ? "" : line.slice(colon + 1).replace(/^ /, "");
        if (field === "id") {
            this.id = value;
        } else if (field === "event") {
            this.event = value;
        } else if (field === "data") {
            this.data.push(value);
        }
        return null;
    }

    private finish(): ServerEvent | null {
        const event = {id: this.id, event: this.event || "message", data: this.data.join("\n")};
        const empty = this.data.length === 0;
        this.event = "";
        this.data = [];
        return empty ? null : event;
    }
}

export type Connection = "connecting" | "live" | "lost" | "refused";

export type Listener = {
    onEvent(event: ServerEvent): void;
    // `fresh`: nothing was missed is not known; everything is to be read anew.
    onConnection(state: Connection, fresh: boolean): void;
};

export type FollowOptions = {
    fetch: (headers: Record<string, string>, signal: AbortSignal) => Promise<Response>;
    delays?: number[]; // ms before each new attempt; the last one repeats
    silence?: number; // ms; the manager sends a comment each 15 s
};

const DELAYS = [300, 600, 1000, 2000, 3000];
const SILENCE = 40_000;

// Follows the stream until `stop` is called; reconnects by itself, and asks for what was missed since.
export class EventFollower {
    private lastId = "";
    private stopped = false;
    private abort = new AbortController();
    private failures = 0;
    private wakeUp: () => void = () => {};

    constructor(
        private readonly listener: Listener,
        private readonly options: FollowOptions,
    ) {}

    async run(): Promise<void> {
        this.listener.onConnection("connecting", false);
        while (!this.stopped) {
            const again = await this.connect();
            if (this.stopped || !again) {
                return;
            }
            this.listener.onConnection("lost", false);
            const delays = this.options.delays ?? DELAYS;
            await this.pause(delays[Math.min(this.failures++, delays.length - 1)]!);
        }
    }

    stop(): void {
        this.stopped = true;
        this.abort.abort();
        this.wakeUp();
    }

    // Ends a pause: the browser says that the network is back, or somebody looks at the page again.
    hurry(): void {
        this.wakeUp();
    }

    private pause(ms: number): Promise<void> {
        return new Promise((resolve) => {
            const timer = setTimeout(resolve, ms);
            this.wakeUp = () => {
                clearTimeout(timer);
                resolve();
            };
        });
    }

    // False when another attempt makes no sense: the token is wrong.
    private async connect(): Promise<boolean> {
        this.abort = new AbortController();
        const resumed = this.lastId !== "";
        try {
            const headers: Record<string, string> = resumed ? {"Last-Event-ID": this.lastId} : {};
            const response = await this.options.fetch(headers, this.abort.signal);
            if (response.status === 401) {
                this.listener.onConnection("refused", false);
                return false;
            }
            if (response.ok && response.body) {
                this.failures = 0;
                this.listener.onConnection("live", !resumed);
                await this.read(response.body);
            }
        } catch {
            // Any error of the network: the next attempt shows whether it is over.
        }
        return true;
    }

    private async read(body: ReadableStream<Uint8Array>): Promise<void> {
        const parser = new EventParser();
        const decoder = new TextDecoder();
        const reader = body.getReader();
        for (;;) {
            const timer = setTimeout(() => this.abort.abort(), this.options.silence ?? SILENCE);
            const {done, value} = await reader.read().finally(() => clearTimeout(timer));
            if (done) {
                return;
            }
            for (const event of parser.feed(decoder.decode(value, {stream: true}))) {
                this.lastId = event.id || this.lastId;
                this.listener.onEvent(event);
            }
        }
    }
}
