// All captures: filtered, sorted and paged by the manager; only the rows in sight are in the document.
import {useEffect, useLayoutEffect, useRef, useState} from "preact/hooks";
import {canonical} from "./addresses";
import {api, download, filterQuery, type CaptureFilter} from "./api";
import {bytesText, countText, plural} from "./format";
import {deleteLater, sayError, useStore, type State} from "./store";
import type {Capture, CaptureEvent, CaptureState} from "./types";
import {Bar, Button, runs, StateMark, stateWord, Time, Title} from "./ui";

const PAGE = 200;
const AHEAD = 100; // rows from the end at which the next page is asked for
const OVERSCAN = 3;
const ROW = 40; // pixels
const NARROW_ROW = 92;
const TYPING_MS = 250;
const NEWS_MS = 400;
const REST_MS = 120; // after a jump, until the rows are drawn whole

const STATES: CaptureState[] = ["requested", "recording", "searching", "finished", "sealed", "failed", "deleted"];
const SORTS: [string, string][] = [
    ["-time", "newest first"], ["time", "oldest first"], ["address", "by address"],
    ["-packets", "most packets first"], ["-bytes", "largest first"],
];
const NO_FILTER: CaptureFilter = {address: "", state: "", text: "", since: "", until: "", sort: "-time"};

// What a row shows: pages of whole captures would fill the memory.
type Row = {
    id: string;
    address: string;
    state: CaptureState;
    reason: string;
    requestedAt: string;
    requestedBy: string;
    percent: number;
    packets: number;
    bytes: number | null;
    hold: boolean;
    elsewhere: boolean;
};

function rowOf(capture: Capture): Row {
    return {
        id: capture.id,
        address: capture.address,
        state: capture.state,
        reason: capture.reason ?? "",
        requestedAt: capture.requested_at,
        requestedBy: capture.requested_by,
        percent: capture.percent,
        packets: capture.file?.packets ?? capture.live_packets + capture.history_packets,
        bytes: capture.file?.bytes ?? null,
        hold: capture.hold !== null,
        elsewhere: capture.parts.some((part) => part.files !== null),
    };
}

function patched(row: Row, event: CaptureEvent | undefined): Row {
    return event
        ? {...row, state: event.state, percent: event.percent, hold: event.hold, bytes: event.file?.bytes ?? null,
            packets: event.file?.packets ?? event.live_packets + event.history_packets}
        : row;
}

type Rows = {list: Row[]; next: string | null; done: boolean; known: Set<string>};

const NOTHING: Rows = {list: [], next: null, done: false, known: new Set()};

// Pages as they are needed. A page that comes after the filter changed is thrown away.
function useRows(filter: CaptureFilter): {rows: Rows; more: () => void; error: string} {
    const generation = useStore((state) => state.generation);
    const [rows, setRows] = useState<Rows>(NOTHING);
    const [error, setError] = useState("");
    const latest = useRef({filter, rows, busy: false, number: 0});
    const load = async (first: boolean) => {
        const now = latest.current;
        if (!first && (now.busy || now.rows.done)) {
            return;
        }
        const number = ++now.number;
        now.busy = true;
        try {
            const page = await api.captures(filterQuery(now.filter, first ? null : now.rows.next, PAGE));
            if (number === now.number) {
                // Long lists grow in place: copying 100,000 rows for each page would be seen while scrolling.
                const {list, known}: Pick<Rows, "list" | "known"> = first ? {list: [], known: new Set()} : now.rows;
                for (const capture of page.captures) {
                    list.push(rowOf(capture));
                    known.add(capture.id);
                }
                now.rows = {list, next: page.next ?? null, done: !page.next, known};
                setRows(now.rows);
                setError("");
            }
        } catch (failure) {
            if (number === now.number) {
                setError(failure instanceof Error ? failure.message : "unknown error");
            }
        } finally {
            if (number === now.number) {
                now.busy = false;
            }
        }
    };
    useEffect(() => {
        latest.current.filter = filter;
        void load(true);
    }, [filter, generation]);
    useNews(rows, () => void load(true));
    return {rows, more: () => void load(false), error};
}

// New captures are read with the first page; a long list that was scrolled stays as it is until its top is seen again.
function useNews(rows: Rows, reload: () => void): void {
    const events = useStore((state) => state.captureEvents);
    const hasNews = rows.list.length <= PAGE && rows !== NOTHING &&
        Object.values(events).some((event) => !event.lookup && !rows.known.has(event.id) && event.state !== "deleted");
    const seen = useRef("");
    useEffect(() => {
        const last = Object.keys(events).at(-1) ?? "";
        if (!hasNews || last === seen.current) {
            return;
        }
        const timer = setTimeout(() => {
            seen.current = last;
            reload();
        }, NEWS_MS);
        return () => clearTimeout(timer);
    }, [hasNews, events]);
}

async function act(what: string, action: () => Promise<unknown>): Promise<void> {
    try {
        await action();
    } catch (error) {
        sayError(what, error);
    }
}

// `saves`: a download stands beside them already.
export function CaptureActions({row, saves}: {row: Pick<Row, "id" | "address" | "state" | "hold" | "elsewhere">; saves?: boolean}) {
    const {id, address, state, hold} = row;
    const deletable = state === "sealed" || state === "failed" || (state === "finished" && row.elsewhere);
    return (
        <span class="buttons">
            {runs(state) && <Button kind="quiet" label={`Stop the capture of ${address}`} action={() => act("It was not stopped", () => api.stop(id))}>Stop</Button>}
            {state === "sealed" && !saves && <Button kind="quiet" label={`Download the capture of ${address}`} action={() => act("It cannot be downloaded", () => download(id))}>Download</Button>}
            {state !== "deleted" && !runs(state) && (
                <Button kind="quiet" label={hold ? `Release the capture of ${address}` : `Hold the capture of ${address}: never delete it`}
                    action={() => act("The hold was not changed", () => api.hold(id, !hold))}>{hold ? "Release" : "Hold"}</Button>
            )}
            {deletable && !hold && <Button kind="quiet" label={`Delete the capture of ${address}`} action={() => deleteLater(id, address)}>Delete</Button>}
        </span>
    );
}

// `brief`: the list is jumping past; nobody can press anything there.
function RowView({row, index, top, deleting, most, brief}: {row: Row; index: number; top: number; deleting: boolean; most: number; brief: boolean}) {
    const what = row.reason || row.requestedBy;
    return (
        <div class={`row${deleting ? " row-leaving" : ""}`} role="row" aria-rowindex={index + 2} style={{transform: `translateY(${top}px)`}}>
            <span role="cell" class="cell-address"><a class="address" href={`#/captures/${row.id}`}>{row.address}</a></span>
            <span role="cell" class="cell-state">
                <StateMark state={row.state} elsewhere={row.elsewhere} />{row.hold && <span class="state">hold</span>}
            </span>
            <span role="cell" class="cell-time number"><Time time={row.requestedAt} /></span>
            <span role="cell" class="cell-what" title={`${row.requestedBy}: ${row.reason}`}>{what}</span>
            <span role="cell" class="cell-percent">
                {runs(row.state) ? <Bar share={row.percent / 100} label={`${row.percent} %`} /> : null}
                {runs(row.state) ? <span class="number">{row.percent} %</span> : null}
            </span>
            <span role="cell" class="cell-packets">
                <Bar share={row.packets / Math.max(1, most)} label={`${countText(row.packets)} packets`} /><span class="number">{countText(row.packets)}</span>
            </span>
            <span role="cell" class="cell-bytes number">{row.bytes === null ? "" : bytesText(row.bytes)}</span>
            <span role="cell" class="cell-actions">{deleting ? <span class="hint">deleting …</span> : brief ? null : <CaptureActions row={row} />}</span>
        </div>
    );
}

const COLUMNS: [string, string, string | null][] = [
    ["address", "Address", "address"], ["state", "State", null], ["time", "Asked", "time"], ["what", "For", null],
    ["percent", "Done", null], ["packets", "Packets", "packets"], ["bytes", "Size", "bytes"], ["actions", "", null],
];

// The first press puts the latest and the most on top, and addresses from the lowest; the next one turns it round.
function nextSort(sort: string, key: string): string {
    if (sort === key) {
        return `-${key}`;
    }
    return sort === `-${key}` || key === "address" ? key : `-${key}`;
}

function Head({sort, onSort}: {sort: string; onSort: (sort: string) => void}) {
    return (
        <div class="row row-head" role="row" aria-rowindex={1}>
            {COLUMNS.map(([name, title, key]) => {
                const direction = key === null ? undefined : sort === key ? "ascending" : sort === `-${key}` ? "descending" : "none";
                return (
                    <span key={name} role="columnheader" class={`cell-${name}`} aria-sort={direction}>
                        {key === null ? title || <span class="hidden">Actions</span> : (
                            <button type="button" class="link" onClick={() => onSort(nextSort(sort, key))}>
                                {title}{direction === "ascending" ? " ▲" : direction === "descending" ? " ▼" : ""}
                            </button>
                        )}
                    </span>
                );
            })}
        </div>
    );
}

function useNarrow(): boolean {
    const [narrow, setNarrow] = useState(() => matchMedia("(max-width: 760px)").matches);
    useEffect(() => {
        const query = matchMedia("(max-width: 760px)");
        const changed = () => setNarrow(query.matches);
        query.addEventListener("change", changed);
        return () => query.removeEventListener("change", changed);
    }, []);
    return narrow;
}

function Table({rows, more, filter, onSort}: {rows: Rows; more: () => void; filter: CaptureFilter; onSort: (sort: string) => void}) {
    const events = useStore((state: State) => state.captureEvents);
    const deleting = useStore((state: State) => state.deleting);
    const box = useRef<HTMLDivElement>(null);
    const [view, setView] = useState({top: 0, height: 600});
    const row = useNarrow() ? NARROW_ROW : ROW;
    useLayoutEffect(() => {
        const measure = () => box.current && setView({top: box.current.scrollTop, height: box.current.clientHeight});
        measure();
        const observer = new ResizeObserver(measure);
        observer.observe(box.current!);
        return () => observer.disconnect();
    }, []);
    const frame = useRef(0);
    const [brief, setBrief] = useState(false);
    const rest = useRef<ReturnType<typeof setTimeout>>();
    const onScroll = () => { // at most once a frame
        cancelAnimationFrame(frame.current);
        frame.current = requestAnimationFrame(() => {
            if (!box.current) {
                return;
            }
            const {scrollTop, clientHeight} = box.current;
            clearTimeout(rest.current);
            if (Math.abs(scrollTop - view.top) > clientHeight) {
                setBrief(true);
            }
            rest.current = setTimeout(() => setBrief(false), REST_MS);
            setView({top: scrollTop, height: clientHeight});
        });
    };
    const first = Math.max(0, Math.floor(view.top / row) - OVERSCAN);
    const last = Math.min(rows.list.length, Math.ceil((view.top + view.height) / row) + OVERSCAN);
    useEffect(() => {
        if (!rows.done && rows.list.length > 0 && last + AHEAD >= rows.list.length) {
            more();
        }
    }, [last, rows]);
    const shown = rows.list.slice(first, last).map((one) => patched(one, events[one.id]));
    const most = Math.max(1, ...shown.map((one) => one.packets));
    const gone = filter.state === "";
    return (
        <div class="table" role="table" aria-label="Captures" aria-rowcount={rows.done ? rows.list.length + 1 : -1}>
            <div role="rowgroup" class="table-head"><Head sort={filter.sort} onSort={onSort} /></div>
            <div ref={box} role="rowgroup" class="table-box" tabIndex={0}
                onScroll={onScroll}>
                <div class="table-rows" role="presentation" style={{height: `${rows.list.length * row}px`}}>
                    {shown.map((one, index) => (
                        <RowView key={one.id} row={one} index={first + index} top={(first + index) * row} most={most} brief={brief}
                            deleting={deleting[one.id] === true || (gone && one.state === "deleted")} />
                    ))}
                </div>
            </div>
        </div>
    );
}

function localTime(time: string): string {
    return time ? new Date(new Date(time).getTime() - new Date(time).getTimezoneOffset() * 60_000).toISOString().slice(0, 16) : "";
}

function Filters({filter, set}: {filter: CaptureFilter; set: (part: Partial<CaptureFilter>) => void}) {
    const moment = (value: string) => (value ? new Date(value).toISOString() : "");
    return (
        <form class="filters" role="search" onSubmit={(event) => event.preventDefault()}>
            <label>Address <input type="search" class="address" value={filter.address} onInput={(event) => set({address: event.currentTarget.value.trim()})} /></label>
            <label>State <select value={filter.state} onChange={(event) => set({state: event.currentTarget.value})}>
                <option value="">any but deleted</option>
                {STATES.map((state) => <option key={state} value={state}>{stateWord(state)}</option>)}
            </select></label>
            <label>Text <input type="search" placeholder="reason, person, reference" value={filter.text} onInput={(event) => set({text: event.currentTarget.value})} /></label>
            <label>From <input type="datetime-local" value={localTime(filter.since)} onChange={(event) => set({since: moment(event.currentTarget.value)})} /></label>
            <label>until <input type="datetime-local" value={localTime(filter.until)} onChange={(event) => set({until: moment(event.currentTarget.value)})} /></label>
            <label>Order <select value={filter.sort} onChange={(event) => set({sort: event.currentTarget.value})}>
                {!SORTS.some(([sort]) => sort === filter.sort) && <option value={filter.sort}>by column</option>}
                {SORTS.map(([sort, words]) => <option key={sort} value={sort}>{words}</option>)}
            </select></label>
        </form>
    );
}

function Empty({filtered, onClear}: {filtered: boolean; onClear: () => void}) {
    return filtered ? (
        <p class="panel empty">No capture fits this filter. <button type="button" class="link" onClick={onClear}>Show all captures</button></p>
    ) : (
        <p class="panel empty">Nothing was recorded yet. <a href="#/new">Name an address</a>, look at what the rings hold of it, or record it.</p>
    );
}

export function Captures() {
    const [filter, setFilter] = useState(NO_FILTER);
    const [wanted, setWanted] = useState(NO_FILTER);
    const partial = filter.address !== "" && canonical(filter.address) === null; // the manager compares whole addresses
    useEffect(() => {
        const timer = setTimeout(() => setWanted(partial ? {...filter, address: ""} : filter), TYPING_MS);
        return () => clearTimeout(timer);
    }, [filter, partial]);
    const {rows, more, error} = useRows(wanted);
    const set = (part: Partial<CaptureFilter>) => setFilter({...filter, ...part});
    const filtered = Object.entries(wanted).some(([name, value]) => name !== "sort" && value !== "");
    const empty = rows !== NOTHING && rows.list.length === 0;
    return (
        <>
            <Title text="Captures" />
            <Filters filter={filter} set={set} />
            <p class="hint" aria-live="polite">
                {partial && "Not filtered by address until it is whole. "}
                {error ? <span class="loss">{error}</span> : rows === NOTHING ? "Reading …" : rows.done ? plural(rows.list.length, "capture") : `${countText(rows.list.length)} or more captures`}
            </p>
            {empty ? <Empty filtered={filtered} onClear={() => setFilter(NO_FILTER)} /> : <Table rows={rows} more={more} filter={wanted} onSort={(sort) => set({sort})} />}
        </>
    );
}
