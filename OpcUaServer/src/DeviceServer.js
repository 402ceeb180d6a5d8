"use strict";
// The OPC UA server of the device: DI nodeset, Basic256Sha256 endpoints (None only on request), an
// application certificate made at the first start in the state folder, users from the users file
// (password or trusted X.509 certificate), and the device model fed by the update service.
const fs = require("node:fs");
const path = require("node:path");
const { MessageSecurityMode, OPCUACertificateManager, OPCUAServer, SecurityPolicy, nodesets } = require("node-opcua");
const { DeviceModel } = require("./DeviceModel");
const { Users } = require("./Users");

class DeviceServer {
    constructor(options, client, log = () => {}) {
        this.options = options;
        this.client = client;
        this.log = log;
    }

    async start() {
        const { options } = this;
        fs.mkdirSync(options.stateDir, { recursive: true, mode: 0o700 });
        const users = new Users(options.usersFile);
        const serverCertificateManager = new OPCUACertificateManager({
            rootFolder: path.join(options.stateDir, "pki"),
            automaticallyAcceptUnknownCertificate: options.acceptUnknownClients
        });
        const userCertificateManager = new OPCUACertificateManager({
            rootFolder: path.join(options.stateDir, "user-pki"),
            automaticallyAcceptUnknownCertificate: false
        });
        await serverCertificateManager.initialize();
        await userCertificateManager.initialize();

        const securityModes = [MessageSecurityMode.Sign, MessageSecurityMode.SignAndEncrypt];
        const securityPolicies = [SecurityPolicy.Basic256Sha256];
        if (options.securityNone) {
            securityModes.unshift(MessageSecurityMode.None);
            securityPolicies.unshift(SecurityPolicy.None);
        }
        this.server = new OPCUAServer({
            port: options.port,
            hostname: options.host,
            nodeset_filename: [nodesets.standard, nodesets.di],
            serverCertificateManager,
            userCertificateManager,
            securityModes,
            securityPolicies,
            allowAnonymous: options.allowAnonymous,
            userManager: {
                isValidUserAsync: (name, password, callback) => users.isValidUser(name, password).then((valid) => callback(null, valid), callback),
                getUserRoles: (name) => users.getUserRoles(name)
            },
            serverInfo: {
                applicationUri: `urn:${options.device.manufacturer}:${options.device.serialNumber}:zun-opcua-server`.replace(/\s+/g, "-"),
                productUri: "urn:zun:opcua-server",
                applicationName: { text: `${options.device.name} (${options.device.serialNumber})` }
            },
            buildInfo: {
                productName: "zun-opcua-server",
                manufacturerName: options.device.manufacturer,
                softwareVersion: options.device.softwareRevision
            },
            isAuditing: false
        });
        await this.server.initialize();
        this.model = new DeviceModel({
            addressSpace: this.server.engine.addressSpace,
            client: this.client,
            device: options.device,
            maxPackageSize: Math.min(options.maxPackageSize, (await this.client.limits()).maxPackageBytes ?? Infinity),
            log: this.log
        });
        await this.model.start();
        await this.server.start();
        this.log(`users: ${users.size} from ${options.usersFile}`);
    }

    get endpointUrl() {
        return this.server.getEndpointUrl();
    }

    async stop() {
        this.model?.stop();
        this.client.close();
        await this.server?.shutdown(0);
    }
}

module.exports = { DeviceServer };
