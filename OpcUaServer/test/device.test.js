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
    AttributeIds, BrowseDirection, DataType, MessageSecurityMode, OPCUACertificateManager, OPCUAClient,
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
const Project = "Tesmora Engineer project / Sample project";

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

// Resolves when `file` exists; woken by the folder's changes, not by a clock.
function fileAppears(file) {
    fs.mkdirSync(path.dirname(file), { recursive: true });
    const watcher = fs.watch(path.dirname(file));
    const appeared = new Promise((resolve) => {
        const check = () => fs.existsSync(file) && resolve();
        watcher.on("change", check);
        check();
    });
    return within(appeared, `${file}`).finally(() => watcher.close());
}

async function start(name, program, args, readyFile) {
    const log = fs.openSync(path.join(work, `${name}.log`), "a");
    const child = spawn(path.join(bin, program), args, { stdio: ["ignore", log, log] });
    children[name] = child;
    await Promise.race([fileAppears(readyFile), once(child, "exit").then(([code]) => {
        throw new Error(`${program} ended with ${code}: ${fs.readFileSync(path.join(work, `${name}.log`), "utf8")}`);
    })]);
}

async function stop(name) {
    const child = children[name];
    if (child && child.exitCode === null && child.signalCode === null) {
        child.kill("SIGTERM");
        await once(child, "exit");
    }
}

function startManager(...options) {
    fs.rmSync(path.join(work, "manager.sock"), { force: true });
    return start("manager", "zun-software-manager", ["--state-dir", managerState, "--socket", path.join(work, "manager.sock"), "--phase-delay-ms", "100", ...options], path.join(work, "manager.sock"));
}

function startService() {
    fs.rmSync(path.join(work, "service.sock"), { force: true });
    return start("service", "zun-update-service", ["--state-dir", path.join(work, "service"), "--socket", path.join(work, "service.sock"), "--manager-socket", path.join(work, "manager.sock")], path.join(work, "service.sock"));
}

function pathOf(start, relativePath) {
    return makeBrowsePath(start, relativePath.replace(/\/(?!\d+:)/g, `/${di}:`));
}

async function nodeOf(session, start, relativePath) {
    const [result] = await session.translateBrowsePath([pathOf(start, relativePath)]);
    assert.equal(result.statusCode.name, "Good", relativePath);
    return result.targets[0].targetId;
}

async function child(session, nodeId, name) {
    const found = (await session.browse(nodeId)).references.find((reference) => reference.browseName.name === name);
    assert.ok(found, `${name} under ${nodeId}`);
    return found.nodeId;
}

// Component names hold "/", which browse paths reserve: the device's children are browsed instead.
async function component(session, name) {
    return child(session, await child(session, `ns=${di};i=5001`, "Controller"), name);
}

async function read(session, nodeId) {
    return session.read({ nodeId, attributeId: AttributeIds.Value });
}

async function readVersion(session, name, version) {
    return read(session, await nodeOf(session, await component(session, name), `/SoftwareUpdate/Loading/${version}/SoftwareRevision`));
}

function strings(...values) {
    return [...values.map((value) => ({ dataType: DataType.String, value })), { dataType: DataType.String, arrayType: VariantArrayType.Array, value: [] }];
}

async function callOn(session, name, objectPath, method, inputArguments) {
    const objectId = await nodeOf(session, await component(session, name), objectPath);
    return session.call({ objectId, methodId: await nodeOf(session, objectId, `/${method}`), inputArguments });
}

function install(session, name, revision, uri = Uri) {
    return callOn(session, name, "/SoftwareUpdate/Installation", "InstallSoftwarePackage", [...strings(uri, revision), { dataType: DataType.ByteString, value: null }]);
}

// GenerateFileForWrite, Write, CloseAndCommit: the statuses of the write and of the commit.
async function transfer(session, name, bytes) {
    const generated = await callOn(session, name, "/SoftwareUpdate/Loading/FileTransfer", "0:GenerateFileForWrite", [{ dataType: DataType.String, value: "" }]);
    if (generated.statusCode.isNotGood()) {
        return { written: generated.statusCode };
    }
    const [fileId, handle] = generated.outputArguments.map((argument) => argument.value);
    const written = await session.call({ objectId: fileId, methodId: await nodeOf(session, fileId, "/0:Write"), inputArguments: [{ dataType: DataType.UInt32, value: handle }, { dataType: DataType.ByteString, value: bytes }] });
    const committed = await callOn(session, name, "/SoftwareUpdate/Loading/FileTransfer", "0:CloseAndCommit", [{ dataType: DataType.UInt32, value: handle }]);
    return { written: written.statusCode, committed: committed.statusCode };
}

// Collects the CurrentState texts of a component until one of them is `last`.
async function followState(session, name, last, action) {
    const subscription = await session.createSubscription2({ requestedPublishingInterval: 20, publishingEnabled: true });
    const item = await subscription.monitor({ nodeId: await nodeOf(session, await component(session, name), "/SoftwareUpdate/Installation/0:CurrentState"), attributeId: AttributeIds.Value },
        { samplingInterval: 0, queueSize: 100 }, TimestampsToReturn.Neither);
    const states = [];
    const reached = new Promise((resolve) => item.on("changed", (value) => states.push(value.value.value.text) > 1 && states.at(-1) === last && resolve()));
    await action();
    await within(reached, `state ${last} of ${name} (seen: ${states})`);
    await subscription.terminate();
    return states;
}

before(async () => {
    if (skip) {
        return;
    }
    await startManager();
    await startService();
    const usersFile = path.join(work, "users.json");
    await setUser(usersFile, "admin", "admin-secret", ["ConfigureAdmin"]);
    await setUser(usersFile, "viewer", "viewer-secret", ["Observer"]);
    const packageSize = fs.statSync(path.join(managerState, "incoming", "sample-files-1.1.0.tar")).size;
    server = new DeviceServer({
        stateDir: path.join(work, "opcua"), usersFile, port: 0, host: "localhost", allowAnonymous: true, acceptUnknownClients: true, maxPackageSize: packageSize,
        device: { name: "Controller", manufacturer: "Zun", manufacturerUri: Uri, model: "Test", serialNumber: "42", hardwareRevision: "1", softwareRevision: "1", deviceRevision: "1", deviceManual: "", productCode: "", deviceClass: "", productInstanceUri: "urn:test" }
    }, new UpdateServiceClient(path.join(work, "service.sock")));
    await server.start();
    client = OPCUAClient.create({
        endpointMustExist: false, securityMode: MessageSecurityMode.SignAndEncrypt, securityPolicy: SecurityPolicy.Basic256Sha256, connectionStrategy: { maxRetry: 0 },
        clientCertificateManager: new OPCUACertificateManager({ rootFolder: path.join(work, "client-pki"), automaticallyAcceptUnknownCertificate: true })
    });
    await client.connect(server.endpointUrl);
    sessions = {
        anonymous: await client.createSession(),
        viewer: await client.createSession({ type: UserTokenType.UserName, userName: "viewer", password: "viewer-secret" }),
        admin: await client.createSession({ type: UserTokenType.UserName, userName: "admin", password: "admin-secret" })
    };
    di = (await sessions.anonymous.readNamespaceArray()).indexOf("http://opcfoundation.org/UA/DI/");
});

after(async () => {
    await Promise.all(Object.values(sessions ?? {}).map((session) => session.close()));
    await client?.disconnect();
    await server?.stop();
    await stop("service");
    await stop("manager");
    fs.rmSync(work, { recursive: true, force: true });
});

test("the device and a component are instances of the DI types", { skip }, async () => {
    const session = sessions.anonymous;
    const typeOf = async (nodeId, referenceTypeId = "HasTypeDefinition", browseDirection = BrowseDirection.Forward) =>
        (await session.browse({ nodeId, referenceTypeId, browseDirection })).references[0].nodeId.toString();
    assert.equal(await typeOf(await typeOf(await child(session, `ns=${di};i=5001`, "Controller")), "HasSubtype", BrowseDirection.Inverse), `ns=${di};i=1002`);
    const files = await component(session, Files);
    for (const [relativePath, type] of [["", 15106], ["/SoftwareUpdate", 1], ["/SoftwareUpdate/Loading", 171], ["/SoftwareUpdate/Installation", 249],
        ["/SoftwareUpdate/Loading/CurrentVersion", 212], ["/SoftwareUpdate/Loading/PendingVersion", 212], ["/SoftwareUpdate/Loading/FileTransfer", "0:15744"]]) {
        const expected = typeof type === "number" ? `ns=${di};i=${type}` : "ns=0;i=15744";
        assert.equal(await typeOf(relativePath ? await nodeOf(session, files, relativePath) : files), expected, relativePath);
    }
});

test("anyone reads; only ConfigureAdmin changes; refusals carry the module's or the server's status", { skip }, async () => {
    const { anonymous, viewer, admin } = sessions;
    assert.equal((await readVersion(anonymous, Files, "CurrentVersion")).value.value, "1.0.0");
    const delay = await nodeOf(admin, await component(admin, Files), "/SoftwareUpdate/Installation/InstallationDelay");
    const writeDelay = (session, value) => session.write({ nodeId: delay, attributeId: AttributeIds.Value, value: { value: { dataType: DataType.Double, value } } });
    const cases = [
        ["no pending package", () => readVersion(anonymous, Files, "PendingVersion"), StatusCodes.BadNotFound],
        ["package read back", () => callOn(admin, Files, "/SoftwareUpdate/Loading/FileTransfer", "0:GenerateFileForRead", [{ dataType: DataType.Int32, value: 0 }]), StatusCodes.BadNotSupported],
        ["anonymous install", () => install(anonymous, Files, "1.1.0"), StatusCodes.BadUserAccessDenied],
        ["viewer install", () => install(viewer, Files, "1.1.0"), StatusCodes.BadUserAccessDenied],
        ["viewer transfer", async () => ({ statusCode: (await transfer(viewer, Files, Buffer.from("x"))).written }), StatusCodes.BadUserAccessDenied],
        ["viewer delay", async () => ({ statusCode: await writeDelay(viewer, 0) }), StatusCodes.BadUserAccessDenied],
        ["negative delay", async () => ({ statusCode: await writeDelay(admin, -1) }), StatusCodes.BadOutOfRange],
        ["install without a pending package", () => install(admin, Files, "1.1.0"), StatusCodes.BadNotFound],
        ["resume while Idle", () => callOn(admin, Files, "/SoftwareUpdate/Installation", "Resume", []), StatusCodes.BadInvalidState],
        ["argument of the wrong type", () => callOn(admin, Files, "/SoftwareUpdate/Installation", "InstallSoftwarePackage", [{ dataType: DataType.Int32, value: 1 }, ...strings("1.1.0"), { dataType: DataType.ByteString, value: null }]), StatusCodes.BadTypeMismatch],
        ["an argument above the local API's message limit", () => install(admin, Files, "x".repeat(1 << 20)), StatusCodes.BadRequestTooLarge],
        ["update key", async () => ({ statusCode: await admin.write({ nodeId: await nodeOf(admin, await component(admin, Files), "/SoftwareUpdate/Loading/UpdateKey"), attributeId: AttributeIds.Value, value: { value: { dataType: DataType.String, value: "key" } } }) }), StatusCodes.BadNotSupported],
        ["package above the size limit", async () => ({ statusCode: (await transfer(admin, Files, Buffer.alloc(server.model.maxPackageSize + 1))).written }), StatusCodes.BadRequestTooLarge],
        ["package the manager refuses", async () => ({ statusCode: (await transfer(admin, Files, Buffer.from("not a package"))).committed }), null]
    ];
    for (const [what, action, expected] of cases) {
        const result = await action();
        const status = result.statusCode;
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
    const result = await transfer(admin, Files, fs.readFileSync(path.join(managerState, "incoming", "sample-files-1.1.0.tar")));
    assert.deepEqual([result.written.name, result.committed.name], ["Good", "Good"]);
    assert.equal((await readVersion(anonymous, Files, "PendingVersion")).value.value, "1.1.0");
    const behavior = await callOn(anonymous, Files, "/SoftwareUpdate/Loading", "GetUpdateBehavior", strings(Uri, "1.1.0"));
    assert.equal(behavior.statusCode.name, "Good");
    const states = await followState(anonymous, Files, "Idle", async () => assert.equal((await install(admin, Files, "1.1.0")).statusCode.name, "Good"));
    assert.deepEqual([states[0], states.includes("Installing"), states.at(-1)], ["Idle", true, "Idle"]);
    assert.equal((await readVersion(anonymous, Files, "CurrentVersion")).value.value, "1.1.0");
    const percent = await read(anonymous, await nodeOf(anonymous, await component(anonymous, Files), "/SoftwareUpdate/Installation/PercentComplete"));
    assert.equal(percent.value.value, 100);
});

test("a failing installation gives Error with the UpdateStatus text; Resume returns to Idle", { skip }, async () => {
    const { admin, anonymous } = sessions;
    await stop("manager");
    await startManager("--keep-version");
    const result = await transfer(admin, Project, fs.readFileSync(path.join(managerState, "incoming", "sample-project-1.1.0.tar")));
    assert.equal(result.committed.name, "Good");
    const states = await followState(anonymous, Project, "Error", async () => assert.equal((await install(admin, Project, "1.1.0")).statusCode.name, "Good"));
    assert.ok(states.includes("Installing"), String(states));
    const text = await read(anonymous, await nodeOf(anonymous, await component(anonymous, Project), "/SoftwareUpdate/UpdateStatus"));
    assert.equal(text.value.value.text, "Expected version is 1.1.0 but current version is 1.0.0.");
    await followState(anonymous, Project, "Idle", async () => assert.equal((await callOn(admin, Project, "/SoftwareUpdate/Installation", "Resume", [])).statusCode.name, "Good"));
});

test("a component added to the software manager appears in the address space", { skip }, async () => {
    const name = "Generic files / Added later";
    fs.mkdirSync(path.join(managerState, "components", "generic-files", "Added later"), { recursive: true });
    const added = once(server.model, "componentAdded");
    // The module registers the manager's components when it starts; the server watches the new service.
    await stop("service");
    await startService();
    assert.deepEqual(await within(added, "componentAdded"), [name]);
    assert.equal((await readVersion(sessions.anonymous, name, "CurrentVersion")).statusCode.name, "BadNotFound", "a new component has no version yet");
});
