"use strict";
// The soak's client of the update service (scripts/soak.sh), built on the OPC UA front's client.
//   node soak-client.js fire SOCKET NAME REVISION URI
//     sends one install request and closes the connection without waiting for the answer
//   node soak-client.js load SOCKET CLIENTS REQUESTS SEED NAME=PACKAGE:REVISION...
//     CLIENTS connections send REQUESTS mixed requests each (list, versions, status, stage, install,
//     resume, watch windows) while one watcher per client checks that event sequence numbers are
//     consecutive and no request is refused for a fault of the service; prints counts, and
//     "load: violations N" last (exit 1 when N > 0)
const fs = require("node:fs");
const net = require("node:net");
const path = require("node:path");
const { UpdateServiceClient } = require(path.join(__dirname, "..", "OpcUaServer", "src", "UpdateServiceClient.js"));

const uri = "https://example.com/zun";
// Refusals that no request of the load deserves: the requests are well formed and the disk has room.
const faults = new Set(["Bad_ResourceUnavailable", "Bad_InternalError", "Bad_UnexpectedError"]);

function frame(message) {
    const body = Buffer.from(JSON.stringify(message), "utf8");
    const header = Buffer.alloc(4);
    header.writeUInt32LE(body.length, 0);
    return Buffer.concat([header, body]);
}

function fire([socketPath, name, softwareRevision, manufacturerUri]) {
    const socket = net.createConnection(socketPath, () => {
        socket.write(frame({ type: "hello", protocol: 1, client: "soak" }));
        const params = { name, softwareRevision, manufacturerUri };
        socket.end(frame({ type: "request", id: 1, op: "install", params }));
    });
    socket.on("error", (error) => {
        console.error(`soak-client: ${error.message}`);
        process.exitCode = 1;
    });
    socket.on("data", () => socket.destroy());
}

// mulberry32: the same seed gives the same mix of requests.
function random(seed) {
    let a = seed >>> 0;
    return () => {
        a = (a + 0x6d2b79f5) >>> 0;
        let t = a;
        t = Math.imul(t ^ (t >>> 15), t | 1);
        t ^= t + Math.imul(t ^ (t >>> 7), t | 61);
        return ((t ^ (t >>> 14)) >>> 0) / 4294967296;
    };
}

// Follows one watch: every event must carry the number after the previous one. Events may be
// handled before the snapshot's answer is (both come in one read), so they wait for its number.
class SequenceCheck {
    constructor(label, violations) {
        this.label = label;
        this.violations = violations;
        this.reset();
        this.events = 0;
    }
    reset() {
        this.last = null;
        this.early = [];
    }
    start(sequence) {
        this.last = sequence;
        const early = this.early;
        this.early = [];
        early.forEach((message) => this.onEvent(message));
    }
    onEvent(message) {
        if (this.last === null) {
            this.early.push(message);
            return;
        }
        this.events += 1;
        if (message.sequence !== this.last + 1) {
            this.violations.push(`${this.label}: event ${message.sequence} after ${this.last}`);
        }
        this.last = message.sequence;
    }
}

async function client(index, socketPath, requests, next, packages, counts, violations) {
    const watcher = new UpdateServiceClient(socketPath);
    const check = new SequenceCheck(`watcher ${index}`, violations);
    let closedEarly = false;
    const watch = await watcher.watch((event) => check.onEvent(event), () => { closedEarly = true; });
    const { snapshot } = watch;
    if (snapshot.status !== 0) {
        throw new Error(`watch answered ${snapshot.statusName}`);
    }
    check.start(snapshot.result.sequence);

    const worker = new UpdateServiceClient(socketPath);
    const connection = await worker.connect();
    const window = new SequenceCheck(`client ${index} watch window`, violations);
    connection.on("event", (event) => window.onEvent(event));
    const names = Object.keys(packages);
    const count = (op, response) => {
        const key = `${op} ${response.status === 0 ? "Good" : response.statusName}`;
        counts[key] = (counts[key] || 0) + 1;
        if (faults.has(response.statusName)) {
            violations.push(`client ${index}: ${op} answered ${response.statusName}: ${response.error}`);
        }
    };
    for (let i = 0; i < requests; i += 1) {
        const name = names[Math.floor(next() * names.length)];
        const { bytes, fileName, revision } = packages[name];
        const r = next();
        if (r < 0.25) {
            count("list", await worker.list(true));
        } else if (r < 0.45) {
            count("versions", await worker.getVersions(name));
        } else if (r < 0.7) {
            count("status", await worker.getStatus(name));
        } else if (r < 0.8) {
            window.reset();
            const response = await worker.request("watch");
            count("watch", response);
            window.start(response.result.sequence);
            count("unwatch", await worker.request("unwatch"));
            window.reset();
        } else if (r < 0.86) {
            count("stage", await worker.stage(name, bytes, fileName));
        } else if (r < 0.95) {
            count("install", await worker.install(name, revision, uri, [], 0));
        } else {
            count("resume", await worker.resume(name));
        }
    }
    worker.close();
    if (closedEarly) {
        violations.push(`watcher ${index}: the service closed the connection`);
    }
    watch.close();
    watcher.close();
    counts["events seen by watchers"] = (counts["events seen by watchers"] || 0) + check.events;
}

async function load([socketPath, clients, requests, seed, ...uploads]) {
    const packages = {};
    for (const upload of uploads) {
        const match = /^(.*)=(.*):([^:]*)$/.exec(upload);
        const bytes = fs.readFileSync(match[2]);
        packages[match[1]] = { bytes, fileName: path.basename(match[2]), revision: match[3] };
    }
    const counts = {};
    const violations = [];
    const runs = [];
    for (let i = 0; i < Number(clients); i += 1) {
        const next = random(Number(seed) * 1000 + i);
        runs.push(client(i, socketPath, Number(requests), next, packages, counts, violations));
    }
    const results = await Promise.allSettled(runs);
    for (const result of results) {
        if (result.status === "rejected") {
            violations.push(`client failed: ${result.reason.message}`);
        }
    }
    for (const key of Object.keys(counts).sort()) {
        console.log(`  ${key}: ${counts[key]}`);
    }
    for (const violation of violations.slice(0, 20)) {
        console.log(`  VIOLATION ${violation}`);
    }
    console.log(`load: violations ${violations.length}`);
    process.exitCode = violations.length > 0 ? 1 : 0;
}

const [mode, ...rest] = process.argv.slice(2);
if (mode === "fire") {
    fire(rest);
} else if (mode === "load") {
    load(rest).catch((error) => {
        console.log(`load: violations 1 (${error.message})`);
        process.exitCode = 1;
    });
} else {
    console.error("usage: soak-client.js fire|load ...");
    process.exitCode = 2;
}
