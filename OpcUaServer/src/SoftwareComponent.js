"use strict";
// One software component of the update service in the address space: a SoftwareType object named by
// the component's text form with its SoftwareUpdate AddIn (SoftwareUpdateType, Loading a
// CachedLoadingType, Installation an InstallationStateMachineType, UpdateStatus). Reads and method
// calls go to the update service; the installation state follows the status records it reports.
const { AccessLevelFlag, DataType, DataValue, EventNotifierFlags, StatusCodes, Variant, VariantArrayType, promoteToStateMachine } = require("node-opcua");
const { PackageTransfer } = require("./PackageTransfer");
const { bindMethod, makeStatusCode, methodResult } = require("./StatusMapping");

const States = ["Idle", "Installing", "Error"];

// Member of the service's SoftwareVersion record, OPC UA data type, and the value when absent.
const VersionFields = {
    Manufacturer: ["manufacturer", DataType.LocalizedText, ""],
    ManufacturerUri: ["manufacturerUri", DataType.String, ""],
    SoftwareRevision: ["softwareRevision", DataType.String, ""],
    PatchIdentifiers: ["patchIdentifiers", DataType.String, []],
    ReleaseDate: ["releaseDate", DataType.DateTime, null],
    ChangeLogReference: ["changeLogReference", DataType.String, ""],
    Hash: ["hash", DataType.ByteString, ""]
};

function versionValue(version, field) {
    const [key, dataType, absent] = VersionFields[field];
    let value = version[key] ?? absent;
    if (dataType === DataType.DateTime && value !== null) {
        value = new Date(value);
    } else if (dataType === DataType.ByteString) {
        value = value ? Buffer.from(value, "base64") : null;
    } else if (dataType === DataType.LocalizedText) {
        value = { text: value };
    }
    return new Variant({ dataType, value, arrayType: Array.isArray(absent) ? VariantArrayType.Array : VariantArrayType.Scalar });
}

class SoftwareComponent {
    constructor({ name, device, model, client, maxPackageSize, guard }) {
        this.name = name;
        this.client = client;
        this.model = model;
        this.installationDelay = 0;
        const { addressSpace, namespace, di } = model;

        this.node = model.type("SoftwareType").instantiate({
            browseName: { name, namespaceIndex: namespace.index },
            nodeId: `s=${name}`,
            componentOf: device,
            namespace
        });
        this.setComponentProperties();
        this.update = model.type("SoftwareUpdateType").instantiate({
            browseName: { name: "SoftwareUpdate", namespaceIndex: di },
            addInOf: this.node,
            namespace,
            optionals: ["Installation", "UpdateStatus", "Installation.PercentComplete", "Installation.InstallationDelay", "Installation.InstallSoftwarePackage"]
        });
        this.loading = model.type("CachedLoadingType").instantiate({
            browseName: { name: "Loading", namespaceIndex: di },
            componentOf: this.update,
            namespace,
            optionals: ["FallbackVersion", "UpdateKey", "CurrentVersion.PatchIdentifiers", "CurrentVersion.ReleaseDate", "CurrentVersion.ChangeLogReference", "CurrentVersion.Hash", "PendingVersion.PatchIdentifiers", "PendingVersion.ReleaseDate", "PendingVersion.ChangeLogReference", "PendingVersion.Hash"]
        });
        this.bindVersion("CurrentVersion", "current");
        this.bindVersion("PendingVersion", "pending");
        this.bindVersion("FallbackVersion", "fallback");
        this.bindUpdateKey(guard);
        bindMethod(this.loading.getMethodByName("GetUpdateBehavior"), (args) => this.getUpdateBehavior(args));

        this.transfer = new PackageTransfer({
            fileTransfer: this.loading.getComponentByName("FileTransfer"),
            errorMessage: this.loading.getComponentByName("ErrorMessage"),
            fileType: addressSpace.findObjectType("FileType"),
            namespace,
            componentName: name,
            client,
            maxPackageSize,
            guard
        });

        this.installation = this.update.getComponentByName("Installation");
        promoteToStateMachine(this.installation);
        // Clients may subscribe to its TransitionEvents.
        this.installation.setEventNotifier(EventNotifierFlags.SubscribeToEvents);
        this.installation.setState("Idle");
        this.percentComplete = this.installation.getComponentByName("PercentComplete");
        this.percentComplete.setValueFromSource({ dataType: DataType.Byte, value: 0 });
        this.updateStatus = this.update.getComponentByName("UpdateStatus");
        this.updateStatus.setValueFromSource({ dataType: DataType.LocalizedText, value: { text: "" } });
        this.bindInstallationDelay(guard);
        bindMethod(guard(this.installation.getMethodByName("InstallSoftwarePackage")), (args) => this.installSoftwarePackage(args));
        bindMethod(guard(this.installation.getMethodByName("Resume")), () => this.resume());
    }

    setComponentProperties() {
        const set = (property, dataType, value) => this.node.getPropertyByName(property)?.setValueFromSource({ dataType, value });
        set("Model", DataType.LocalizedText, { text: this.name });
        // The component's own Manufacturer and SoftwareRevision are those of its current version.
        for (const property of ["Manufacturer", "SoftwareRevision"]) {
            this.bindVersionField(this.node.getPropertyByName(property), "current", property);
        }
    }

    // Concurrent reads share one getVersions answer; every read asks the service anew.
    readVersions() {
        if (!this.versions) {
            this.versions = this.client.getVersions(this.name).finally(() => {
                this.versions = null;
            });
        }
        return this.versions;
    }

    async readVersionField(which, field) {
        const answer = await this.readVersions();
        const { status, version } = answer.status === 0 ? answer.result[which] : answer;
        return status === 0
            ? new DataValue({ value: versionValue(version, field), statusCode: StatusCodes.Good })
            : new DataValue({ statusCode: makeStatusCode(status) });
    }

    bindVersionField(variable, which, field) {
        variable?.bindVariable({
            refreshFunc: (callback) => {
                this.readVersionField(which, field).then((dataValue) => callback(null, dataValue),
                    () => callback(null, new DataValue({ statusCode: StatusCodes.BadNoCommunication })));
            }
        }, true);
    }

    bindVersion(objectName, which) {
        const object = this.loading.getComponentByName(objectName);
        for (const field of Object.keys(VersionFields)) {
            this.bindVersionField(object.getPropertyByName(field), which, field);
        }
    }

    // UpdateKey takes a secret: a write goes to the update service and answers with its status; the
    // key is neither kept nor logged, and it cannot be read back.
    bindUpdateKey(guard) {
        const updateKey = this.loading.getComponentByName("UpdateKey") ?? this.loading.getPropertyByName("UpdateKey");
        if (!updateKey) {
            return;
        }
        guard(updateKey);
        updateKey.accessLevel = AccessLevelFlag.CurrentWrite;
        updateKey.userAccessLevel = AccessLevelFlag.CurrentWrite;
        updateKey.bindVariable({
            timestamped_get: () => new DataValue({ statusCode: StatusCodes.BadNotReadable }),
            timestamped_set: async (dataValue) => {
                if (dataValue.value.dataType !== DataType.String) {
                    return StatusCodes.BadTypeMismatch;
                }
                const answer = await this.client.setUpdateKey(this.name, dataValue.value.value ?? "").catch(() => ({ status: StatusCodes.BadNoCommunication.value }));
                return makeStatusCode(answer.status);
            }
        }, true);
    }

    bindInstallationDelay(guard) {
        const variable = this.installation.getComponentByName("InstallationDelay");
        guard(variable);
        // The type declares it read-only; the guard decides who may write.
        variable.accessLevel = AccessLevelFlag.CurrentRead | AccessLevelFlag.CurrentWrite;
        variable.userAccessLevel = AccessLevelFlag.CurrentRead | AccessLevelFlag.CurrentWrite;
        variable.bindVariable({
            get: () => new Variant({ dataType: DataType.Double, value: this.installationDelay }),
            set: (variant) => {
                if (!Number.isFinite(variant.value) || variant.value < 0) {
                    return StatusCodes.BadOutOfRange;
                }
                this.installationDelay = variant.value;
                return StatusCodes.Good;
            }
        }, true);
    }

    async getUpdateBehavior([manufacturerUri, softwareRevision, patchIdentifiers]) {
        const answer = await this.client.getUpdateBehavior(this.name, manufacturerUri.value ?? "", softwareRevision.value ?? "", patchIdentifiers.value ?? []);
        return methodResult(answer.status, [new Variant({ dataType: DataType.UInt32, value: answer.result?.behavior ?? 0 })]);
    }

    // The Hash argument is not passed on: the local API's install takes none.
    async installSoftwarePackage([manufacturerUri, softwareRevision, patchIdentifiers]) {
        const answer = await this.client.install(this.name, softwareRevision.value ?? "", manufacturerUri.value ?? "",
            patchIdentifiers.value ?? [], this.installationDelay);
        return methodResult(answer.status);
    }

    async resume() {
        return methodResult((await this.client.resume(this.name)).status);
    }

    // A status record of the update service: state, progress and text.
    applyStatus(record) {
        const state = States[record.stateValue] ?? "Installing";
        if (this.installation.getCurrentState() !== `${this.model.di}:${state}`) {
            this.installation.setState(state);
        }
        this.percentComplete.setValueFromSource({ dataType: DataType.Byte, value: record.percent });
        this.updateStatus.setValueFromSource({ dataType: DataType.LocalizedText, value: { text: record.message } });
    }

    dispose() {
        this.transfer.dispose();
        this.model.namespace.deleteNode(this.node);
    }
}

module.exports = { SoftwareComponent };
