// Builds the page: build.mjs [--out DIR]. Names of scripts and styles hold their hash, so that browsers may keep them.
// Each file has a compressed one beside it.
//
//   build.mjs --tests DIR    bundles the tests instead, for node --test
import {build} from "esbuild";
import {mkdirSync, readdirSync, readFileSync, rmSync, writeFileSync} from "node:fs";
import {basename, dirname, join, resolve} from "node:path";
import {fileURLToPath} from "node:url";
import {gzipSync} from "node:zlib";

const HERE = dirname(fileURLToPath(import.meta.url));

function option(name, fallback) {
    const at = process.argv.indexOf(name);
    return at < 0 ? fallback : resolve(process.argv[at + 1]);
}

async function buildTests(out) {
    const tests = readdirSync(join(HERE, "test")).filter((name) => name.endsWith(".test.ts"));
    await build({
        entryPoints: tests.map((name) => join(HERE, "test", name)),
        outdir: out,
        outExtension: {".js": ".mjs"},
        bundle: true,
        format: "esm",
        platform: "node",
        target: "node18",
        external: ["playwright-core"],
        sourcemap: "inline",
    });
}

async function buildPage(out) {
    const result = await build({
        entryPoints: [join(HERE, "src/main.tsx"), join(HERE, "src/style.css")],
        outdir: join(out, "assets"),
        entryNames: "[name]-[hash]",
        bundle: true,
        minify: true,
        format: "esm",
        target: ["chrome109", "firefox115", "safari16"],
        jsx: "automatic",
        jsxImportSource: "preact",
        legalComments: "none",
        write: false,
    });
    rmSync(out, {recursive: true, force: true});
    mkdirSync(join(out, "assets"), {recursive: true});
    const names = {};
    for (const file of result.outputFiles) {
        names[basename(file.path).replace(/-.*\./, ".")] = basename(file.path);
        write(file.path, file.contents);
    }
    const html = readFileSync(join(HERE, "src/index.html"), "utf8").replace("STYLE", names["style.css"]).replace("SCRIPT", names["main.js"]);
    write(join(out, "index.html"), html);
}

let compressed = 0;

function write(path, contents) {
    const small = gzipSync(contents, {level: 9});
    compressed += small.length;
    writeFileSync(path, contents);
    writeFileSync(path + ".gz", small);
}

if (process.argv.includes("--tests")) {
    await buildTests(option("--tests"));
} else {
    await buildPage(option("--out", join(HERE, "../../build/web")));
    console.log(`${(compressed / 1000).toFixed(1)} kB compressed`);
}
