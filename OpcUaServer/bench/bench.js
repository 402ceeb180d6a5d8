"use strict";
// Latency of the same operations through OPC UA and over the update service's local API alone: a
// read of CurrentVersion (OPC UA Read of CurrentVersion/SoftwareRevision against `getVersions`) and
// the start of an installation (InstallSoftwarePackage against `install`). Starts the software
// manager and the update service from a build's bin folder in a temporary folder.
//   node OpcUaServer/bench/bench.js [--bin build/default/bin] [--reads 500] [--installs 20]
const { execFileSync, spawn } = require("node:child_process");
const { once } = require("node:events");
const fs = require("node:fs");
const os = require("node:os");
const path = require("node:path");
const { parseArgs } = require("node:util");
const {
    AttributeIds, DataType, MessageSecurityMode, OPCUACertificateManager, OPCUAClient, SecurityPolicy,
    UserTokenType, VariantArrayType, makeBrowsePath
} = require("node-opcua");
const { DeviceServer } = require("../src/DeviceServer");
const { UpdateServiceClient } = require("../src/UpdateServiceClient");
const { setUser } = require("../src/Users");

const { values } = parseArgs({ options: {
    bin: { type: "string", default: path.join(__dirname, "..", "..", "build", "default", "bin") },
    reads: { type: "string", default: "500" },
    installs: { type: "string", default: "20" }
} });
const bin = path.resolve(values.bin);
const work = fs.mkdtempSync(path.join(os.tmpdir(), "zun-opcua-bench-"));
const Name = "Generic files / Sample files";
const Uri = "https://example.com/zun";
const children = [];

function startProgram(program, args) {
    const child = spawn(path.join(bin, program), args, { stdio: "ignore" });
    children.push(child);
}

async function socketReady(socket) {
    while (!fs.existsSync(socket)) {
        await new Promise((resolve) => setTimeout(resolve, 20));
    }
}

// A package of the sample component with version 2.0.<n>.
function makePackage(n) {
    const payload = path.join(work, `payload-${n}`);
    fs.mkdirSync(payload);
    fs.writeFileSync(path.join(payload, "file.txt"), `version ${n}\n`);
    const manifest = path.join(work, `manifest-${n}.json`);
    fs.writeFileSync(manifest, JSON.stringify({ version: `2.0.${n}`, manufacturer: "Zun", manufacturerUri: Uri, releaseDate: "2026-11-21T10:00:00Z" }));
    const output = path.join(work, `package-${n}.tar`);
    execFileSync(path.join(bin, "zun-software-manager"), ["pack", "--manifest", manifest, "--payload", payload, "-o", output, "--key", path.join(work, "signing.pem")]);
    return fs.readFileSync(output);
}

function summary(label, samples) {
    samples.sort((a, b) => a - b);
    const at = (q) => samples[Math.min(samples.length - 1, Math.floor(q * samples.length))].toFixed(3);
    const mean = samples.reduce((sum, value) => sum + value, 0) / samples.length;
    console.log(`${label.padEnd(52)} n=${String(samples.length).padStart(4)}  mean ${mean.toFixed(3)} ms  median ${at(0.5)} ms  p90 ${at(0.9)} ms`);
}

async function time(action) {
    const start = process.hrtime.bigint();
    await action();
    return Number(process.hrtime.bigint() - start) / 1e6;
}

async function main() {
    fs.mkdirSync(path.join(work, "keyring"));
    execFileSync(path.join(bin, "zun-software-manager"), ["keygen", "--private", path.join(work, "signing.pem"), "--public", path.join(work, "keyring", "bench.pem")]);
    startProgram("zun-software-manager", ["--state-dir", path.join(work, "manager"), "--socket", path.join(work, "manager.sock"), "--phase-delay-ms", "0",
        "--keyring", path.join(work, "keyring")]);
    await socketReady(path.join(work, "manager.sock"));
    startProgram("zun-update-service", ["--state-dir", path.join(work, "service"), "--socket", path.join(work, "service.sock"), "--manager-socket", path.join(work, "manager.sock")]);
    await socketReady(path.join(work, "service.sock"));
    await setUser(path.join(work, "users.json"), "admin", "bench", ["ConfigureAdmin"]);
    const local = new UpdateServiceClient(path.join(work, "service.sock"));
    const server = new DeviceServer({
        stateDir: path.join(work, "opcua"), usersFile: path.join(work, "users.json"), port: 0, host: "localhost", allowAnonymous: true, acceptUnknownClients: true, maxPackageSize: 1 << 24,
        device: { name: "Controller", manufacturer: "Zun", manufacturerUri: Uri, model: "Bench", serialNumber: "1", hardwareRevision: "1", softwareRevision: "1", deviceRevision: "1", deviceManual: "", productCode: "", deviceClass: "", productInstanceUri: "urn:bench" }
    }, new UpdateServiceClient(path.join(work, "service.sock")));
    await server.start();
    const client = OPCUAClient.create({
        endpointMustExist: false, securityMode: MessageSecurityMode.SignAndEncrypt, securityPolicy: SecurityPolicy.Basic256Sha256,
        clientCertificateManager: new OPCUACertificateManager({ rootFolder: path.join(work, "client-pki"), automaticallyAcceptUnknownCertificate: true })
    });
    await client.connect(server.endpointUrl);
    const session = await client.createSession({ type: UserTokenType.UserName, userName: "admin", password: "bench" });
    const di = (await session.readNamespaceArray()).indexOf("http://opcfoundation.org/UA/DI/");
    // The component's name holds "/", which browse paths reserve: it is found by browsing.
    const device = (await session.browse(`ns=${di};i=5001`)).references.find((reference) => reference.browseName.name === "Controller").nodeId;
    const component = (await session.browse(device)).references.find((reference) => reference.browseName.name === Name).nodeId;
    const nodeOf = async (relativePath) => (await session.translateBrowsePath(makeBrowsePath(component, relativePath.replaceAll("/", `/${di}:`)))).targets[0].targetId;
    const revision = await nodeOf("/SoftwareUpdate/Loading/CurrentVersion/SoftwareRevision");
    const installation = await nodeOf("/SoftwareUpdate/Installation");
    const installMethod = await nodeOf("/SoftwareUpdate/Installation/InstallSoftwarePackage");

    const reads = Number(values.reads);
    const localReads = [];
    const opcuaReads = [];
    for (let i = 0; i < reads; i++) {
        localReads.push(await time(() => local.getVersions(Name)));
        opcuaReads.push(await time(() => session.read({ nodeId: revision, attributeId: AttributeIds.Value })));
    }
    summary("read CurrentVersion: local API getVersions", localReads);
    summary("read CurrentVersion: OPC UA Read", opcuaReads);

    // Each installation: stage a new version (not timed), time the call that starts it, wait for Idle.
    let idle;
    const { close } = await local.watch((event) => event.event === "statusChanged" && event.name === Name && event.status.state === "Idle" && idle?.(), () => {});
    const installs = Number(values.installs);
    const localInstalls = [];
    const opcuaInstalls = [];
    for (let i = 0; i < installs; i++) {
        for (const [samples, start] of [[localInstalls, (version) => local.install(Name, version, Uri, [], 0)],
            [opcuaInstalls, (version) => session.call({ objectId: installation, methodId: installMethod, inputArguments: [
                { dataType: DataType.String, value: Uri }, { dataType: DataType.String, value: version },
                { dataType: DataType.String, arrayType: VariantArrayType.Array, value: [] }, { dataType: DataType.ByteString, value: null }] })]]) {
            const n = samples === localInstalls ? 2 * i : 2 * i + 1;
            const staged = await local.stage(Name, makePackage(n));
            if (staged.status !== 0) {
                throw new Error(`staging failed: ${staged.statusName} ${staged.error ?? staged.result?.message}`);
            }
            const done = new Promise((resolve) => {
                idle = resolve;
            });
            samples.push(await time(() => start(`2.0.${n}`)));
            await done;
        }
    }
    summary("start an installation: local API install", localInstalls);
    summary("start an installation: OPC UA InstallSoftwarePackage", opcuaInstalls);

    close();
    local.close();
    await session.close();
    await client.disconnect();
    await server.stop();
}

main().catch((error) => {
    console.error(error);
    process.exitCode = 1;
}).finally(async () => {
    for (const child of children) {
        child.kill("SIGTERM");
        if (child.exitCode === null) {
            await once(child, "exit");
        }
    }
    fs.rmSync(work, { recursive: true, force: true });
    // The in-process server and client may still hold timers after a failure.
    process.exit();
});
