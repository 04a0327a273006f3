// What the page understands and says, without a browser.
import assert from "node:assert/strict";
import {test} from "node:test";
import {findAddresses} from "../src/addresses";
import {EventFollower, EventParser, type Connection, type ServerEvent} from "../src/events";
import {bytesText, clockText, reachText, shortText, spanText, stepText, timeMs} from "../src/format";
import {receiptOf} from "../src/receipt";
import type {Manifest, ManifestPart} from "../src/types";

test("addresses are found in whatever was pasted", () => {
    const cases: [string, string[], string[]?][] = [
        ["192.0.2.17", ["192.0.2.17"]],
        ["192.0.2.17, 192.0.2.18;2001:DB8:0::1\n192.0.2.17", ["192.0.2.17", "192.0.2.18", "2001:db8::1"]],
        ["hxxp://198[.]51[.]100[.]7/x 2001[:]db8[:]:9", ["198.51.100.7", "2001:db8::9"]],
        ["[2001:db8::1]:443 198.51.100.2:80", ["2001:db8::1", "198.51.100.2"]],
        ["::ffff:192.0.2.1", ["192.0.2.1"]],
        ["fe80::1%eth0", ["fe80::1"]],
        ["12:00:01.123456 IP 192.0.2.17.51234 > 198.51.100.7.443: Flags [S], seq 1, win 64240", ["192.0.2.17", "198.51.100.7"]],
        ["Nov 23 07:42:30 fw kernel: DROP MAC=aa:bb:cc:dd:ee:ff:00:11 SRC=203.0.113.9 DST=192.0.2.1 LEN=60", ["203.0.113.9", "192.0.2.1"]],
        ['{"src_ip":"2001:db8::7","dest_ip":"192.0.2.8","alert":{"signature":"a b c d e"}}', ["2001:db8::7", "192.0.2.8"]],
        ["connect to 2001:db8::1: refused", ["2001:db8::1"]],
        ["see https://192.0.2.5/x.html, version 1.2.3", ["192.0.2.5"]],
        ["lease of aa:bb:cc:dd:ee:ff at 12:34:56", []],
        ["std::string and a::method in the prose of a long line", []],
        ["192.0.2.300", [], ["192.0.2.300"]],
        ["192.0.2.1\n192.0.2\nexample.com\n2001:db8::1::2", ["192.0.2.1"], ["192.0.2", "example.com", "2001:db8::1::2"]],
        ["192.0.2.0/24 192.0.2.1/32 192.0.02.1", ["192.0.2.1"], ["192.0.2.0/24", "192.0.02.1"]],
        ["2001:db8::/32", [], ["2001:db8::/32"]],
        ["", []],
    ];
    for (const [text, addresses, wrong] of cases) {
        const found = findAddresses(text);
        assert.deepEqual(found.addresses, addresses, text);
        assert.deepEqual(found.wrong.map((one) => one.text), wrong ?? [], text);
    }
    assert.equal(findAddresses(Array.from({length: 5000}, (_, i) => `10.0.${i >> 8}.${i & 255}`).join(" ")).addresses.length, 5000);
    const began = performance.now();
    findAddresses(":".repeat(50_000) + "1.".repeat(50_000));
    assert.ok(performance.now() - began < 1000, "a long nonsense does not hang the page");
});

test("numbers and times read as an operator writes them", () => {
    const cases: [string, string][] = [
        [spanText(250), "4 min 10 s"], [spanText(0), "0 s"], [spanText(0.4), "less than 1 s"], [spanText(3600), "1 h"], [spanText(90061), "1 d 1 h"],
        [spanText(59.6), "1 min"],
        [shortText(999), "999"], [shortText(999.6), "1.00 k"], [shortText(1234), "1.23 k"], [shortText(99_960), "100 k"], [shortText(0.25, "/s"), "0.25 /s"],
        [bytesText(1), "1 byte"], [bytesText(1_500_000), "1.50 MB"],
        [stepText(200_000_000), "200 ms"], [stepText(5000), "5 µs"], [stepText(20_000_000_000), "20 s"],
        [reachText({avg: 250, min: 249, max: 251}), "4 min 9 s"], [reachText({avg: 250, min: 100, max: 400}), "1 min 40 s to 6 min 40 s"],
        [clockText(new Date(2026, 0, 2, 3, 4, 5, 999.9).getTime() + 0.9996, 3), "03:04:05.999"],
    ];
    for (const [is, should] of cases) {
        assert.equal(is, should);
    }
    assert.equal(timeMs("2026-11-23T07:42:30.250000001Z"), Date.UTC(2026, 10, 23, 7, 42, 30) + 250.000001);
});

const PART: ManifestPart = {
    probe: "a", state: "finished", live: "over", started_at: "2026-11-23T07:42:30.0Z", ended_at: "2026-11-23T07:47:30.0Z", ended_by: "time", error: null,
    reach_s: {avg: 250, min: 250, max: 250}, heavy: 20, drops: {kernel: 0, interface: 0}, live_packets: {said: 10, found: 10},
    history_packets: {said: 5, found: 5}, differences: [], sources: [], elsewhere: [],
};
const MANIFEST: Manifest = {
    id: "0", address: "192.0.2.1", direction: "both", requested_at: "", started_at: null, ended_at: null, sealed_at: null, limits: {packets: 100000, seconds: 300},
    parts: [PART],
    files: [{name: "0.pcapng", bytes: 1000, sha256: "", packets: 15, first: "2026-11-23T07:38:30.0Z", last: "2026-11-23T07:47:29.0Z"}],
};

test("the receipt says what is there, and marks what is not", () => {
    const cases: [Partial<ManifestPart>, string, boolean][] = [
        [{}, "The rings held the last 4 min 10 s; 5 packets came out of them.", false],
        [{}, "Of each flow they keep the first 20 packets.", false],
        [{heavy: 4294967295}, "Of each flow they keep all packets.", false],
        [{}, "Live: 10 packets in 5 min.", false],
        [{}, "The live capture ended after its 5 min.", false],
        [{ended_by: "packets"}, "The live capture ended at its limit of 100,000 packets.", false],
        [{ended_by: "probe_gone"}, "The live capture ended early: the probe ended or could not be reached.", true],
        [{drops: {kernel: 3, interface: 0}}, "The probe missed 3 packets of all its traffic meanwhile (kernel 3, interface 0); some may have been of this address.", true],
        [{drops: null}, "Whether the probe missed packets meanwhile is not known.", false],
        [{differences: ["3 packets could not be written: the disk was full."]}, "3 packets could not be written: the disk was full.", true],
        [{reach_s: null}, "How far back the rings reached is not known; 5 packets came out of them.", true],
        [{live: "none", ended_by: null}, "A live capture was not asked for.", false],
        [{state: "failed", error: "the probe is down"}, "Nothing came from this probe: the probe is down.", true],
        [{elsewhere: ["x_1", "x_2"]}, "Its files are at the probe, not here: x_1, x_2.", true],
    ];
    for (const [change, text, loss] of cases) {
        const sentences = receiptOf({...MANIFEST, parts: [{...PART, ...change}]}).parts[0]!.sentences;
        assert.deepEqual(sentences.find((one) => one.text === text), {text, loss}, sentences.map((one) => one.text).join("\n"));
    }
    assert.match(receiptOf(MANIFEST).whole[0]!.text, /^The file holds 15 packets to and from 192\.0\.2\.1, .* \(8 min 59 s\)\.$/);
});

const STREAM = 'id: 1-1\nevent: probe\ndata: {"a":1}\n\n:\n\nid: 1-2\r\nevent: alarm\r\ndata: x\r\ndata: y\r\n\r\nid: 1-3\ndata:\n\n';

test("events are the same however the stream is cut", () => {
    const whole = new EventParser().feed(STREAM);
    assert.deepEqual(whole.map((event) => `${event.id} ${event.event} ${event.data}`), ['1-1 probe {"a":1}', "1-2 alarm x\ny", "1-3 message "]);
    for (let cut = 1; cut < STREAM.length; cut++) {
        const parser = new EventParser();
        assert.deepEqual([...parser.feed(STREAM.slice(0, cut)), ...parser.feed(STREAM.slice(cut))], whole, `cut at ${cut}`);
    }
});

test("a lost stream is resumed behind its last event, and given up only for a wrong token", async () => {
    const answers = [
        () => new Response("id: 7-1\nevent: probe\ndata: {}\n\nid: 7-2\nevent: pro"), // torn in an event
        () => Promise.reject(new TypeError("refused")),
        () => new Response("", {status: 503}),
        () => new Response("id: 8-1\nevent: reset\ndata: {}\n\n"),
        () => new Response("", {status: 401}),
    ];
    const asked: (string | undefined)[] = [];
    const events: ServerEvent[] = [];
    const connections: [Connection, boolean][] = [];
    const follower = new EventFollower(
        {onEvent: (event) => events.push(event), onConnection: (state, fresh) => connections.push([state, fresh])},
        {delays: [1], fetch: async (headers) => (asked.push(headers["Last-Event-ID"]), answers.shift()!())},
    );
    await follower.run();
    assert.deepEqual(asked, [undefined, "7-1", "7-1", "7-1", "8-1"]);
    assert.deepEqual(events.map((event) => event.event), ["probe", "reset"]);
    assert.deepEqual(connections.map(([state, fresh]) => state + (fresh ? "!" : "")), ["connecting", "live!", "lost", "lost", "lost", "live", "lost", "refused"]);
});

test("a silent stream counts as lost", async () => {
    let calls = 0;
    const follower: EventFollower = new EventFollower(
        {onEvent: () => {}, onConnection: (state) => state === "lost" && follower.stop()},
        {
            silence: 20, delays: [1],
            fetch: async (_, signal) => {
                calls++;
                return new Response(new ReadableStream({start: (control) => signal.addEventListener("abort", () => control.error(new Error("aborted")))}));
            },
        },
    );
    await follower.run();
    assert.equal(calls, 1);
});
