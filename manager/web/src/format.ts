// Numbers, spans and times as text.
import type {Reach} from "./types";

const NUMBER = new Intl.NumberFormat("en-US");
const MS_PER_DAY = 86_400_000;

export function countText(count: number): string {
    return NUMBER.format(count);
}

export function plural(count: number, one: string, many = one + "s"): string {
    return `${countText(count)} ${count === 1 ? one : many}`;
}

// Three digits and a unit: 999, 1.23 k, 45.6 M.
export function shortText(value: number, unit = ""): string {
    const steps: [number, string][] = [[1e12, "T"], [1e9, "G"], [1e6, "M"], [1e3, "k"]];
    for (const [size, prefix] of steps) {
        if (Math.abs(value) >= size * 0.9995) {
            return `${digits(value / size)} ${prefix}${unit}`.trim();
        }
    }
    return `${digits(value)} ${unit}`.trim();
}

function digits(value: number): string {
    const size = Math.abs(value);
    if (Number.isInteger(value) && size < 1000) {
        return String(value);
    }
    return value.toFixed(size >= 99.95 ? 0 : size >= 9.995 ? 1 : 2);
}

export function bytesText(bytes: number): string {
    return bytes < 1000 ? plural(bytes, "byte") : shortText(bytes, "B");
}

// The two largest units: "4 min 10 s", "2 h 5 min", "45 s", "3 d".
export function spanText(seconds: number): string {
    const whole = Math.max(0, Math.round(seconds));
    if (whole < 1 && seconds > 0) {
        return "less than 1 s";
    }
    const parts: [number, string][] = [
        [Math.floor(whole / 86400), "d"],
        [Math.floor(whole / 3600) % 24, "h"],
        [Math.floor(whole / 60) % 60, "min"],
        [whole % 60, "s"],
    ];
    const first = parts.findIndex(([count]) => count > 0);
    if (first < 0) {
        return "0 s";
    }
    return parts
        .slice(first, first + 2)
        .filter(([count]) => count > 0)
        .map(([count, unit]) => `${count} ${unit}`)
        .join(" ");
}

// A step of a picture: "200 ms", "5 µs", "1 s".
export function stepText(ns: number): string {
    const units: [number, string][] = [[1e9, "s"], [1e6, "ms"], [1e3, "µs"], [1, "ns"]];
    for (const [size, unit] of units) {
        if (ns >= size) {
            return `${ns / size} ${unit}`;
        }
    }
    return "0 s";
}

// "4 min 10 s"; the least and the most of the queues where they differ by more than a tenth.
export function reachText(reach: Reach): string {
    if (!reach) {
        return "unknown";
    }
    if (reach.max - reach.min > Math.max(1, reach.max / 10)) {
        return `${spanText(reach.min)} to ${spanText(reach.max)}`;
    }
    return spanText(reach.min);
}

// Milliseconds since 1970, with a fraction down to the nanoseconds that a double has room for.
export function timeMs(time: string): number {
    const match = /^(.*:\d\d)(?:\.(\d+))?(Z|[+-]\d\d:\d\d)$/.exec(time);
    return match ? Date.parse(match[1]! + match[3]!) + Number(`0.${match[2] ?? 0}`) * 1000 : Date.parse(time);
}

function two(value: number): string {
    return String(value).padStart(2, "0");
}

// In local time, as the operator's clock shows it: 12:00:01, with `places` of a second.
export function clockText(ms: number, places = 0): string {
    const at = new Date(ms);
    const text = `${two(at.getHours())}:${two(at.getMinutes())}:${two(at.getSeconds())}`;
    if (places === 0) {
        return text;
    }
    const fraction = ((ms / 1000) % 1).toFixed(places);
    return text + (fraction.startsWith("1") ? "." + "9".repeat(places) : fraction.slice(1));
}

export function dayText(ms: number): string {
    const at = new Date(ms);
    return `${at.getFullYear()}-${two(at.getMonth() + 1)}-${two(at.getDate())}`;
}

// The clock alone for today, the date with it for other days.
export function whenText(time: string | null, now = Date.now()): string {
    if (!time) {
        return "unknown";
    }
    const ms = timeMs(time);
    const same = dayText(ms) === dayText(now) && Math.abs(now - ms) < MS_PER_DAY;
    return same ? clockText(ms) : `${dayText(ms)} ${clockText(ms)}`;
}

export function directionText(direction: string, address: string): string {
    const words: Record<string, string> = {src: "sent by", dst: "sent to", both: "to and from"};
    return `${words[direction] ?? direction} ${address}`;
}
