// The receipt of a capture in sentences: what is in its file, and what is not.
import {bytesText, clockText, countText, dayText, directionText, plural, reachText, spanText, timeMs} from "./format";
import type {Capture, Drops, EndedBy, Limits, Manifest, ManifestPart, Part} from "./types";

export type Sentence = {text: string; loss: boolean}; // loss: something is missing, or may be

export type PartReceipt = {probe: string; sentences: Sentence[]};

export type Receipt = {whole: Sentence[]; parts: PartReceipt[]};

const EVERY_PACKET = 4294967295; // threshold of a history that keeps whole flows

function good(text: string): Sentence {
    return {text, loss: false};
}

function lost(text: string): Sentence {
    return {text, loss: true};
}

function endSentence(by: EndedBy, limits: Limits): Sentence | null {
    switch (by) {
        case "packets":
            return good(`The live capture ended at its limit of ${plural(limits?.packets ?? 0, "packet")}.`);
        case "time":
            return good(`The live capture ended after its ${spanText(limits?.seconds ?? 0)}.`);
        case "removed":
            return good("The live capture was stopped.");
        case "error":
            return lost("The live capture ended with an error.");
        case "probe_gone":
            return lost("The live capture ended early: the probe ended or could not be reached.");
        case "unknown":
            return lost("Why the live capture ended is not known.");
        default:
            return null;
    }
}

function heavySentence(heavy: number | null): Sentence | null {
    if (heavy === null) {
        return null;
    }
    if (heavy === EVERY_PACKET) {
        return good("Of each flow they keep all packets.");
    }
    return heavy === 0 ? lost("They keep no packets of any flow.") : good(`Of each flow they keep the first ${plural(heavy, "packet")}.`);
}

function dropsSentence(drops: Drops): Sentence {
    if (!drops) {
        return good("Whether the probe missed packets meanwhile is not known.");
    }
    const all = drops.kernel + drops.interface;
    if (all === 0) {
        return good("The probe missed no packets meanwhile.");
    }
    return lost(`The probe missed ${plural(all, "packet")} of all its traffic meanwhile (kernel ${countText(drops.kernel)}, ` +
        `interface ${countText(drops.interface)}); some may have been of this address.`);
}

function liveSentence(part: ManifestPart): Sentence | null {
    if (part.live === "none") {
        return good("A live capture was not asked for.");
    }
    if (part.live === "refused") {
        return lost("The probe refused the live capture.");
    }
    const began = part.started_at ? timeMs(part.started_at) : null;
    const ended = part.ended_at ? timeMs(part.ended_at) : null;
    const count = part.live_packets.found ?? part.live_packets.said;
    const span = began !== null && ended !== null ? ` in ${spanText((ended - began) / 1000)}` : "";
    return count === null ? null : good(`Live: ${plural(count, "packet")}${span}.`);
}

function historySentences(part: ManifestPart): (Sentence | null)[] {
    const count = part.history_packets.found ?? part.history_packets.said ?? 0;
    if (!part.reach_s) {
        return [lost(`How far back the rings reached is not known; ${plural(count, "packet")} came out of them.`)];
    }
    return [
        good(`The rings held the last ${reachText(part.reach_s)}; ${plural(count, "packet")} came out of them.`),
        heavySentence(part.heavy),
    ];
}

function elsewhereSentence(names: string[]): Sentence | null {
    return names.length === 0 ? null : lost(`Its files are at the probe, not here: ${names.join(", ")}.`);
}

function partReceipt(part: ManifestPart, limits: Limits): PartReceipt {
    const sentences: (Sentence | null)[] =
        part.state === "failed"
            ? [lost(`Nothing came from this probe: ${part.error ?? "the reason is not known"}.`)]
            : [
                  ...historySentences(part),
                  liveSentence(part),
                  endSentence(part.ended_by, limits),
                  dropsSentence(part.drops),
                  part.error ? lost(sentenceOf(part.error)) : null,
                  ...part.differences.map(lost),
                  elsewhereSentence(part.elsewhere),
              ];
    return {probe: part.probe, sentences: sentences.filter((one) => one !== null)};
}

function sentenceOf(text: string): string {
    const begun = text.charAt(0).toUpperCase() + text.slice(1);
    return /[.!?]$/.test(begun) ? begun : begun + ".";
}

export function receiptOf(manifest: Manifest): Receipt {
    const whole: Sentence[] = [];
    const pcap = manifest.files.find((file) => file.packets !== null);
    if (!pcap || !pcap.packets) {
        whole.push(good(`The file holds no packets: none ${directionText(manifest.direction, manifest.address)} came.`));
    } else {
        const first = pcap.first ? timeMs(pcap.first) : 0;
        const last = pcap.last ? timeMs(pcap.last) : 0;
        whole.push(good(`The file holds ${plural(pcap.packets, "packet")} ${directionText(manifest.direction, manifest.address)}, ` +
            `of ${dayText(first)} from ${clockText(first)} to ${clockText(last)} (${spanText((last - first) / 1000)}).`));
    }
    return {whole, parts: manifest.parts.map((part) => partReceipt(part, manifest.limits))};
}

function partWord(part: Part, limits: Limits): Sentence[] {
    switch (part.state) {
        case "requested":
            return [good(part.error ? `Waits: ${part.error}.` : "Waits for the probe.")];
        case "recording":
            return [good(`Records: ${plural(part.live_packets, "packet")} live${part.history_packets > 0 ? `, ${countText(part.history_packets)} out of the rings` : ""} so far.`)];
        case "searching":
            return [good(`Searches the rings: ${plural(part.history_packets, "packet")} so far.`)];
        case "failed":
            return [lost(`Nothing came from this probe: ${part.error ?? "the reason is not known"}.`)];
        case "finished":
            return [
                good(`${plural(part.live_packets, "packet")} live, ${countText(part.history_packets)} out of the rings.`),
                endSentence(part.ended_by, limits),
                part.error ? lost(sentenceOf(part.error)) : null,
                elsewhereSentence(part.files ?? []),
            ].filter((one) => one !== null);
    }
}

// Of a capture without a manifest: it runs, waits for sealing, failed, or its files are elsewhere.
export function progressOf(capture: Pick<Capture, "parts" | "limits">): PartReceipt[] {
    return capture.parts.map((part) => ({probe: part.probe, sentences: partWord(part, capture.limits)}));
}

export function limitsText(limits: Limits): string {
    return limits
        ? `live for ${spanText(limits.seconds)} or ${plural(limits.packets, "packet")}, and what the rings held`
        : "what the rings held, nothing live";
}

export function fileText(bytes: number, packets: number): string {
    return `${plural(packets, "packet")}, ${bytesText(bytes)}`;
}
