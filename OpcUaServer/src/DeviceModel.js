"use strict";
// The device in the DI DeviceSet and its software components, kept in step with the components that
// the update service reports: the snapshot of its watch, then its events.
const { EventEmitter } = require("node:events");
const { DataType, PermissionType, WellKnownRoles, makeRoles } = require("node-opcua");
const { SoftwareComponent } = require("./SoftwareComponent");

const DiUri = "http://opcfoundation.org/UA/DI/";
const ReadOnly = PermissionType.Browse | PermissionType.ReadRolePermissions | PermissionType.Read | PermissionType.ReceiveEvents;

// Anyone may browse and read a guarded node; only a user with the ConfigureAdmin role may call it
// or write it.
function guard(node) {
    node.setRolePermissions([
        { roleId: makeRoles([WellKnownRoles.Anonymous])[0], permissions: ReadOnly },
        { roleId: makeRoles([WellKnownRoles.AuthenticatedUser])[0], permissions: ReadOnly },
        { roleId: makeRoles([WellKnownRoles.ConfigureAdmin])[0], permissions: ReadOnly | PermissionType.Call | PermissionType.Write }
    ]);
    return node;
}

// Emits "componentAdded" and "componentRemoved" with the component's name.
class DeviceModel extends EventEmitter {
    constructor({ addressSpace, client, device, maxPackageSize, log }) {
        super();
        this.addressSpace = addressSpace;
        this.client = client;
        this.maxPackageSize = maxPackageSize;
        this.log = log;
        this.namespace = addressSpace.getOwnNamespace();
        this.di = addressSpace.getNamespaceIndex(DiUri);
        if (this.di < 0) {
            throw new Error("the DI nodeset is not loaded");
        }
        this.components = new Map();
        this.device = this.createDevice(device);
    }

    type(name) {
        return this.addressSpace.findObjectType(name, this.di);
    }

    createDevice(options) {
        const deviceSet = this.addressSpace.findNode(`ns=${this.di};i=5001`);
        // DeviceType is abstract: the device is an instance of a subtype of its own, with nothing added.
        const deviceType = this.namespace.addObjectType({ browseName: "ControllerType", subtypeOf: this.type("DeviceType") });
        const device = deviceType.instantiate({
            browseName: { name: options.name, namespaceIndex: this.namespace.index },
            nodeId: `s=${options.name}`,
            organizedBy: deviceSet,
            namespace: this.namespace,
            optionals: ["ManufacturerUri", "ProductCode", "DeviceClass", "ProductInstanceUri"]
        });
        const values = {
            Manufacturer: { text: options.manufacturer },
            ManufacturerUri: options.manufacturerUri,
            Model: { text: options.model },
            HardwareRevision: options.hardwareRevision,
            SoftwareRevision: options.softwareRevision,
            DeviceRevision: options.deviceRevision,
            ProductCode: options.productCode,
            DeviceManual: options.deviceManual,
            DeviceClass: options.deviceClass,
            SerialNumber: options.serialNumber,
            ProductInstanceUri: options.productInstanceUri,
            RevisionCounter: 0
        };
        for (const [name, value] of Object.entries(values)) {
            const property = device.getPropertyByName(name);
            const dataType = property.dataTypeObj.browseName.name;
            property.setValueFromSource({ dataType: DataType[dataType], value });
        }
        return device;
    }

    // The update service's snapshot, then its changes as they are reported. A broken watch or a gap
    // in the event numbers is followed by a new snapshot once the service answers again.
    async start() {
        const { snapshot, close } = await this.client.watch((event) => this.onEvent(event), (error) => this.onWatchClosed(error));
        if (snapshot.status !== 0) {
            close();
            throw new Error(`the update service refused to watch: ${snapshot.statusName} ${snapshot.error ?? ""}`);
        }
        this.closeWatch = close;
        this.sequence = snapshot.result.sequence;
        const names = new Set(snapshot.result.components.map((component) => component.name));
        for (const name of [...this.components.keys()].filter((known) => !names.has(known))) {
            this.remove(name);
        }
        for (const component of snapshot.result.components) {
            this.add(component.name, component.status);
        }
    }

    onEvent(event) {
        if (event.sequence !== this.sequence + 1) {
            this.log(`update service event ${event.sequence} follows ${this.sequence}: taking a new snapshot`);
            this.closeWatch();
            return;
        }
        this.sequence = event.sequence;
        switch (event.event) {
        case "componentAdded":
            this.add(event.name, event.status);
            break;
        case "componentRemoved":
            this.remove(event.name);
            break;
        case "statusChanged":
            this.components.get(event.name)?.applyStatus(event.status);
            break;
        default:
            break;
        }
    }

    onWatchClosed(error) {
        if (this.stopping) {
            return;
        }
        this.log(`update service watch ended (${error.message}); watching again`);
        const retry = () => this.start().catch((failure) => {
            if (!this.stopping) {
                this.log(failure.message);
                this.retryTimer = setTimeout(retry, 1000);
            }
        });
        retry();
    }

    add(name, status) {
        let component = this.components.get(name);
        if (!component) {
            component = new SoftwareComponent({ name, device: this.device, model: this, client: this.client, maxPackageSize: this.maxPackageSize, guard });
            this.components.set(name, component);
            this.log(`component "${name}" added`);
            this.emit("componentAdded", name);
        }
        if (status) {
            component.applyStatus(status);
        }
    }

    remove(name) {
        const component = this.components.get(name);
        if (component) {
            this.components.delete(name);
            component.dispose();
            this.log(`component "${name}" removed`);
            this.emit("componentRemoved", name);
        }
    }

    stop() {
        this.stopping = true;
        clearTimeout(this.retryTimer);
        this.closeWatch?.();
    }
}

module.exports = { DeviceModel, DiUri };
