"use strict";
// Client of the update service's local API (protocol version 1, UpdateService/PROTOCOL.md):
// length-prefixed JSON messages over its Unix socket. Every operation resolves with the service's
// response {status, statusName, result, error}, whose status is the module's OPC UA status code (or
// the service's own refusal); only a broken connection rejects.
const crypto = require("node:crypto");
const net = require("node:net");
const os = require("node:os");
const path = require("node:path");
const { EventEmitter } = require("node:events");

const ProtocolVersion = 1;
const HeaderSize = 4;
const MaxMessageBytes = 1024 * 1024;
const ClientName = "zun-opcua-server 1.0.0";

function defaultSocketPath(env = process.env) {
    if (env.ZUN_UPDATE_SOCKET) {
        return env.ZUN_UPDATE_SOCKET;
    }
    if (env.RUNTIME_DIRECTORY) {
        return path.join(env.RUNTIME_DIRECTORY, "service.sock");
    }
    if (process.getuid?.() === 0) {
        return "/run/zun-update/service.sock";
    }
    return path.join(env.XDG_RUNTIME_DIR || os.tmpdir(), "zun-update", "service.sock");
}

const BadRequestTooLarge = 0x80B80000;
class MessageTooLarge extends Error {}

function encode(message) {
    const body = Buffer.from(JSON.stringify(message), "utf8");
    if (body.length > MaxMessageBytes) {
        throw new MessageTooLarge(`a message of ${body.length} bytes exceeds the protocol's ${MaxMessageBytes}`);
    }
    const header = Buffer.alloc(HeaderSize);
    header.writeUInt32LE(body.length, 0);
    return Buffer.concat([header, body]);
}

class ConnectionError extends Error {}

// One connection: the hello exchange, then requests answered in order, with events in between.
class Connection extends EventEmitter {
    constructor(socketPath) {
        super();
        this.socketPath = socketPath;
        this.pending = [];
        this.chunks = [];
        this.buffered = 0;
        this.nextId = 1;
        this.closed = false;
    }

    async open() {
        await new Promise((resolve, reject) => {
            this.socket = net.createConnection(this.socketPath);
            this.socket.once("connect", resolve);
            this.socket.once("error", reject);
        }).catch((error) => {
            throw new ConnectionError(`cannot reach the update service at ${this.socketPath}: ${error.message}`);
        });
        this.socket.on("error", (error) => this.fail(new ConnectionError(error.message)));
        this.socket.on("data", (chunk) => this.receive(chunk));
        this.socket.on("close", () => this.fail(new ConnectionError("the update service closed the connection")));
        const hello = await this.exchange({ type: "hello", protocol: ProtocolVersion, client: ClientName });
        if (hello.protocol !== ProtocolVersion) {
            this.fail(new ConnectionError(`the update service speaks protocol ${hello.protocol}`));
        }
        this.limits = hello.limits ?? {};
        return this;
    }

    exchange(message) {
        if (this.closed) {
            return Promise.reject(new ConnectionError("the update service connection is closed"));
        }
        // Encoded before it is queued: a message that cannot be sent must not take the next answer.
        const bytes = encode(message);
        return new Promise((resolve, reject) => {
            this.pending.push({ resolve, reject });
            this.socket.write(bytes);
        });
    }

    request(op, params) {
        const id = this.nextId;
        this.nextId = (this.nextId % 0xFFFFFFFF) + 1;
        let answer;
        try {
            answer = this.exchange({ type: "request", id, op, params });
        } catch (error) {
            if (!(error instanceof MessageTooLarge)) {
                throw error;
            }
            // Refused here as the service refuses a message above its limit; the connection stays as it was.
            return Promise.resolve({ type: "response", id, status: BadRequestTooLarge, statusName: "Bad_RequestTooLarge", error: error.message });
        }
        return answer.then((response) => {
            if (response.id !== id) {
                this.fail(new ConnectionError(`answer ${response.id} came for request ${id}`));
            }
            return response;
        });
    }

    receive(chunk) {
        this.chunks.push(chunk);
        this.buffered += chunk.length;
        let buffer = Buffer.concat(this.chunks);
        while (buffer.length >= HeaderSize && !this.closed) {
            const size = buffer.readUInt32LE(0);
            if (size === 0 || size > MaxMessageBytes) {
                this.fail(new ConnectionError(`the update service sent a message of ${size} bytes`));
                return;
            }
            if (buffer.length < HeaderSize + size) {
                break;
            }
            const body = buffer.subarray(HeaderSize, HeaderSize + size).toString("utf8");
            buffer = buffer.subarray(HeaderSize + size);
            try {
                this.dispatch(JSON.parse(body));
            } catch (error) {
                this.fail(new ConnectionError(`the update service sent malformed JSON: ${error.message}`));
            }
        }
        this.chunks = [buffer];
    }

    dispatch(message) {
        if (message.type === "event") {
            this.emit("event", message);
        } else if (message.type === "error") {
            this.fail(new ConnectionError(`the update service closed the connection: ${message.statusName}: ${message.message ?? ""}`));
        } else if (message.type === "hello" || message.type === "response") {
            const waiter = this.pending.shift();
            if (waiter) {
                waiter.resolve(message);
            } else {
                this.fail(new ConnectionError(`the update service sent an unexpected ${message.type}`));
            }
        }
    }

    fail(error) {
        if (this.closed) {
            return;
        }
        this.closed = true;
        for (const waiter of this.pending.splice(0)) {
            waiter.reject(error);
        }
        this.socket?.destroy();
        this.emit("close", error);
    }

    close() {
        this.fail(new ConnectionError("closed by the client"));
    }
}

class UpdateServiceClient {
    constructor(socketPath = defaultSocketPath()) {
        this.socketPath = socketPath;
        this.connection = null;
    }

    // The shared connection for requests, opened again after it broke.
    async connect() {
        if (!this.connection || this.connection.closed) {
            this.connection = new Connection(this.socketPath).open();
            this.connection.then((connection) => {
                this.connection = connection;
            }, () => {
                this.connection = null;
            });
        }
        return this.connection;
    }

    async request(op, params) {
        return (await this.connect()).request(op, params);
    }

    // The service's limits from its hello (maxPackageBytes, maxChunkBytes, ...).
    async limits() {
        return (await this.connect()).limits;
    }

    list(versions = false) {
        return this.request("list", { versions });
    }

    getVersions(name) {
        return this.request("getVersions", { name, fallback: true });
    }

    getPackage(name, fileType) {
        return this.request("getPackage", { name, fileType });
    }

    getUpdateBehavior(name, manufacturerUri, softwareRevision, patchIdentifiers) {
        return this.request("getUpdateBehavior", { name, manufacturerUri, softwareRevision, patchIdentifiers });
    }

    install(name, softwareRevision, manufacturerUri, patchIdentifiers, installationDelay) {
        return this.request("install", { name, softwareRevision, manufacturerUri, patchIdentifiers, installationDelay });
    }

    resume(name) {
        return this.request("resume", { name });
    }

    getStatus(name) {
        return this.request("getStatus", { name });
    }

    setUpdateKey(name, key) {
        return this.request("setUpdateKey", { name, key });
    }

    // Stages a package: stageBegin, the chunks, stageCommit, on a connection of its own (one upload
    // per connection); the first refusal ends it and is the answer.
    async stage(name, bytes, fileName) {
        const connection = await new Connection(this.socketPath).open();
        try {
            const sha256 = crypto.createHash("sha256").update(bytes).digest("hex");
            const begun = await connection.request("stageBegin", { name, size: bytes.length, sha256, fileName });
            if (begun.status !== 0) {
                return begun;
            }
            const { upload, maxChunkBytes } = begun.result;
            for (let offset = 0; offset < bytes.length; offset += maxChunkBytes) {
                const data = bytes.subarray(offset, offset + maxChunkBytes).toString("base64");
                const sent = await connection.request("stageChunk", { upload, offset, data });
                if (sent.status !== 0) {
                    return sent;
                }
            }
            return await connection.request("stageCommit", { upload });
        } finally {
            connection.close();
        }
    }

    // Starts the event stream on a connection of its own: resolves with the snapshot response and a
    // close function; `onEvent` gets every event, `onClose` the error that ended the stream.
    async watch(onEvent, onClose) {
        const connection = await new Connection(this.socketPath).open();
        connection.on("event", onEvent);
        const snapshot = await connection.request("watch");
        connection.on("close", onClose);
        return { snapshot, close: () => connection.close() };
    }

    close() {
        Promise.resolve(this.connection).then((connection) => connection?.close(), () => {});
        this.connection = null;
    }
}

module.exports = { UpdateServiceClient, ConnectionError, defaultSocketPath };
