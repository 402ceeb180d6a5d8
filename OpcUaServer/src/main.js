#!/usr/bin/env node
"use strict";
// zun-opcua-server: serves the device's software update model to OPC UA clients through the update
// service's local API.
//   zun-opcua-server [options]                      run until SIGINT or SIGTERM
//   zun-opcua-server add-user NAME --role ROLE...   add or replace a user; the password is read from
//                                                   the first line of standard input
const os = require("node:os");
const path = require("node:path");
const { parseArgs } = require("node:util");
const { DeviceServer } = require("./DeviceServer");
const { UpdateServiceClient, defaultSocketPath } = require("./UpdateServiceClient");
const { RoleNames, setUser } = require("./Users");

const stateHome = process.env.XDG_STATE_HOME || path.join(os.homedir(), ".local", "state");
const Options = {
    "state-dir": { type: "string", default: path.join(stateHome, "zun-opcua-server") },
    "users": { type: "string" },
    "update-service-socket": { type: "string", default: defaultSocketPath() },
    "port": { type: "string", default: "4840" },
    "host": { type: "string" },
    "security-none": { type: "boolean", default: false },
    "no-anonymous": { type: "boolean", default: false },
    "accept-unknown-clients": { type: "boolean", default: false },
    "max-package-size": { type: "string", default: String(64 * 1024 * 1024) },
    "device-name": { type: "string", default: "Controller" },
    "manufacturer": { type: "string", default: "Zun" },
    "manufacturer-uri": { type: "string", default: "https://example.com/zun" },
    "model": { type: "string", default: "Zun controller" },
    "serial-number": { type: "string", default: "0000000" },
    "hardware-revision": { type: "string", default: "1.0" },
    "software-revision": { type: "string", default: "1.0.0" },
    "device-revision": { type: "string", default: "1.0" },
    "device-manual": { type: "string", default: "" },
    "product-code": { type: "string", default: "" },
    "device-class": { type: "string", default: "Controller" },
    "role": { type: "string", multiple: true },
    "help": { type: "boolean", short: "h", default: false }
};

const Usage = `usage: zun-opcua-server [options]
       zun-opcua-server add-user NAME --role ROLE [--role ROLE...] [--users FILE]   (password on stdin)
options:
  --state-dir DIR              certificates and default users file (${Options["state-dir"].default})
  --users FILE                 users file (default STATE-DIR/users.json)
  --update-service-socket P    the update service's socket (default $ZUN_UPDATE_SOCKET, else its own default)
  --port N --host NAME         endpoint (default port 4840)
  --security-none              also offer an endpoint without security
  --no-anonymous               refuse anonymous sessions
  --accept-unknown-clients     trust every client certificate (else move them from pki/rejected to pki/trusted)
  --max-package-size BYTES     largest package a client may transfer (default 64 MiB)
  --device-name, --manufacturer, --manufacturer-uri, --model, --serial-number, --hardware-revision,
  --software-revision, --device-revision, --device-manual, --product-code, --device-class
roles: ${RoleNames.join(", ")}; ConfigureAdmin may transfer, install, resume and set InstallationDelay`;

function positiveInteger(text, option) {
    const value = Number(text);
    if (!Number.isInteger(value) || value <= 0) {
        throw new Error(`--${option} needs a positive integer, got "${text}"`);
    }
    return value;
}

function serverOptions(values) {
    const stateDir = path.resolve(values["state-dir"]);
    return {
        stateDir,
        usersFile: path.resolve(values.users ?? path.join(stateDir, "users.json")),
        socketPath: values["update-service-socket"],
        port: positiveInteger(values.port, "port"),
        host: values.host,
        securityNone: values["security-none"],
        allowAnonymous: !values["no-anonymous"],
        acceptUnknownClients: values["accept-unknown-clients"],
        maxPackageSize: positiveInteger(values["max-package-size"], "max-package-size"),
        device: {
            name: values["device-name"],
            manufacturer: values.manufacturer,
            manufacturerUri: values["manufacturer-uri"],
            model: values.model,
            serialNumber: values["serial-number"],
            hardwareRevision: values["hardware-revision"],
            softwareRevision: values["software-revision"],
            deviceRevision: values["device-revision"],
            deviceManual: values["device-manual"],
            productCode: values["product-code"],
            deviceClass: values["device-class"],
            productInstanceUri: `urn:${values.manufacturer}:${values["serial-number"]}`.replace(/\s+/g, "-")
        }
    };
}

async function readLine(stream) {
    let text = "";
    for await (const chunk of stream) {
        text += chunk;
        if (text.includes("\n")) {
            break;
        }
    }
    return text.split("\n")[0].replace(/\r$/, "");
}

async function addUser(values, positionals) {
    const name = positionals[1];
    if (!name || positionals.length > 2) {
        throw new Error("add-user needs exactly one NAME");
    }
    const file = path.resolve(values.users ?? path.join(values["state-dir"], "users.json"));
    require("node:fs").mkdirSync(path.dirname(file), { recursive: true, mode: 0o700 });
    await setUser(file, name, await readLine(process.stdin), values.role ?? []);
    console.log(`user "${name}" written to ${file}`);
}

async function serve(options) {
    const log = (message) => console.log(`zun-opcua-server: ${message}`);
    const server = new DeviceServer(options, new UpdateServiceClient(options.socketPath), log);
    let stopping = false;
    const stop = async (code) => {
        if (!stopping) {
            stopping = true;
            await server.stop();
            process.exit(code);
        }
    };
    process.on("SIGINT", () => stop(0));
    process.on("SIGTERM", () => stop(0));
    await server.start();
    log(`listening on ${server.endpointUrl}`);
}

async function main() {
    const { values, positionals } = parseArgs({ options: Options, allowPositionals: true });
    if (values.help) {
        console.log(Usage);
    } else if (positionals[0] === "add-user") {
        await addUser(values, positionals);
    } else if (positionals.length > 0) {
        throw new Error(`unknown command "${positionals[0]}"`);
    } else {
        await serve(serverOptions(values));
    }
}

main().catch((error) => {
    console.error(`zun-opcua-server: ${error.message}`);
    process.exit(error.code === "ERR_PARSE_ARGS_UNKNOWN_OPTION" ? 2 : 1);
});
