// Finds IP addresses in whatever was pasted: a list, log lines, an alert.
//
// Text is looked at line by line. A line that consists of addresses and single words is a list, where every word that is
// no address is reported. In any other line only what looks like an address counts.

export type Wrong = {text: string; why: string};
export type Found = {addresses: string[]; wrong: Wrong[]};

const SEPARATORS = /[\s,;|"'`<>(){}=]+/;
// Digits and dots; or hexadecimal digits and at least two colons, perhaps with an IPv4 address at its end.
const CANDIDATE = /(?<![\w.:-])(?:\d+(?:\.\d+){3,4}(?:\/\d+)?(?::\d+)?|\[?[0-9a-f]{0,4}(?::[0-9a-f]{0,4}){2,}(?:\.\d+){0,3}(?:%[\w.-]+)?\]?(?::\d+)?(?:\/\d+)?)(?![\w:-])/gi;
const MAC = /^[0-9a-f]{2}(?::[0-9a-f]{2}){5,}$/i; // or the header that a packet filter logs
const CLOCK = /^\d{1,4}:\d{2}:\d{2}(?:\.\d+)?$/;
const LIST_WORDS_MAX = 3; // on a line without any address: more of them are prose

const DEFANGED = /[[({]([.:])[\])}]/g; // 192.0.2[.]7, as reports write it so that nobody presses it

type Verdict = {address: string} | {why: string} | null;

// The one way to write an address; null for what is none.
export function canonical(text: string): string | null {
    return canonical4(text) ?? canonical6(text);
}

function canonical4(text: string): string | null {
    const parts = text.split(".");
    const good = parts.length === 4 && parts.every((part) => /^(0|[1-9]\d{0,2})$/.test(part) && Number(part) <= 255);
    return good ? text : null;
}

function canonical6(text: string): string | null {
    if (!/^[0-9a-f:.]+$/i.test(text) || !text.includes(":")) {
        return null;
    }
    try {
        const host = new URL(`http://[${text}]/`).hostname.slice(1, -1);
        const mapped = /^::ffff:([0-9a-f]{1,4}):([0-9a-f]{1,4})$/.exec(host);
        return mapped ? mappedText(parseInt(mapped[1]!, 16), parseInt(mapped[2]!, 16)) : host;
    } catch {
        return null;
    }
}

function mappedText(high: number, low: number): string {
    return [high >> 8, high & 255, low >> 8, low & 255].join(".");
}

function judge4(text: string): Verdict {
    const [host = "", prefix] = text.replace(/:\d+$/, "").split("/");
    const parts = host.split(".");
    const address = canonical4(parts.slice(0, 4).join(".")); // a fifth part is a port, as packet printers write it
    if (!address || (parts.length === 5 && Number(parts[4]) > 65535)) {
        return {why: parts.some((part) => part.length > 1 && part[0] === "0") ? "a part begins with 0" : "a part is above 255"};
    }
    if (prefix !== undefined && prefix !== "32") {
        return {why: "a network; name single addresses"};
    }
    return {address};
}

function judge6(text: string): Verdict {
    const match = /^\[?([0-9a-f:.]+?)(?:%[\w.-]+)?(?:\]|(?=\/|$))(?::\d+)?(?:\/(\d+))?$/i.exec(text);
    const bare = match?.[1]?.replace(/\.$/, "") ?? text;
    if (CLOCK.test(bare) || MAC.test(bare) || bare === "::" || /^:+$/.test(bare)) {
        return null;
    }
    const address = canonical6(bare.replace(/(?<!:):$/, "")); // "2001:db8::1: refused"
    if (!match || !address) {
        return bare.split(":").length > 4 || bare.includes("::") ? {why: "not an IPv6 address"} : null;
    }
    return match[2] !== undefined && match[2] !== "128" ? {why: "a network; name single addresses"} : {address};
}

function judge(text: string): Verdict {
    return text.includes(":") && !/^\d+(\.\d+){3}/.test(text) ? judge6(text) : judge4(text);
}

function reasonOf(word: string): string {
    if (/^[\d.]+$/.test(word)) {
        return "not four numbers";
    }
    return /^[\w-]+(\.[\w-]+)+\.?$/.test(word) ? "a name; only addresses can be recorded" : "not an address";
}

function findInLine(line: string): Found {
    const result: Found = {addresses: [], wrong: []};
    const matches = line.match(CANDIDATE) ?? [];
    for (const text of matches) {
        const verdict = judge(text);
        if (verdict && "address" in verdict) {
            result.addresses.push(verdict.address);
        } else if (verdict) {
            result.wrong.push({text, why: verdict.why});
        }
    }
    const words = line.split(SEPARATORS).filter((word) => word !== "");
    const others = words.filter((word) => !matches.some((text) => word.includes(text)));
    const found = result.addresses.length + result.wrong.length;
    if (found >= others.length ? found > 0 : words.length <= LIST_WORDS_MAX && found === 0 && /^[\w.:,;\s-]+$/.test(line)) {
        result.wrong.push(...others.map((text) => ({text, why: reasonOf(text)})));
    }
    return result;
}

// Each address once, in the order of the text.
export function findAddresses(text: string): Found {
    const addresses = new Set<string>();
    const wrong = new Map<string, Wrong>();
    for (const line of text.replace(DEFANGED, "$1").split(/\r?\n/)) {
        const found = findInLine(line);
        found.addresses.forEach((address) => addresses.add(address));
        found.wrong.forEach((one) => wrong.set(one.text, one));
    }
    return {addresses: [...addresses], wrong: [...wrong.values()]};
}
