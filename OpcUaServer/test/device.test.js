"use strict";
// End to end with a real OPC UA client: zun-opcua-server against the real update service and
// software manager (built by CMake, found through ZUN_BIN_DIR), in a temporary state folder.
const assert = require("node:assert/strict");
const { spawn } = require("node:child_process");
const { once } = require("node:events");
const fs = require("node:fs");
const os = require("node:os");
const path = require("node:path");
const { after, before, test } = require("node:test");
const {
    AttributeIds, DataType, MessageSecurityMode, OPCUACertificateManager, OPCUAClient,
    SecurityPolicy, StatusCodes, TimestampsToReturn, UserTokenType, VariantArrayType, makeBrowsePath
} = require("node-opcua");
const { DeviceServer } = require("../src/DeviceServer");
const { UpdateServiceClient } = require("../src/UpdateServiceClient");
const { setUser } = require("../src/Users");

const bin = process.env.ZUN_BIN_DIR ?? "";
const missing = ["zun-software-manager", "zun-update-service"].filter((program) => !fs.existsSync(path.join(bin, program)));
const skip = missing.length > 0 && `ZUN_BIN_DIR (${bin || "unset"}) lacks ${missing.join(", ")}`;
const patience = 20000 * Math.max(1, Number(process.env.ZUN_TEST_TIME_SCALE) || 1);
const Uri = "https://example.com/zun";
const Files = "Generic files / Sample files";

const work = fs.mkdtempSync(path.join(os.tmpdir(), "zun-opcua-test-"));
const managerState = path.join(work, "manager");
const children = {};
let server, client, di, sessions;

function within(promise, what) {
    let timer;
    const watchdog = new Promise((resolve, reject) => {
        timer = setTimeout(() => reject(new Error(`no ${what} within ${patience} ms`)), patience);
    });
    return Promise.race([promise, watchdog]).finally(() => clearTimeout(timer));
}

// Starts a program and resolves when its socket exists, woken by the folder's changes, not by a clock.
async function start(name, program, ...args) {
    const socket = path.join(work, `${name}.sock`);
    fs.rmSync(socket, { force: true });
    const log = fs.openSync(path.join(work, `${name}.log`), "a");
    const child = spawn(path.join(bin, program), [...args, "--socket", socket], { stdio: ["ignore", log, log] });
    children[name] = child;
    const watcher = fs.watch(work);
    const appeared = new Promise((resolve) => {
        const check = () => fs.existsSync(socket) && resolve();
        watcher.on("change", check);
        check();
    });
    await Promise.race([within(appeared, socket), once(child, "exit").then(([code]) => {
        throw new Error(`${program} ended with ${code}: ${fs.readFileSync(path.join(work, `${name}.log`), "utf8")}`);
    })]).finally(() => watcher.close());
}

async function nodeOf(session, start, relativePath) {
    const [result] = await session.translateBrowsePath([makeBrowsePath(start, relativePath.replace(/\/(?!\d+:)/g, `/${di}:`))]);
    assert.equal(result.statusCode.name, "Good", relativePath);
    return result.targets[0].targetId;
}

async function child(session, nodeId, name) {
    const found = (await session.browse(nodeId)).references.find((reference) => reference.browseName.name === name);
    assert.ok(found, `${name} under ${nodeId}`);
    return found.nodeId;
}

// Component names hold "/", which browse paths reserve: the device's children are browsed instead.
const component = async (session, name) => child(session, await child(session, `ns=${di};i=5001`, "Controller"), name);

const read = async (session, name, relativePath) => session.read({ nodeId: await nodeOf(session, await component(session, name), relativePath), attributeId: AttributeIds.Value });

const readVersion = (session, name, version) => read(session, name, `/SoftwareUpdate/Loading/${version}/SoftwareRevision`);

const strings = (...values) => [...values.map((value) => ({ dataType: DataType.String, value })), { dataType: DataType.String, arrayType: VariantArrayType.Array, value: [] }];

async function callOn(session, name, objectPath, method, inputArguments) {
    const objectId = await nodeOf(session, await component(session, name), objectPath);
    return session.call({ objectId, methodId: await nodeOf(session, objectId, `/${method}`), inputArguments });
}

const install = (session, name, revision) => callOn(session, name, "/SoftwareUpdate/Installation", "InstallSoftwarePackage", [...strings(Uri, revision), { dataType: DataType.ByteString, value: null }]);

// GenerateFileForWrite, Write, CloseAndCommit: the statuses of the write and of the commit.
async function transfer(session, name, bytes) {
    const call = (method, inputArguments) => callOn(session, name, "/SoftwareUpdate/Loading/FileTransfer", method, inputArguments);
    const generated = await call("0:GenerateFileForWrite", [{ dataType: DataType.String, value: "" }]);
    if (generated.statusCode.isNotGood()) {
        return { written: generated.statusCode };
    }
    const [fileId, handle] = generated.outputArguments.map((argument) => argument.value);
    const written = await session.call({ objectId: fileId, methodId: await nodeOf(session, fileId, "/0:Write"), inputArguments: [{ dataType: DataType.UInt32, value: handle }, { dataType: DataType.ByteString, value: bytes }] });
    const committed = await call("0:CloseAndCommit", [{ dataType: DataType.UInt32, value: handle }]);
    return { written: written.statusCode, committed: committed.statusCode };
}

const packageOf = (file) => fs.readFileSync(path.join(managerState, "incoming", file));

before(async () => {
    if (skip) {
        return;
    }
    await start("manager", "zun-software-manager", "--state-dir", managerState, "--phase-delay-ms", "100");
    await start("service", "zun-update-service", "--state-dir", path.join(work, "service"), "--manager-socket", path.join(work, "manager.sock"));
    const usersFile = path.join(work, "users.json");
    await setUser(usersFile, "admin", "admin-secret", ["ConfigureAdmin"]);
    await setUser(usersFile, "viewer", "viewer-secret", ["Observer"]);
    server = new DeviceServer({
        stateDir: path.join(work, "opcua"), usersFile, port: 0, host: "localhost", allowAnonymous: true, acceptUnknownClients: true, maxPackageSize: packageOf("sample-files-1.1.0.tar").length,
        device: { name: "Controller", manufacturer: "Zun", manufacturerUri: Uri, model: "Test", serialNumber: "42", hardwareRevision: "1", softwareRevision: "1", deviceRevision: "1", deviceManual: "", productCode: "", deviceClass: "", productInstanceUri: "urn:test" }
    }, new UpdateServiceClient(path.join(work, "service.sock")));
    await server.start();
    client = OPCUAClient.create({
        endpointMustExist: false, securityMode: MessageSecurityMode.SignAndEncrypt, securityPolicy: SecurityPolicy.Basic256Sha256, connectionStrategy: { maxRetry: 0 },
        clientCertificateManager: new OPCUACertificateManager({ rootFolder: path.join(work, "client-pki"), automaticallyAcceptUnknownCertificate: true })
    });
    await client.connect(server.endpointUrl);
    const user = (userName, password) => ({ type: UserTokenType.UserName, userName, password });
    await assert.rejects(client.createSession(user("admin", "viewer-secret")), "a wrong password is refused");
    sessions = { anonymous: await client.createSession(), viewer: await client.createSession(user("viewer", "viewer-secret")), admin: await client.createSession(user("admin", "admin-secret")) };
    di = (await sessions.anonymous.readNamespaceArray()).indexOf("http://opcfoundation.org/UA/DI/");
});

after(async () => {
    await Promise.all(Object.values(sessions ?? {}).map((session) => session.close()));
    await client?.disconnect();
    await server?.stop();
    for (const child of [children.service, children.manager].filter((c) => c && c.exitCode === null && c.signalCode === null)) {
        child.kill("SIGTERM");
        await once(child, "exit");
    }
    fs.rmSync(work, { recursive: true, force: true });
});

test("anyone reads; only ConfigureAdmin changes; refusals carry the module's or the server's status", { skip }, async () => {
    const { anonymous, viewer, admin } = sessions;
    assert.equal((await readVersion(anonymous, Files, "CurrentVersion")).value.value, "1.0.0");
    const delay = await nodeOf(admin, await component(admin, Files), "/SoftwareUpdate/Installation/InstallationDelay");
    const write = async (session, nodeId, dataType, value) => ({ statusCode: await session.write({ nodeId, attributeId: AttributeIds.Value, value: { value: { dataType, value } } }) });
    const cases = [
        ["no pending package", () => readVersion(anonymous, Files, "PendingVersion"), StatusCodes.BadNotFound],
        ["anonymous install", () => install(anonymous, Files, "1.1.0"), StatusCodes.BadUserAccessDenied],
        ["viewer install", () => install(viewer, Files, "1.1.0"), StatusCodes.BadUserAccessDenied],
        ["viewer transfer", async () => ({ statusCode: (await transfer(viewer, Files, Buffer.from("x"))).written }), StatusCodes.BadUserAccessDenied],
        ["viewer delay", () => write(viewer, delay, DataType.Double, 0), StatusCodes.BadUserAccessDenied],
        ["negative delay", () => write(admin, delay, DataType.Double, -1), StatusCodes.BadOutOfRange],
        ["install without a pending package", () => install(admin, Files, "1.1.0"), StatusCodes.BadNotFound],
        ["resume while Idle", () => callOn(admin, Files, "/SoftwareUpdate/Installation", "Resume", []), StatusCodes.BadInvalidState],
        ["argument of the wrong type", () => callOn(admin, Files, "/SoftwareUpdate/Installation", "InstallSoftwarePackage", [{ dataType: DataType.Int32, value: 1 }, ...strings("1.1.0"), { dataType: DataType.ByteString, value: null }]), StatusCodes.BadTypeMismatch],
        ["an argument above the local API's message limit", () => install(admin, Files, "x".repeat(1 << 20)), StatusCodes.BadRequestTooLarge],
        ["update key", async () => write(admin, await nodeOf(admin, await component(admin, Files), "/SoftwareUpdate/Loading/UpdateKey"), DataType.String, "key"), StatusCodes.BadNotSupported],
        ["package above the size limit", async () => ({ statusCode: (await transfer(admin, Files, Buffer.alloc(server.model.maxPackageSize + 1))).written }), StatusCodes.BadRequestTooLarge],
        ["package the manager refuses", async () => ({ statusCode: (await transfer(admin, Files, Buffer.from("not a package"))).committed }), null]
    ];
    for (const [what, action, expected] of cases) {
        const status = (await action()).statusCode;
        if (expected) {
            assert.equal(status.name, expected.name, what);
        } else {
            assert.ok(status.isNotGood(), `${what}: ${status.name}`);
        }
    }
    assert.equal((await readVersion(anonymous, Files, "PendingVersion")).statusCode.name, "BadNotFound", "nothing was staged");
});

test("a package transferred and installed: PendingVersion, then Installing and Idle with the new CurrentVersion", { skip }, async () => {
    const { admin, anonymous } = sessions;
    const result = await transfer(admin, Files, packageOf("sample-files-1.1.0.tar"));
    assert.deepEqual([result.written.name, result.committed.name], ["Good", "Good"]);
    assert.equal((await readVersion(anonymous, Files, "PendingVersion")).value.value, "1.1.0");
    assert.equal((await callOn(anonymous, Files, "/SoftwareUpdate/Loading", "GetUpdateBehavior", strings(Uri, "1.1.0"))).statusCode.name, "Good");
    // The CurrentState texts until Idle comes again.
    const subscription = await anonymous.createSubscription2({ requestedPublishingInterval: 20, publishingEnabled: true });
    const item = await subscription.monitor({ nodeId: await nodeOf(anonymous, await component(anonymous, Files), "/SoftwareUpdate/Installation/0:CurrentState"), attributeId: AttributeIds.Value },
        { samplingInterval: 0, queueSize: 100 }, TimestampsToReturn.Neither);
    const states = [];
    const idle = new Promise((resolve) => item.on("changed", (value) => states.push(value.value.value.text) > 1 && states.at(-1) === "Idle" && resolve()));
    assert.equal((await install(admin, Files, "1.1.0")).statusCode.name, "Good");
    await within(idle, `state Idle (seen: ${states})`);
    await subscription.terminate();
    assert.deepEqual([states[0], states.includes("Installing"), states.at(-1)], ["Idle", true, "Idle"]);
    assert.equal((await readVersion(anonymous, Files, "CurrentVersion")).value.value, "1.1.0");
    assert.equal((await read(anonymous, Files, "/SoftwareUpdate/Installation/PercentComplete")).value.value, 100);
});
