// What the rings hold of an address, to be kept or dropped. Several at once stand beside each other as tabs.
import {useEffect, useState} from "preact/hooks";
import {api, ApiError} from "./api";
import {plural, reachText} from "./format";
import {Picture} from "./picture";
import {progressOf} from "./receipt";
import {say, sayError, useStore} from "./store";
import type {Lookup} from "./types";
import {Bar, Button, Time, Title} from "./ui";

type Read = {lookup: Lookup | null; gone: boolean; error: string};

function useLookup(id: string): Read {
    const event = useStore((state) => state.captureEvents[id]);
    const generation = useStore((state) => state.generation);
    const [read, setRead] = useState<Read>({lookup: null, gone: false, error: ""});
    useEffect(() => {
        let wanted = true;
        api.lookup(id).then(
            (lookup) => wanted && setRead({lookup, gone: false, error: ""}),
            (error: unknown) => {
                const gone = error instanceof ApiError && error.status === 404;
                return wanted && setRead((old) => ({lookup: gone ? null : old.lookup, gone, error: error instanceof Error ? error.message : ""}));
            },
        );
        return () => {
            wanted = false;
        };
    }, [id, generation, event?.state, event?.lookup]);
    return read;
}

function Gone({id}: {id: string}) {
    const [kept, setKept] = useState(false);
    useEffect(() => {
        api.capture(id).then((capture) => setKept(capture.state !== "deleted"), () => {});
    }, [id]);
    return (
        <p class="panel empty">
            This look is over: it was kept, dropped, or is older than ten minutes.{" "}
            {kept ? <a href={`#/captures/${id}`}>It was kept as a capture.</a> : <a href="#/">Look again</a>}
        </p>
    );
}

function Searching({lookup}: {lookup: Lookup}) {
    const event = useStore((state) => state.captureEvents[lookup.id]);
    const percent = event?.percent ?? 0;
    return (
        <section class="panel" aria-live="polite">
            <p>Searching the rings for {lookup.address}: {plural(event?.history_packets ?? lookup.history_packets, "packet")} so far.</p>
            <Bar share={percent / 100} label={`${percent} % searched`} />
        </section>
    );
}

function reachSentence(lookup: Lookup): string {
    return lookup.reach_s ? `The rings held the last ${reachText(lookup.reach_s)}.` : "How far back the rings reached is not known.";
}

async function recordLive(lookup: Lookup): Promise<void> {
    try {
        const [capture] = await api.record({addresses: [lookup.address]});
        if (capture) {
            location.hash = `#/captures/${capture.id}`;
        }
    } catch (error) {
        sayError("Nothing was begun", error);
    }
}

// `others`: looked up together with this one; they stay when it is dropped.
function Choice({lookup, others}: {lookup: Lookup; others: string[]}) {
    const keep = async () => {
        try {
            await api.keep(lookup.id);
            say(`Kept: the past of ${lookup.address} is a capture now.`);
            location.hash = `#/captures/${lookup.id}`;
        } catch (error) {
            sayError("It was not kept", error);
        }
    };
    const drop = async () => {
        try {
            await api.drop(lookup.id);
            say(`Dropped what was seen of ${lookup.address}.`);
            location.hash = others.length > 0 ? `#/lookups/${others.join(",")}` : "#/";
        } catch (error) {
            sayError("It was not dropped", error);
        }
    };
    return (
        <div class="head-line">
            <span class="hint">{reachSentence(lookup)} {lookup.expires_at && <>Nothing is kept unless you say so before <Time time={lookup.expires_at} />.</>}</span>
            <span class="buttons">
                <Button kind="primary" action={keep}>Keep</Button>
                <Button action={drop}>Drop</Button>
                <Button action={() => recordLive(lookup)}>Record it live</Button>
            </span>
        </div>
    );
}

function OneLookup({id, others}: {id: string; others: string[]}) {
    const {lookup, gone, error} = useLookup(id);
    if (gone) {
        return <Gone id={id} />;
    }
    if (!lookup) {
        return <p class="panel empty">{error || "Reading …"}</p>;
    }
    const failed = progressOf({parts: lookup.parts, limits: null}).filter((_, index) => lookup.parts[index]!.state === "failed");
    return (
        <>
            <Title text={others.length === 0 ? `The past of ${lookup.address}` : lookup.address} />
            {lookup.state === "searching" ? <Searching lookup={lookup} /> : <Choice lookup={lookup} others={others} />}
            {failed.map((part) => <p key={part.probe} class="panel loss">{part.probe}: {part.sentences.map((one) => one.text).join(" ")}</p>)}
            {lookup.summary && <Picture summary={lookup.summary} requestedAt={lookup.requested_at} />}
        </>
    );
}

function TabName({id}: {id: string}) {
    const {lookup} = useLookup(id);
    return <>{lookup ? `${lookup.address}${lookup.state === "searching" ? " …" : ""}` : "over"}</>;
}

export function LookupView({ids}: {ids: string[]}) {
    const [chosen, setChosen] = useState(ids[0]!);
    const id = ids.includes(chosen) ? chosen : ids[0]!;
    return (
        <>
            {ids.length > 1 && (
                <div class="tabs" role="group" aria-label="Addresses that were looked up">
                    {ids.map((one) => (
                        <button key={one} type="button" class="quiet address" aria-pressed={one === id} onClick={() => setChosen(one)}><TabName id={one} /></button>
                    ))}
                </div>
            )}
            <OneLookup key={id} id={id} others={ids.filter((one) => one !== id)} />
        </>
    );
}
