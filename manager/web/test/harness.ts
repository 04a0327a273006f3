// The built probe with the plugin, the built manager, and a browser on its page. KESTRUNE_BUILD names the folder of the
// programs, KESTRUNE_SCREENSHOTS where the pictures go, CHROMIUM the browser.
import {spawn, type ChildProcess} from "node:child_process";
import {mkdirSync, mkdtempSync, openSync, readFileSync, rmSync, writeFileSync} from "node:fs";
import {createRequire} from "node:module";
import {createServer, connect} from "node:net";
import {tmpdir} from "node:os";
import {join, resolve} from "node:path";
import type {Browser, BrowserContextOptions, Page} from "playwright-core";

const require = createRequire(join(process.cwd(), "package.json"));
const BUILD = resolve(process.env.KESTRUNE_BUILD ?? "../../build/release");
const SHOTS = resolve(process.env.KESTRUNE_SCREENSHOTS ?? "../../build/screenshots");
export const CAPTURE = resolve("../../examples/pcaps/web-dualstack-tls.pcap");
export const IPV4 = "192.168.0.17";
export const IPV6 = "2601:647:4b02:1d20:fd05:6f66:ecce:8bc7";

export async function until(what: string, condition: () => Promise<boolean> | boolean, limit = 20_000): Promise<void> {
    const deadline = Date.now() + limit;
    while (!(await condition())) {
        if (Date.now() > deadline) {
            throw new Error(`not within ${limit} ms: ${what}`);
        }
        await new Promise((done) => setTimeout(done, 50));
    }
}

async function freePort(): Promise<number> {
    return new Promise((done) => {
        const server = createServer().listen(0, "127.0.0.1", () => {
            const {port} = server.address() as {port: number};
            server.close(() => done(port));
        });
    });
}

function listens(port: number): Promise<boolean> {
    return new Promise((done) => {
        const socket = connect(port, "127.0.0.1", () => (socket.destroy(), done(true)));
        socket.on("error", () => done(false));
    });
}

class Program {
    private process: ChildProcess | null = null;
    constructor(private readonly log: string, private readonly argv: string[], private readonly port: number) {}

    async start(): Promise<void> {
        const log = openSync(this.log, "a");
        this.process = spawn(this.argv[0]!, this.argv.slice(1), {stdio: ["ignore", log, log]});
        await until(`${this.argv[0]} listens; ${this.log}`, () => listens(this.port));
    }

    async stop(signal: NodeJS.Signals = "SIGTERM"): Promise<void> {
        const ended = this.process;
        this.process = null;
        if (ended && ended.exitCode === null) {
            const gone = new Promise((done) => ended.once("exit", done));
            ended.kill(signal);
            await gone;
        }
    }
}

export type Site = {url: string; token: string; probe: Program; manager: Program; api<T>(method: string, path: string, body?: unknown): Promise<T>; end(): Promise<void>};

// One probe, which replays a capture for ever as if it happened now.
export async function startSite(speed: number): Promise<Site> {
    const folder = mkdtempSync(join(tmpdir(), "kestrune_web_"));
    const [port, metrics, http] = [await freePort(), await freePort(), await freePort()];
    const captures = join(folder, "captures");
    mkdirSync(captures);
    const probe = new Program(join(folder, "probe.log"), [
        join(BUILD, "kestrune-probe"), "-r", CAPTURE, "--loop", "0", "--rebase", "--speed", String(speed), "--metrics", `127.0.0.1:${metrics}`,
        "-P", `port=${port};export_path=${captures};buffer_size=64`,
    ], port);
    writeFileSync(join(folder, "manager.toml"), `[http]\nlisten = "127.0.0.1:${http}"\n[archive]\ndirectory = "${folder}/archive"\nmin_free_mb = 1\n` +
        `[[probe]]\nname = "uplink-a"\naddress = "127.0.0.1:${port}"\nfiles = "${captures}"\nmetrics = "http://127.0.0.1:${metrics}/metrics"\n`);
    const manager = new Program(join(folder, "manager.log"), [join(BUILD, "kestrune-manager"), "-c", join(folder, "manager.toml"), "--state", join(folder, "state")], http);
    await probe.start();
    await manager.start();
    const token = /^admin admin (\S+)$/m.exec(readFileSync(join(folder, "state", "tokens"), "utf8"))![1]!;
    const url = `http://127.0.0.1:${http}`;
    const api = async <T>(method: string, path: string, body?: unknown): Promise<T> => {
        const response = await fetch(`${url}/api/v1${path}`, {
            method, headers: {Authorization: `Bearer ${token}`, "Content-Type": "application/json"}, ...(body === undefined ? {} : {body: JSON.stringify(body)}),
        });
        return (response.status === 204 ? {} : await response.json()) as T;
    };
    await until("the probe is up", async () => (await api<{state: string}>("GET", "/probes/uplink-a")).state === "up");
    const end = async () => {
        await manager.stop();
        await probe.stop();
        rmSync(folder, {recursive: true, force: true});
    };
    return {url, token, probe, manager, api, end};
}

export async function launch(): Promise<Browser> {
    const {chromium} = require("playwright-core") as typeof import("playwright-core");
    return chromium.launch({executablePath: process.env.CHROMIUM ?? "/usr/bin/chromium", args: ["--no-sandbox"]});
}

// A page that is signed in. Errors of its scripts and refusals of the policy fail the test that closes it.
export async function open(browser: Browser, site: Site, options: BrowserContextOptions = {}): Promise<{page: Page; errors: string[]}> {
    const context = await browser.newContext({viewport: {width: 1280, height: 860}, acceptDownloads: true, ...options});
    const page = await context.newPage();
    const errors: string[] = [];
    page.on("pageerror", (error) => errors.push(String(error)));
    page.on("console", (message) => {
        if (/Content Security Policy|TrustedHTML/.test(message.text())) {
            errors.push(message.text());
        }
    });
    page.setDefaultTimeout(20_000);
    await page.goto(`${site.url}/#token=${site.token}`);
    await page.getByRole("heading", {name: "Overview"}).waitFor();
    return {page, errors};
}

const AXE = readFileSync(require.resolve("axe-core/axe.min.js"), "utf8");

// What axe finds wrong, as lines.
export async function axe(page: Page): Promise<string[]> {
    await page.evaluate(AXE);
    return page.evaluate(async () => {
        const run = (globalThis as unknown as {axe: {run(): Promise<{violations: {id: string; nodes: {html: string; failureSummary: string}[]}[]}>}}).axe;
        const {violations} = await run.run();
        return violations.flatMap((one) => one.nodes.map((node) => `${one.id}: ${node.html.slice(0, 200)}: ${node.failureSummary}`));
    });
}

// The view in both themes, as pictures and as axe sees it.
export async function show(page: Page, name: string): Promise<string[]> {
    mkdirSync(SHOTS, {recursive: true});
    const found: string[] = [];
    for (const colorScheme of ["dark", "light"] as const) {
        await page.emulateMedia({colorScheme});
        await page.evaluate(() => new Promise((done) => requestAnimationFrame(() => requestAnimationFrame(done))));
        await page.screenshot({path: join(SHOTS, `${name}-${colorScheme}.png`), fullPage: true});
        found.push(...(await axe(page)).map((line) => `${name} ${colorScheme}: ${line}`));
    }
    return found;
}
