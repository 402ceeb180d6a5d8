"use strict";
// Bad input at every boundary, from a seeded generator (run through scripts/bad-input.sh). Starts the
// software manager, the update service and, when its npm packages are there, the OPC UA server in a
// temporary folder, then feeds each of them input they must refuse: names too long, with NUL or
// ill-formed UTF-8 (local API and command line), hostile packages (path escapes, links, devices, a
// compression bomb, bad manifests and signatures), broken frames on both sockets, and OPC UA calls
// with wrong argument types or too many bytes. Every case must get a clear error within a bound
// scaled by ZUN_TEST_TIME_SCALE, leave every process up and answering, and change nothing on disk
// nor in the store. The last line counts cases and failures.
const { spawn, spawnSync } = require("node:child_process");
const crypto = require("node:crypto");
const fs = require("node:fs");
const net = require("node:net");
const os = require("node:os");
const path = require("node:path");
const zlib = require("node:zlib");

const args = process.argv.slice(2);
const option = (name, fallback) => (args.includes(name) ? args[args.indexOf(name) + 1] : fallback);
const seed = Number(option("--seed", String(Date.now() % 1e9)));
const bin = path.resolve(option("--bin", "build/default/bin"));
const opcuaDir = path.resolve(__dirname, "..", "OpcUaServer");
const keep = args.includes("--keep");
const scale = Math.max(1, Number(process.env.ZUN_TEST_TIME_SCALE) || 1);
const patience = 20000 * scale;
// Both services give a begun message or frame 10 s to complete.
const frameTime = 10000;
const Files = "Generic files / Sample files";
const Uri = "https://example.com/zun";
const Bad = (status) => typeof status === "number" && status >= 0x80000000;

// mulberry32: the same seed gives the same cases.
let state = seed >>> 0;
function random() {
    state = (state + 0x6D2B79F5) >>> 0;
    let t = state;
    t = Math.imul(t ^ (t >>> 15), t | 1);
    t ^= t + Math.imul(t ^ (t >>> 7), t | 61);
    return ((t ^ (t >>> 14)) >>> 0) / 4294967296;
}
const between = (low, high) => low + Math.floor(random() * (high - low + 1));
const pick = (list) => list[Math.floor(random() * list.length)];
const randomBytes = (count) => Buffer.from(Array.from({ length: count }, () => between(0, 255)));
const letters = (count) => Array.from({ length: count }, () => String.fromCharCode(between(97, 122))).join("");
// Sequences no UTF-8 decoder may accept: a lone continuation byte, an overlong form, a surrogate, a cut sequence, bytes above F4.
const illFormed = () => Buffer.from(pick([[0x80], [0xC0, 0xAF], [0xED, 0xA0, 0x80], [0xE2, 0x82], [0xF5, 0x80, 0x80, 0x80], [0xFF], [0xFE, 0xFF]]));
const insertAt = (text, inserted) => {
    const at = between(0, text.length);
    return Buffer.concat([Buffer.from(text.slice(0, at)), inserted, Buffer.from(text.slice(at))]);
};

const work = fs.mkdtempSync(path.join(os.tmpdir(), "zun-bad-input-"));
const managerState = path.join(work, "manager");
const managerSocket = path.join(work, "manager.sock");
const serviceSocket = path.join(work, "service.sock");
const outside = path.join(work, "outside");
const children = {};

function within(promise, milliseconds, what) {
    let timer;
    const watchdog = new Promise((resolve, reject) => {
        timer = setTimeout(() => reject(new Error(`no answer within ${milliseconds} ms (${what})`)), milliseconds);
    });
    return Promise.race([promise, watchdog]).finally(() => clearTimeout(timer));
}

async function waitFor(check, what) {
    const end = Date.now() + patience;
    while (!check()) {
        if (Date.now() > end) {
            throw new Error(`${what} did not happen within ${patience} ms`);
        }
        await new Promise((resolve) => setTimeout(resolve, 20));
    }
}

async function start(name, command, commandArgs, ready) {
    const log = fs.openSync(path.join(work, `${name}.log`), "a");
    const child = spawn(command, commandArgs, { stdio: ["ignore", log, log] });
    children[name] = child;
    await waitFor(() => child.exitCode !== null || ready(), `${name} start`);
    if (child.exitCode !== null) {
        throw new Error(`${name} ended with ${child.exitCode}: ${fs.readFileSync(path.join(work, `${name}.log`), "utf8")}`);
    }
}

// ---- the update service's local API: 4-byte little-endian length, JSON body ----

class Stream {
    constructor(socketPath, headerSize, sizeOf) {
        this.headerSize = headerSize;
        this.sizeOf = sizeOf;
        this.buffer = Buffer.alloc(0);
        this.items = [];
        this.waiters = [];
        this.closed = false;
        this.socket = net.createConnection(socketPath);
        this.socket.on("data", (chunk) => this.receive(chunk));
        this.socket.on("error", () => {});
        this.socket.on("close", () => { this.closed = true; this.wake(); });
        this.connected = new Promise((resolve, reject) => { this.socket.once("connect", resolve); this.socket.once("error", reject); });
    }
    receive(chunk) {
        this.buffer = Buffer.concat([this.buffer, chunk]);
        while (this.buffer.length >= this.headerSize) {
            const size = this.headerSize + this.sizeOf(this.buffer);
            if (this.buffer.length < size) {
                break;
            }
            this.items.push(this.buffer.subarray(0, size));
            this.buffer = this.buffer.subarray(size);
        }
        this.wake();
    }
    wake() {
        for (const waiter of this.waiters.splice(0)) {
            waiter();
        }
    }
    // The next whole message, or null once the peer has closed.
    async next(milliseconds = patience) {
        return within(new Promise((resolve) => {
            const check = () => {
                if (this.items.length > 0) {
                    resolve(this.items.shift());
                } else if (this.closed) {
                    resolve(null);
                } else {
                    this.waiters.push(check);
                }
            };
            check();
        }), milliseconds, "a message or the end of the connection");
    }
    write(bytes) {
        this.socket.write(bytes);
    }
    close() {
        this.socket.destroy();
    }
}

const lengthPrefixed = (body) => {
    const header = Buffer.alloc(4);
    header.writeUInt32LE(body.length);
    return Buffer.concat([header, body]);
};
const json = (value) => lengthPrefixed(Buffer.from(JSON.stringify(value)));

class Api extends Stream {
    constructor() {
        super(serviceSocket, 4, (buffer) => buffer.readUInt32LE(0));
        this.id = 0;
    }
    static async open(hello = true) {
        const api = new Api();
        await api.connected;
        if (hello) {
            api.write(json({ type: "hello", protocol: 1, client: "bad-input" }));
            const answer = await api.message();
            if (answer?.type !== "hello") {
                throw new Error(`no hello: ${JSON.stringify(answer)}`);
            }
        }
        return api;
    }
    async message(milliseconds) {
        const item = await this.next(milliseconds);
        return item && JSON.parse(item.subarray(4).toString("utf8"));
    }
    // Skips events; returns the response or error message, or null when the service closed.
    async answer(milliseconds) {
        for (;;) {
            const message = await this.message(milliseconds);
            if (message?.type !== "event") {
                return message;
            }
        }
    }
    async request(op, params) {
        this.write(json({ type: "request", id: ++this.id, op, params }));
        return this.answer();
    }
}

async function apiCall(op, params) {
    const api = await Api.open();
    try {
        return await api.request(op, params);
    } finally {
        api.close();
    }
}

// ---- the software manager's frames: 16-byte header ----

const Op = { None: 0, GetAll: 1, GetInformation: 2, GetState: 3, SetPackage: 4, RemovePackage: 5, GetPackageDirectory: 6, Start: 7, Resume: 8 };
function frame({ magic = 0x464D535A, version = 1, type = 1, operation, id = 1, payload = Buffer.alloc(0), length = payload.length }) {
    const header = Buffer.alloc(16);
    header.writeUInt32LE(magic, 0);
    header.writeUInt8(version, 4);
    header.writeUInt8(type, 5);
    header.writeUInt16LE(operation, 6);
    header.writeUInt32LE(id, 8);
    header.writeUInt32LE(length >>> 0, 12);
    return Buffer.concat([header, payload]);
}
const int32 = (value) => { const b = Buffer.alloc(5); b.writeUInt8(8); b.writeInt32LE(value, 1); return b; };
function text(bytes) {
    const count = [];
    let n = bytes.length;
    do {
        count.push((n & 0x7F) | (n >= 0x80 ? 0x80 : 0));
        n >>>= 7;
    } while (n > 0);
    return Buffer.concat([Buffer.from([19, 2, ...count]), Buffer.from(bytes)]);
}

class Manager extends Stream {
    constructor() {
        super(managerSocket, 16, (buffer) => buffer.readUInt32LE(12));
    }
    static async open() {
        const manager = new Manager();
        await manager.connected;
        return manager;
    }
    // {type, status, message} of the next frame, or null once the manager closed.
    async reply(milliseconds) {
        const item = await this.next(milliseconds);
        if (!item) {
            return null;
        }
        const type = item.readUInt8(5);
        const payload = item.subarray(16);
        const status = payload.length >= 5 && payload[0] === 9 ? payload.readUInt32LE(1) : undefined;
        let message = "";
        if (type === 3 && payload.length > 7 && payload[5] === 19) {
            message = payload.subarray(8).toString("utf8");
        }
        return { type, status, message };
    }
}

// ---- packages: ustar entries, optionally gzip, a manifest and its Ed25519 signature ----

const signer = crypto.generateKeyPairSync("ed25519");
const stranger = crypto.generateKeyPairSync("ed25519");
const keyIdOf = (pair) => crypto.createHash("sha256").update(Buffer.from(pair.publicKey.export({ format: "jwk" }).x, "base64url")).digest("hex");
const signature = (manifestText, pair = signer) => JSON.stringify({ algorithm: "Ed25519", keyId: keyIdOf(pair), signature: crypto.sign(null, Buffer.from(manifestText), pair.privateKey).toString("hex") });

function tarHeader({ name, size = 0, type = "0", link = "", mode = 0o644 }) {
    const header = Buffer.alloc(512);
    const put = (value, offset, length) => Buffer.from(value).copy(header, offset, 0, length);
    const octal = (value, length) => value.toString(8).padStart(length - 1, "0") + "\0";
    put(name, 0, 100);
    put(octal(mode, 8), 100, 8);
    put(octal(0, 8), 108, 8);
    put(octal(0, 8), 116, 8);
    put(octal(size, 12), 124, 12);
    put(octal(0, 12), 136, 12);
    put("        ", 148, 8);
    put(type, 156, 1);
    put(link, 157, 100);
    put("ustar\x0000", 257, 8);
    let sum = 0;
    for (const byte of header) {
        sum += byte;
    }
    put(octal(sum, 7) + " ", 148, 8);
    return header;
}
// A pax header that gives the next entry a path longer than ustar's 100 bytes.
function paxPath(name) {
    let record = ` path=${name}\n`;
    let length = record.length + 1;
    while (String(length).length + record.length !== length) {
        length = String(length).length + record.length;
    }
    return { name: "PaxHeader", type: "x", data: Buffer.from(`${length}${record}`) };
}
const pad = (data) => Buffer.concat([data, Buffer.alloc((512 - (data.length % 512)) % 512)]);
const tarEntry = (entry) => Buffer.concat([tarHeader({ ...entry, size: entry.data?.length ?? 0 }), pad(entry.data ?? Buffer.alloc(0))]);
const tarEnd = Buffer.alloc(1024);

// The payload digest as the manager computes it: per file, sorted by path, the path, a NUL, the size (u64 LE), the bytes.
function payloadDigest(files) {
    const hash = crypto.createHash("sha256");
    for (const [name, data] of [...files].sort((a, b) => (a[0] < b[0] ? -1 : 1))) {
        const size = Buffer.alloc(8);
        size.writeBigUInt64LE(BigInt(data.length));
        hash.update(Buffer.concat([Buffer.from(name), Buffer.from([0]), size, data]));
    }
    return hash.digest("hex");
}

// A package of the given payload files plus extra entries; `manifest` may be an object or raw text.
function makePackage({ manifest, files = [["readme.txt", Buffer.from("bad input\n")]], extra = [], sign = true, sig }) {
    const manifestText = typeof manifest === "string" || Buffer.isBuffer(manifest) ? manifest
        : JSON.stringify({ version: "9.9.9", manufacturerUri: Uri, payloadSha256: payloadDigest(files), ...manifest });
    const entries = [{ name: "manifest.json", data: Buffer.from(manifestText) }];
    if (sig !== undefined || sign) {
        entries.push({ name: "manifest.sig", data: Buffer.from(sig ?? signature(manifestText)) });
    }
    entries.push(...files.map(([name, data]) => ({ name: `payload/${name}`, data })), ...extra);
    return Buffer.concat([...entries.map(tarEntry), tarEnd]);
}

// A gzip'd package whose one payload file of `size` zero bytes is stored as repeated compressed blocks: about 1 KiB per MiB.
function compressionBomb(size) {
    const chunk = Buffer.alloc(1 << 20);
    const manifestText = JSON.stringify({ version: "9.9.9", manufacturerUri: Uri, payloadSha256: "0".repeat(64) });
    const head = Buffer.concat([tarEntry({ name: "manifest.json", data: Buffer.from(manifestText) }), tarEntry({ name: "manifest.sig", data: Buffer.from(signature(manifestText)) }),
        tarHeader({ name: "payload/zeros", size })]);
    const flush = { finishFlush: zlib.constants.Z_FULL_FLUSH };
    const block = zlib.deflateRawSync(chunk, flush);
    let crc = zlib.crc32(head);
    for (let i = 0; i < size / chunk.length; ++i) {
        crc = zlib.crc32(chunk, crc);
    }
    crc = zlib.crc32(tarEnd, crc);
    const trailer = Buffer.alloc(8);
    trailer.writeUInt32LE(crc >>> 0, 0);
    trailer.writeUInt32LE((head.length + size + tarEnd.length) % 2 ** 32, 4);
    return Buffer.concat([Buffer.from([0x1f, 0x8b, 8, 0, 0, 0, 0, 0, 0, 0xff]), zlib.deflateRawSync(head, flush),
        ...Array(size / chunk.length).fill(block), zlib.deflateRawSync(tarEnd), trailer]);
}

async function stage(bytes, fileName = "bad.tar", name = Files) {
    const api = await Api.open();
    try {
        const begun = await api.request("stageBegin", { name, size: bytes.length, fileName });
        if (Bad(begun?.status)) {
            return begun;
        }
        const upload = begun.result.upload;
        const chunkSize = begun.result.maxChunkBytes;
        for (let offset = 0; offset < bytes.length; offset += chunkSize) {
            const sent = await api.request("stageChunk", { upload, offset, data: bytes.subarray(offset, offset + chunkSize).toString("base64") });
            if (Bad(sent?.status)) {
                return sent;
            }
        }
        return await api.request("stageCommit", { upload });
    } finally {
        api.close();
    }
}

// ---- what must not change: files below the work folder, the store, the manager's view ----

function tree(root, skip) {
    const lines = [];
    const walk = (folder) => {
        for (const name of fs.readdirSync(folder).sort()) {
            const file = path.join(folder, name);
            const relative = path.relative(work, file);
            if (skip(relative)) {
                continue;
            }
            const info = fs.lstatSync(file);
            if (relative === path.join("service", "uploads")) {
                // Made at the first upload; what it holds counts.
                walk(file);
                continue;
            }
            if (info.isSymbolicLink()) {
                lines.push(`${relative} -> ${fs.readlinkSync(file)}`);
            } else if (info.isDirectory()) {
                lines.push(`${relative}/`);
                walk(file);
            } else if (info.isFile()) {
                lines.push(`${relative} ${crypto.createHash("sha256").update(fs.readFileSync(file)).digest("hex").slice(0, 16)}`);
            } else {
                lines.push(`${relative} (${info.mode.toString(8)})`);
            }
        }
    };
    walk(root);
    return lines;
}

const hasSqlite = spawnSync("sqlite3", ["-version"]).status === 0;
async function snapshot() {
    // Logs grow and the OPC UA server keeps its own certificates; the store is compared by its content.
    const files = tree(work, (relative) => relative.endsWith(".log") || relative.startsWith("opcua") || relative.startsWith("client-pki") || /^service\/.*\.(db|sqlite3?)(-wal|-shm|-journal)?$/.test(relative));
    const listed = await apiCall("list", { versions: true });
    const notifications = await apiCall("getNotifications", { limit: 500 });
    const store = [];
    if (hasSqlite) {
        for (const db of fs.readdirSync(path.join(work, "service")).filter((name) => /\.(db|sqlite3?)$/.test(name))) {
            // sqlite_sequence moves on every status write (an upsert takes a number even when it updates).
            store.push(...spawnSync("sqlite3", [path.join(work, "service", db), ".dump"], { encoding: "utf8" }).stdout.split("\n").filter((line) => !line.includes("sqlite_sequence")));
        }
    }
    return [...files, JSON.stringify(listed?.result), JSON.stringify(notifications?.result), ...store];
}

function difference(before, after) {
    const gone = before.filter((line) => !after.includes(line));
    const added = after.filter((line) => !before.includes(line));
    return [...gone.map((line) => `- ${line}`), ...added.map((line) => `+ ${line}`)].join("; ").slice(0, 600);
}

// ---- the checks around every case ----

let opcua = null; // { session, read() }
async function stillAnswering() {
    const problems = [];
    for (const [name, child] of Object.entries(children)) {
        if (child.exitCode !== null || child.signalCode !== null) {
            problems.push(`${name} is gone (${child.exitCode ?? child.signalCode})`);
        }
    }
    if (problems.length > 0) {
        return problems;
    }
    const status = await apiCall("getStatus", { name: Files }).catch((error) => ({ error: error.message }));
    if (status?.status !== 0) {
        problems.push(`update service: getStatus gave ${JSON.stringify(status)}`);
    }
    const manager = await Manager.open();
    manager.write(frame({ operation: Op.GetPackageDirectory }));
    const reply = await manager.reply().catch((error) => ({ error: error.message }));
    manager.close();
    if (reply?.type !== 2 || reply.status !== 0) {
        problems.push(`software manager: GetPackageDirectory gave ${JSON.stringify(reply)}`);
    }
    if (opcua) {
        const read = await opcua.read().catch((error) => ({ error: error.message }));
        if (read?.statusCode?.name !== "Good") {
            problems.push(`OPC UA server: a read gave ${read?.statusCode?.name ?? read?.error}`);
        }
    }
    return problems;
}

let cases = 0;
let failures = 0;
function report(boundary, what, problems) {
    ++cases;
    const label = `${boundary}: ${what}`.replace(/[^\x20-\x7e]/g, "?").slice(0, 160);
    if (problems.length === 0) {
        console.log(`ok    ${label}`);
    } else {
        ++failures;
        console.log(`FAIL  ${label}: ${problems.join("; ")}`);
    }
}

// `action` returns the list of what was wrong with the answer (empty when it was a clear refusal).
async function check(boundary, what, action) {
    const before = await snapshot();
    let problems;
    try {
        problems = await within(action(), patience, what);
    } catch (error) {
        problems = [error.message];
    }
    problems.push(...await stillAnswering());
    const changed = difference(before, await snapshot());
    if (changed) {
        problems.push(`changed: ${changed}`);
    }
    report(boundary, what, problems);
}

// A refusal from the local API: a Bad response with a reason, or an error message that ends the connection.
function refused(answer, expected) {
    if (!answer) {
        return ["the service closed the connection without an error message"];
    }
    if (!Bad(answer.status)) {
        return [`not refused: ${JSON.stringify(answer).slice(0, 200)}`];
    }
    if (expected && answer.statusName !== expected) {
        return [`${answer.statusName} instead of ${expected}: ${answer.error ?? answer.message ?? ""}`];
    }
    const reason = answer.error ?? answer.message ?? answer.result?.message;
    return reason || answer.type === "response" ? [] : ["no reason given"];
}

// ---- the cases ----

const names = () => {
    const long = `Generic files / ${letters(between(512, 4096))}`;
    const nul = `Generic files / Sample${"\0"}${letters(between(0, 8))}`;
    return [["long", long], ["NUL", nul], ["ill-formed UTF-8", insertAt(Files, illFormed())]];
};

async function apiNameCases() {
    const ops = {
        getStatus: (name) => ({ name }),
        getVersions: (name) => ({ name }),
        resume: (name) => ({ name }),
        install: (name) => ({ name, softwareRevision: "1.1.0", manufacturerUri: Uri }),
        getUpdateBehavior: (name) => ({ name, softwareRevision: "1.1.0", manufacturerUri: Uri }),
        stageBegin: (name) => ({ name, size: 10 }),
        setUpdateKey: (name) => ({ name, key: "k" }),
        getPackage: (name) => ({ name, fileType: "Current" })
    };
    for (const [op, params] of Object.entries(ops)) {
        for (const [kind, name] of names()) {
            await check("api", `${op} with a ${kind} name`, async () => {
                const api = await Api.open();
                try {
                    if (Buffer.isBuffer(name)) {
                        // Raw bytes inside the JSON text: the body is not UTF-8.
                        const body = Buffer.from(JSON.stringify({ type: "request", id: 1, op, params: params("@@") }));
                        const at = body.indexOf("@@");
                        api.write(lengthPrefixed(Buffer.concat([body.subarray(0, at), name, body.subarray(at + 2)])));
                        const answer = await api.answer();
                        return refused(answer, "Bad_DecodingError");
                    }
                    const problems = refused(await api.request(op, params(name)), "Bad_InvalidArgument");
                    // The connection stays usable after a refused request.
                    const next = await api.request("getStatus", { name: Files });
                    return next?.status === 0 ? problems : [...problems, `the next request on the connection gave ${JSON.stringify(next)}`];
                } finally {
                    api.close();
                }
            });
        }
    }
    const texts = [
        ["install", "softwareRevision", (value) => ({ name: Files, softwareRevision: value, manufacturerUri: Uri })],
        ["install", "manufacturerUri", (value) => ({ name: Files, softwareRevision: "1.1.0", manufacturerUri: value })],
        ["install", "patchIdentifiers", (value) => ({ name: Files, softwareRevision: "1.1.0", manufacturerUri: Uri, patchIdentifiers: ["p", value] })],
        ["setUpdateKey", "key", (value) => ({ name: Files, key: value })]
    ];
    for (const [op, field, params] of texts) {
        const value = pick([letters(between(512, 2048)), `${letters(3)}\0${letters(3)}`]);
        await check("api", `${op} with a ${value.length > 100 ? "long" : "NUL"} ${field}`, async () => refused(await apiCall(op, params(value)), "Bad_InvalidArgument"));
    }
    await check("api", "install with 257 patch identifiers", async () => refused(await apiCall("install", { name: Files, softwareRevision: "1.1.0", manufacturerUri: Uri, patchIdentifiers: Array(257).fill("p") }), "Bad_InvalidArgument"));
}

async function cliCases() {
    const cli = path.join(bin, "zun-update");
    const empty = path.join(work, "empty.tar");
    fs.writeFileSync(empty, "");
    const run = (commandArgs) => new Promise((resolve) => {
        // Through the shell, so that ill-formed bytes reach the program's arguments as they are.
        const socket = commandArgs.includes("--socket") ? "" : '--socket "$1"';
        const child = spawn("/bin/sh", ["-c", `exec "$0" ${socket} ${commandArgs}`, cli, serviceSocket], { stdio: ["ignore", "pipe", "pipe"] });
        let output = "";
        child.stdout.on("data", (data) => { output += data; });
        child.stderr.on("data", (data) => { output += data; });
        const timer = setTimeout(() => child.kill("SIGKILL"), patience);
        // "close", not "exit": the last output may still be on its way when the process has exited.
        child.on("close", (code, signal) => { clearTimeout(timer); resolve({ code, signal, output }); });
    });
    const long = letters(between(512, 4096));
    const bytes = illFormed().map((byte) => byte.toString(8)).reduce((all, octal) => `${all}\\${octal}`, "");
    const cases = [
        ["versions with a long name", `versions "Generic files / ${long}"`, 2],
        ["status with a long name", `status "Generic files / ${long}"`, 2],
        ["install with a long revision", `install "${Files}" --revision ${long} --uri ${Uri}`, 2],
        ["versions with an ill-formed UTF-8 name", `versions "$(printf 'Generic files / Sam${bytes}ple')"`, null],
        ["resume with an ill-formed UTF-8 name", `resume "$(printf '${bytes}Generic files / Sample files')"`, null],
        ["stage an empty file", `stage "${Files}" "${empty}"`, 2],
        ["stage a folder", `stage "${Files}" "${work}"`, 2],
        ["stage a missing file", `stage "${Files}" "${work}/missing.tar"`, 2],
        ["stage a character device", `stage "${Files}" /dev/null`, 2],
        ["a socket path longer than a socket address", `--socket "${work}/${letters(between(110, 300))}" list`, null],
        ["a timeout of zero", `--timeout-ms 0 list`, 2],
        ["a timeout that is not a number", `--timeout-ms ${letters(4)} list`, 2],
        ["a negative installation delay", `install "${Files}" --revision 1.1.0 --uri ${Uri} --delay-ms -${between(1, 1000)}`, 2]
    ];
    for (const [what, commandArgs, expected] of cases) {
        await check("cli", what, async () => {
            const result = await run(commandArgs);
            const problems = [];
            if (result.signal) {
                problems.push(`killed after ${patience} ms`);
            } else if (result.code === 0 || (expected !== null && result.code !== expected)) {
                problems.push(`exit code ${result.code}${expected !== null ? `, expected ${expected}` : ""}`);
            }
            if (!result.output.trim()) {
                problems.push("no message");
            }
            return problems;
        });
    }
    fs.rmSync(empty);
}

async function packageCases() {
    const target = (name) => path.join(outside, `${name}-${seed}`);
    const manifestOf = (files = [["readme.txt", Buffer.from("bad input\n")]]) => JSON.stringify({ version: "9.9.9", manufacturerUri: Uri, payloadSha256: payloadDigest(files) });
    const escapes = [
        ["an entry with ..", { extra: [{ name: `payload/${"../".repeat(between(2, 6))}escaped`, data: Buffer.from("x") }] }],
        ["an entry with .. in the middle", { extra: [{ name: "payload/a/../../../escaped", data: Buffer.from("x") }] }],
        ["an absolute entry", { extra: [{ name: target("absolute"), data: Buffer.from("x") }] }],
        ["a symbolic link out", { extra: [{ name: "payload/link", type: "2", link: outside }, { name: "payload/link/through", data: Buffer.from("x") }] }],
        ["a symbolic link up", { extra: [{ name: "payload/up", type: "2", link: "../".repeat(between(1, 8)) }] }],
        ["a hard link out", { extra: [{ name: "payload/hard", type: "1", link: pick(["/etc/passwd", "../../state.json", "../../../../manager.log"]) }] }],
        ["a character device", { extra: [{ name: "payload/null", type: "3" }] }],
        ["a block device", { extra: [{ name: "payload/disk", type: "4" }] }],
        ["a FIFO", { extra: [{ name: "payload/pipe", type: "6" }] }],
        ["an entry outside payload/", { extra: [{ name: pick(["state.json", "current", "keyring/evil.pem"]), data: Buffer.from("x") }] }],
        ["manifest.json twice", { extra: [{ name: "manifest.json", data: Buffer.from("{}") }] }],
        ["a payload file twice", { extra: [{ name: "payload/readme.txt", data: Buffer.from("again") }] }],
        ["a payload file that is also a folder", { extra: [{ name: "payload/readme.txt/inner", data: Buffer.from("x") }] }],
        ["a path part of 256 bytes and more", { extra: [paxPath(`payload/${letters(between(256, 400))}`), { name: "payload/long", data: Buffer.from("x") }] }],
        ["a path of 4096 bytes and more", { extra: [paxPath(`payload/${Array.from({ length: between(40, 60) }, () => letters(100)).join("/")}`), { name: "payload/deep", data: Buffer.from("x") }] }],
        ["a pax header hiding ..", { extra: [paxPath("payload/../../escaped"), { name: "payload/innocent", data: Buffer.from("x") }] }],
        ["a manifest.json of 8 MiB and more", { extra: [{ name: "manifest.json", data: Buffer.alloc((8 << 20) + between(1, 4096), 0x20) }] }]
    ];
    for (const [what, contents] of escapes) {
        await check("package", `package with ${what}`, async () => {
            const problems = refused(await stage(makePackage(contents)), "Bad_InvalidArgument");
            for (const leaked of [target("absolute"), path.join(outside, "through"), path.join(work, "escaped"), path.join(managerState, "escaped")]) {
                if (fs.existsSync(leaked)) {
                    problems.push(`wrote ${leaked}`);
                }
            }
            return problems;
        });
    }
    const bombSize = 1536 << 20;
    const bomb = compressionBomb(bombSize);
    await check("package", `compression bomb (${bombSize >> 20} MiB of zeros in ${Math.round(bomb.length / 1024)} KiB)`, async () => refused(await stage(bomb), "Bad_InvalidArgument"));

    const many = between(20000, 30000);
    const manyFiles = Array.from({ length: many }, (_, i) => [`f${i}`, Buffer.alloc(0)]);
    const manyTar = zlib.gzipSync(makePackage({ files: manyFiles, sign: false }));
    await check("package", `unsigned package of ${many} empty files (${Math.round(manyTar.length / 1024)} KiB)`, async () => refused(await stage(manyTar), "Bad_InvalidArgument"));
    const wrongManifests = [
        ["version as a number", { version: between(1, 99) }],
        ["version as an array", { version: ["1.0"] }],
        ["empty version", { version: "" }],
        ["no version", { version: undefined }],
        ["releaseDate as a number", { releaseDate: between(0, 2e9) }],
        ["releaseDate not a date", { releaseDate: "2026-02-30T00:00:00Z" }],
        ["updateBehavior as text", { updateBehavior: "WillReboot" }],
        ["negative updateBehavior", { updateBehavior: -between(1, 1000) }],
        ["updateBehavior above 32 bits", { updateBehavior: 2 ** 32 + between(0, 1000) }],
        ["tags as text", { tags: "a=b" }],
        ["a tag without value", { tags: [{ name: "a" }] }],
        ["textList as an object", { textList: { a: 1 } }],
        ["too many textList entries", { textList: Array(1001).fill("t") }],
        ["a NUL in a text", { shortText: `a\0b` }],
        ["a text of 512 bytes and more", { text1: letters(between(512, 4096)) }],
        ["an unknown field", { [letters(8)]: 1 }],
        ["no payloadSha256", { payloadSha256: undefined }],
        ["payloadSha256 of the wrong payload", { payloadSha256: crypto.randomBytes(32).toString("hex") }],
        ["payloadSha256 in upper case", { payloadSha256: payloadDigest([["readme.txt", Buffer.from("bad input\n")]]).toUpperCase() }]
    ];
    for (const [what, fields] of wrongManifests) {
        await check("package", `manifest with ${what}`, async () => refused(await stage(makePackage({ manifest: fields })), "Bad_InvalidArgument"));
    }
    const rawManifests = [
        ["a manifest that is an array", "[]"],
        ["a manifest that is not JSON", `{"version": "9.9.9", ${letters(5)}`],
        ["a manifest with ill-formed UTF-8", Buffer.concat([Buffer.from('{"version": "9.9.9", "shortText": "'), illFormed(), Buffer.from(`", "payloadSha256": "${payloadDigest([["readme.txt", Buffer.from("bad input\n")]])}"}`)])],
        ["an empty manifest", ""]
    ];
    for (const [what, manifest] of rawManifests) {
        await check("package", what, async () => refused(await stage(makePackage({ manifest })), "Bad_InvalidArgument"));
    }

    const good = manifestOf();
    const goodSignature = JSON.parse(signature(good));
    const signatures = [
        ["no signature", { manifest: good, sign: false }],
        ["a signature by an unknown key", { manifest: good, sig: signature(good, stranger) }],
        ["a signature of another manifest", { manifest: good, sig: signature(manifestOf([["other.txt", Buffer.from("x")]])) }],
        ["a signature with one bit flipped", { manifest: good, sig: JSON.stringify({ ...goodSignature, signature: goodSignature.signature.replace(/^./, (c) => (parseInt(c, 16) ^ 1).toString(16)) }) }],
        ["a short signature", { manifest: good, sig: JSON.stringify({ ...goodSignature, signature: goodSignature.signature.slice(0, between(2, 126)) }) }],
        ["a signature of another algorithm", { manifest: good, sig: JSON.stringify({ ...goodSignature, algorithm: pick(["RSA", "Ed448", "ed25519", ""]) }) }],
        ["a signature that is not JSON", { manifest: good, sig: randomBytes(between(1, 200)).toString("latin1") }],
        ["a signature with wrong types", { manifest: good, sig: JSON.stringify({ algorithm: "Ed25519", keyId: 7, signature: [1, 2] }) }]
    ];
    for (const [what, contents] of signatures) {
        await check("package", `package with ${what}`, async () => refused(await stage(makePackage(contents)), "Bad_InvalidArgument"));
    }
    const valid = makePackage({ manifest: good });
    const damaged = [
        ["random bytes", randomBytes(between(1, 4096))],
        [`a package cut short`, valid.subarray(0, between(600, valid.length - 1100))],
        ["gzip of nothing useful", zlib.gzipSync(randomBytes(between(1, 2048)))],
        ["a tar header with a bad checksum", (() => { const copy = Buffer.from(valid); copy[148] = 0x37; copy[149] = 0x37; return copy; })()]
    ];
    for (const [what, bytes] of damaged) {
        await check("package", what, async () => refused(await stage(bytes), "Bad_InvalidArgument"));
    }
    // The upload's file name must not place the copy outside the manager's package folder.
    for (const fileName of ["../../escaped.tar", `${outside}/named.tar`, "..", ".", "/", "a\0b.tar", `${letters(between(197, 1024))}.tar`]) {
        await check("package", `upload named ${fileName.replace(outside, "OUTSIDE")}`, async () => {
            const problems = refused(await stage(makePackage({ manifest: good, sign: false }), fileName), "Bad_InvalidArgument");
            for (const leaked of [path.join(work, "escaped.tar"), path.join(managerState, "escaped.tar"), path.join(outside, "named.tar")]) {
                if (fs.existsSync(leaked)) {
                    problems.push(`wrote ${leaked}`);
                }
            }
            return problems;
        });
    }
    await check("package", "stageBegin above maxPackageBytes", async () => refused(await apiCall("stageBegin", { name: Files, size: 2 ** 40 }), "Bad_RequestTooLarge"));
    const upload = async (size, steps) => {
        const api = await Api.open();
        try {
            const begun = await api.request("stageBegin", { name: Files, size, sha256: steps.sha256 });
            return await steps.run(api, begun.result.upload);
        } finally {
            api.close();
        }
    };
    await check("package", "stageChunk with bad base64", async () => upload(8, { run: async (api, id) => refused(await api.request("stageChunk", { upload: id, offset: 0, data: pick(["@@@@", "abc", "ab=c", "====", "YWJj\u0000"]) }), "Bad_InvalidArgument") }));
    await check("package", "stageChunk at a wrong offset", async () => upload(8, { run: async (api, id) => refused(await api.request("stageChunk", { upload: id, offset: between(1, 7), data: "YWJj" }), "Bad_InvalidArgument") }));
    await check("package", "stageCommit before every byte arrived", async () => upload(8, { run: async (api, id) => { await api.request("stageChunk", { upload: id, offset: 0, data: "YWJj" }); return refused(await api.request("stageCommit", { upload: id }), "Bad_InvalidState"); } }));
    await check("package", "stageCommit with the wrong sha256", async () => {
        const bytes = makePackage({ manifest: good });
        return upload(bytes.length, { sha256: crypto.randomBytes(32).toString("hex"), run: async (api, id) => {
            await api.request("stageChunk", { upload: id, offset: 0, data: bytes.toString("base64") });
            return refused(await api.request("stageCommit", { upload: id }), "Bad_InvalidArgument");
        } });
    });
    await check("package", "stageChunk of an unknown upload", async () => refused(await apiCall("stageChunk", { upload: between(1000, 1e6), offset: 0, data: "YWJj" }), "Bad_NotFound"));
    await check("package", "stageChunk past the announced size", async () => {
        const api = await Api.open();
        try {
            const begun = await api.request("stageBegin", { name: Files, size: 4 });
            return refused(await api.request("stageChunk", { upload: begun.result.upload, offset: 0, data: randomBytes(between(5, 64)).toString("base64") }), "Bad_InvalidArgument");
        } finally {
            api.close();
        }
    });
}

// Bodies and headers the local API must refuse; `expect` is the error's status name.
async function apiFrameCases(stalled) {
    const hello = json({ type: "hello", protocol: 1 });
    const body = (value) => lengthPrefixed(Buffer.from(value));
    const cases = [
        ["length 0", [Buffer.alloc(4)], "Bad_DecodingError"],
        ["a length above 1 MiB", [(() => { const b = Buffer.alloc(4); b.writeUInt32LE(between(1048577, 0xFFFFFFFF)); return b; })()], "Bad_RequestTooLarge"],
        ["random bytes as a body", [lengthPrefixed(randomBytes(between(1, 512)))], "Bad_DecodingError"],
        ["a JSON array", [body("[1,2]")], "Bad_DecodingError"],
        ["a byte-order mark", [body('\ufeff{"type":"hello","protocol":1}')], "Bad_DecodingError"],
        ["bytes after the JSON value", [body('{"type":"hello","protocol":1}x')], "Bad_DecodingError"],
        ["an unknown type", [hello, body(`{"type":"${letters(6)}"}`)], "Bad_DecodingError"],
        ["protocol 2", [json({ type: "hello", protocol: 2 })], "Bad_ProtocolVersionUnsupported"],
        ["protocol as text", [json({ type: "hello", protocol: "1" })], null],
        ["a request before hello", [json({ type: "request", id: 1, op: "list" })], "Bad_InvalidState"],
        ["a second hello", [hello, hello], "Bad_InvalidState"],
        ["a request id of -1", [hello, json({ type: "request", id: -1, op: "list" })], "Bad_DecodingError"],
        ["a request id as text", [hello, json({ type: "request", id: "7", op: "list" })], "Bad_DecodingError"],
        ["a request id of 2^32", [hello, json({ type: "request", id: 2 ** 32, op: "list" })], "Bad_DecodingError"],
        ["an unknown op", [hello, json({ type: "request", id: 1, op: letters(8) })], "Bad_ServiceUnsupported"],
        ["params as an array", [hello, json({ type: "request", id: 1, op: "getStatus", params: [Files] })], "Bad_InvalidArgument"],
        ["a name as a number", [hello, json({ type: "request", id: 1, op: "getStatus", params: { name: 7 } })], "Bad_InvalidArgument"],
        ["a size as text", [hello, json({ type: "request", id: 1, op: "stageBegin", params: { name: Files, size: "10" } })], "Bad_InvalidArgument"],
        ["a negative limit", [hello, json({ type: "request", id: 1, op: "getNotifications", params: { limit: -1 } })], "Bad_InvalidArgument"],
        ["a client text of 4 KiB", [json({ type: "hello", protocol: 1, client: letters(4096) })], null]
    ];
    for (const [what, messages, expect] of cases) {
        await check("api-frame", what, async () => {
            const api = await Api.open(false);
            try {
                let answer = null;
                for (const message of messages) {
                    api.write(message);
                }
                // Answers to the messages before the bad one (a hello) come first.
                for (let i = 0; i < messages.length; ++i) {
                    answer = await api.answer();
                    if (answer?.type !== "hello") {
                        break;
                    }
                }
                if (expect === null && answer?.type === "hello") {
                    return []; // accepted as harmless
                }
                return refused(answer, expect);
            } finally {
                api.close();
            }
        });
    }
    for (const [what, bytes] of [["a length cut short", Buffer.from([5, 0])], ["a body cut short", Buffer.concat([Buffer.from([100, 0, 0, 0]), Buffer.from('{"type":')])]]) {
        await check("api-frame", `${what}, then the end of the connection`, async () => {
            const api = await Api.open(false);
            api.write(bytes);
            api.socket.end();
            const answer = await api.answer();
            api.close();
            return answer === null || Bad(answer.status) ? [] : [`answered ${JSON.stringify(answer)}`];
        });
    }
    // A message begun and never finished: the service ends it after its frame time. Started here, checked at the end.
    stalled.push(["api-frame", "a body begun and never finished", (async () => {
        const api = await Api.open(false);
        api.write(Buffer.concat([Buffer.from([64, 0, 0, 0]), Buffer.from(`{"type":"hello"`)]));
        const answer = await api.answer(frameTime + patience);
        api.close();
        return refused(answer, "Bad_Timeout");
    })()]);
}

async function managerFrameCases(stalled) {
    const name = (bytes) => Buffer.concat([int32(1), text(bytes)]);
    const goodName = name(Buffer.from("Sample files"));
    const cases = [
        ["a wrong magic", { magic: (between(0, 0xFFFFFFFF) ^ 0x464D535A | 1) >>> 0, operation: Op.GetAll }],
        ["version 0", { version: 0, operation: Op.GetAll }],
        ["a version above 1", { version: between(2, 255), operation: Op.GetAll }],
        ["frame type 0", { type: 0, operation: Op.GetAll }],
        ["a response frame", { type: 2, operation: Op.GetAll }],
        ["an error frame", { type: 3, operation: Op.GetAll }],
        ["an unknown frame type", { type: between(4, 255), operation: Op.GetAll }],
        ["operation None", { operation: Op.None }],
        ["an unknown operation", { operation: between(9, 65535) }],
        ["a payload length above 4 MiB", { operation: Op.GetAll, length: between(4 * 1048576 + 1, 0xFFFFFFFF) }],
        ["random payload bytes", { operation: pick([Op.GetInformation, Op.GetState, Op.SetPackage, Op.Start, Op.Resume]), payload: randomBytes(between(1, 300)) }],
        ["a payload where none belongs", { operation: Op.GetAll, payload: randomBytes(between(1, 40)) }],
        ["an unknown kind", { operation: Op.GetInformation, payload: Buffer.concat([int32(between(3, 1000)), text(Buffer.from("Sample files"))]) }],
        ["a name of 512 bytes and more", { operation: Op.GetInformation, payload: name(Buffer.from(letters(between(512, 4096)))) }],
        ["a name with a NUL", { operation: Op.GetState, payload: name(Buffer.from("Sample\0files")) }],
        ["a name with ill-formed UTF-8", { operation: Op.GetInformation, payload: name(insertAt("Sample files", illFormed())) }],
        ["a string count beyond the payload", { operation: Op.GetInformation, payload: Buffer.concat([int32(1), Buffer.from([19, 2, 0xFF, 0xFF, 0xFF, 0x7F])]) }],
        ["a wrong string encoding", { operation: Op.GetInformation, payload: Buffer.concat([int32(1), Buffer.from([19, between(3, 255), 3]), Buffer.from("abc")]) }],
        ["a package name with ..", { operation: Op.SetPackage, payload: Buffer.concat([goodName, text(Buffer.from(`${"../".repeat(between(1, 6))}manager.log`))]) }],
        ["an absolute package name", { operation: Op.SetPackage, payload: Buffer.concat([goodName, text(Buffer.from(pick(["/etc/passwd", "/dev/zero", managerSocket])))]) }],
        ["the package folder as the package", { operation: Op.SetPackage, payload: Buffer.concat([goodName, text(Buffer.from(pick([".", "", "./"])))]) }],
        ["an installation of an unknown component", { operation: Op.Start, payload: name(Buffer.from(letters(between(1, 40)))) }]
    ];
    for (const [what, request] of cases) {
        await check("manager-frame", what, async () => {
            const manager = await Manager.open();
            try {
                manager.write(frame(request));
                const reply = await manager.reply();
                if (!reply) {
                    return ["closed without an error frame"];
                }
                return Bad(reply.status) ? [] : [`answered type ${reply.type} status ${reply.status}`];
            } finally {
                manager.close();
            }
        });
    }
    for (const [what, bytes] of [["a header cut short", frame({ operation: Op.GetAll }).subarray(0, between(1, 15))],
        ["a payload cut short", frame({ operation: Op.GetInformation, length: 40, payload: goodName })]]) {
        await check("manager-frame", `${what}, then the end of the connection`, async () => {
            const manager = await Manager.open();
            manager.write(bytes);
            manager.socket.end();
            const reply = await manager.reply();
            manager.close();
            return reply === null || Bad(reply.status) ? [] : [`answered type ${reply.type}`];
        });
    }
    stalled.push(["manager-frame", "a frame begun and never finished", (async () => {
        const manager = await Manager.open();
        manager.write(frame({ operation: Op.GetAll }).subarray(0, between(1, 15)));
        const reply = await manager.reply(frameTime + patience);
        manager.close();
        return reply && Bad(reply.status) ? [] : [reply ? `answered type ${reply.type}` : "closed without an error frame"];
    })()]);
}

// ---- OPC UA ----

const maxTransfer = 256 * 1024;
async function startOpcua() {
    if (!fs.existsSync(path.join(opcuaDir, "node_modules", "node-opcua"))) {
        console.log("bad-input: the OPC UA server is not covered (no node_modules: run 'npm ci' in OpcUaServer)");
        return null;
    }
    const { setUser } = require(path.join(opcuaDir, "src", "Users"));
    const usersFile = path.join(work, "opcua-users.json");
    await setUser(usersFile, "admin", "admin-secret", ["ConfigureAdmin"]);
    const port = await new Promise((resolve) => { const probe = net.createServer().listen(0, "127.0.0.1", () => { const { port: free } = probe.address(); probe.close(() => resolve(free)); }); });
    await start("opcua", process.execPath, [path.join(opcuaDir, "src", "main.js"), "--state-dir", path.join(work, "opcua"), "--users", usersFile, "--update-service-socket", serviceSocket,
        "--port", String(port), "--host", "localhost", "--accept-unknown-clients", "--max-package-size", String(maxTransfer)],
    () => fs.readFileSync(path.join(work, "opcua.log"), "utf8").includes("listening on"));
    const ua = require(path.join(opcuaDir, "node_modules", "node-opcua"));
    const client = ua.OPCUAClient.create({
        endpointMustExist: false, securityMode: ua.MessageSecurityMode.SignAndEncrypt, securityPolicy: ua.SecurityPolicy.Basic256Sha256, connectionStrategy: { maxRetry: 0 },
        clientCertificateManager: new ua.OPCUACertificateManager({ rootFolder: path.join(work, "client-pki"), automaticallyAcceptUnknownCertificate: true })
    });
    await client.connect(`opc.tcp://localhost:${port}`);
    const session = await client.createSession({ type: ua.UserTokenType.UserName, userName: "admin", password: "admin-secret" });
    const di = (await session.readNamespaceArray()).indexOf("http://opcfoundation.org/UA/DI/");
    const childOf = async (nodeId, browseName) => (await session.browse(nodeId)).references.find((reference) => reference.browseName.name === browseName)?.nodeId;
    const component = await childOf(await childOf(`ns=${di};i=5001`, "Controller"), Files);
    const nodeOf = async (start, relative) => {
        const [result] = await session.translateBrowsePath([ua.makeBrowsePath(start, relative.replace(/\/(?!\d+:)/g, `/${di}:`))]);
        return result.targets[0].targetId;
    };
    const revision = await nodeOf(component, "/SoftwareUpdate/Loading/CurrentVersion/SoftwareRevision");
    return { ua, client, session, component, nodeOf, read: () => session.read({ nodeId: revision, attributeId: ua.AttributeIds.Value }) };
}

async function opcuaCases() {
    const { ua, session, component, nodeOf } = opcua;
    const { DataType, VariantArrayType } = ua;
    const string = (value) => ({ dataType: DataType.String, value });
    const noPatches = { dataType: DataType.String, arrayType: VariantArrayType.Array, value: [] };
    const bytes = (value) => ({ dataType: DataType.ByteString, value });
    const installation = await nodeOf(component, "/SoftwareUpdate/Installation");
    const loading = await nodeOf(component, "/SoftwareUpdate/Loading");
    const transfer = await nodeOf(component, "/SoftwareUpdate/Loading/FileTransfer");
    const call = async (objectId, method, inputArguments) => session.call({ objectId, methodId: await nodeOf(objectId, `/${method}`), inputArguments });
    const open = async () => {
        const generated = await call(transfer, "0:GenerateFileForWrite", [string("")]);
        const [fileId, handle] = generated.outputArguments.map((argument) => argument.value);
        return { fileId, handle, write: async (inputArguments) => call(fileId, "0:Write", inputArguments), commit: async (inputArguments) => call(transfer, "0:CloseAndCommit", inputArguments) };
    };
    const expect = (names) => (result) => (names.includes(result.statusCode.name) ? [] : [`${result.statusCode.name}, expected ${names.join(" or ")}`]);
    const mismatch = expect(["BadTypeMismatch", "BadInvalidArgument", "BadArgumentsMissing", "BadTooManyArguments"]);
    const cases = [
        ["InstallSoftwarePackage with a number for ManufacturerUri", () => call(installation, "InstallSoftwarePackage", [{ dataType: DataType.Int32, value: between(0, 1e6) }, string("1.1.0"), noPatches, bytes(null)]), mismatch],
        ["InstallSoftwarePackage with a scalar for PatchIdentifiers", () => call(installation, "InstallSoftwarePackage", [string(Uri), string("1.1.0"), string("p"), bytes(null)]), mismatch],
        ["InstallSoftwarePackage with text for Hash", () => call(installation, "InstallSoftwarePackage", [string(Uri), string("1.1.0"), noPatches, string("hash")]), mismatch],
        ["InstallSoftwarePackage with too few arguments", () => call(installation, "InstallSoftwarePackage", [string(Uri)]), mismatch],
        ["InstallSoftwarePackage with too many arguments", () => call(installation, "InstallSoftwarePackage", [string(Uri), string("1.1.0"), noPatches, bytes(null), string("x")]), mismatch],
        ["InstallSoftwarePackage with a revision of 512 bytes and more", () => call(installation, "InstallSoftwarePackage", [string(Uri), string(letters(between(512, 4096))), noPatches, bytes(null)]), expect(["BadInvalidArgument"])],
        ["InstallSoftwarePackage with a NUL in the revision", () => call(installation, "InstallSoftwarePackage", [string(Uri), string("1.1\u00000"), noPatches, bytes(null)]), expect(["BadInvalidArgument"])],
        ["InstallSoftwarePackage with a ManufacturerUri of 1 MiB", () => call(installation, "InstallSoftwarePackage", [string(letters(1 << 20)), string("1.1.0"), noPatches, bytes(null)]), expect(["BadInvalidArgument", "BadRequestTooLarge", "BadEncodingLimitsExceeded"])],
        ["Resume with an argument", () => call(installation, "Resume", [string("now")]), mismatch],
        ["GetUpdateBehavior with numbers", () => call(loading, "GetUpdateBehavior", [{ dataType: DataType.Double, value: 1.5 }, { dataType: DataType.Boolean, value: true }, noPatches]), mismatch],
        ["CloseAndCommit with a text handle", () => call(transfer, "0:CloseAndCommit", [string("1")]), mismatch],
        ["CloseAndCommit with an unknown handle", () => call(transfer, "0:CloseAndCommit", [{ dataType: DataType.UInt32, value: between(1000, 1e6) }]), expect(["BadInvalidArgument"])],
        ["Write with text for the data", async () => { const file = await open(); try { return await file.write([{ dataType: DataType.UInt32, value: file.handle }, string("data")]); } finally { await file.commit([{ dataType: DataType.UInt32, value: file.handle }]); } }, mismatch],
        ["Write of one transfer above the limit", async () => { const file = await open(); const result = await file.write([{ dataType: DataType.UInt32, value: file.handle }, bytes(randomBytes(maxTransfer + between(1, 4096)))]); await file.commit([{ dataType: DataType.UInt32, value: file.handle }]); return result; }, expect(["BadRequestTooLarge"])],
        ["Writes that add up above the limit", async () => {
            const file = await open();
            const first = await file.write([{ dataType: DataType.UInt32, value: file.handle }, bytes(randomBytes(maxTransfer - 10))]);
            const second = await file.write([{ dataType: DataType.UInt32, value: file.handle }, bytes(randomBytes(between(11, 2048)))]);
            await file.commit([{ dataType: DataType.UInt32, value: file.handle }]);
            return first.statusCode.name === "Good" ? second : first;
        }, expect(["BadRequestTooLarge"])],
        ["CloseAndCommit of a package with a path escape", async () => {
            const file = await open();
            await file.write([{ dataType: DataType.UInt32, value: file.handle }, bytes(makePackage({ extra: [{ name: "payload/../../escaped", data: Buffer.from("x") }] }))]);
            return file.commit([{ dataType: DataType.UInt32, value: file.handle }]);
        }, expect(["BadInvalidArgument"])],
        ["InstallationDelay written as -1", async () => ({ statusCode: await session.write({ nodeId: await nodeOf(installation, "/InstallationDelay"), attributeId: ua.AttributeIds.Value, value: { value: { dataType: DataType.Double, value: -between(1, 1000) } } }) }), expect(["BadOutOfRange"])],
        ["InstallationDelay written as text", async () => ({ statusCode: await session.write({ nodeId: await nodeOf(installation, "/InstallationDelay"), attributeId: ua.AttributeIds.Value, value: { value: string("soon") } }) }), expect(["BadTypeMismatch"])]
    ];
    for (const [what, action, judge] of cases) {
        await check("opcua", what, async () => judge(await action()));
    }
}

async function main() {
    console.log(`bad-input: seed ${seed}, time scale ${scale}, work folder ${work}`);
    fs.mkdirSync(outside);
    await start("manager", path.join(bin, "zun-software-manager"), ["--state-dir", managerState, "--socket", managerSocket], () => fs.existsSync(managerSocket));
    fs.writeFileSync(path.join(managerState, "keyring", "bad-input.pem"), signer.publicKey.export({ type: "spki", format: "pem" }));
    await start("service", path.join(bin, "zun-update-service"), ["--state-dir", path.join(work, "service"), "--socket", serviceSocket, "--manager-socket", managerSocket], () => fs.existsSync(serviceSocket));
    try {
        opcua = await startOpcua();
    } catch (error) {
        report("opcua", "server start and admin session", [error.message]);
    }
    const stalled = [];
    const baseline = await snapshot();
    await apiFrameCases(stalled);
    await managerFrameCases(stalled);
    await apiNameCases();
    await cliCases();
    await packageCases();
    if (opcua) {
        await opcuaCases();
    }
    for (const [boundary, what, outcome] of stalled) {
        report(boundary, what, [...await outcome.catch((error) => [error.message]), ...await stillAnswering()]);
    }
    const changed = difference(baseline, await snapshot());
    if (changed) {
        report("all", "state after every case", [`changed: ${changed}`]);
    }
}

main().catch((error) => {
    report("setup", "start", [error.stack ?? String(error)]);
}).finally(async () => {
    if (opcua) {
        await opcua.session.close().catch(() => {});
        await opcua.client.disconnect().catch(() => {});
    }
    for (const child of Object.values(children).reverse()) {
        if (child.exitCode === null && child.signalCode === null) {
            child.kill("SIGTERM");
            await new Promise((resolve) => child.once("exit", resolve));
        }
    }
    if (keep || failures > 0) {
        console.log(`bad-input: logs and state kept in ${work}`);
    } else {
        fs.rmSync(work, { recursive: true, force: true });
    }
    console.log(`bad-input: ${cases} cases, ${failures} failures`);
    process.exit(failures > 0 ? 1 : 0);
});
