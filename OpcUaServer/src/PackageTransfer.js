"use strict";
// The FileTransfer object of a component's Loading (TemporaryFileTransferType): GenerateFileForWrite
// opens a temporary FileType object for the calling session, Write appends the package's bytes (up
// to the configured size), CloseAndCommit hands them to the update service, which stages them as
// the pending package. Close or the end of the session discards a transfer.
const { DataType, NodeId, StatusCodes, Variant, VariantArrayType } = require("node-opcua");
const { bindMethod, methodResult } = require("./StatusMapping");

class PackageTransfer {
    constructor({ fileTransfer, errorMessage, fileType, namespace, componentName, client, maxPackageSize, guard }) {
        this.fileTransfer = fileTransfer;
        this.errorMessage = errorMessage;
        this.fileType = fileType;
        this.namespace = namespace;
        this.componentName = componentName;
        this.client = client;
        this.maxPackageSize = maxPackageSize;
        this.guard = guard;
        this.transfers = new Map();
        this.nextHandle = 1;

        this.bind("GenerateFileForWrite", (args, context) => this.generateFileForWrite(context));
        this.bind("CloseAndCommit", (args, context) => this.closeAndCommit(args[0].value, context));
        // Reading a package back is the module's to answer.
        this.bind("GenerateFileForRead", async () => methodResult((await client.getPackage(componentName, "Current")).status));
        errorMessage.setValueFromSource({ dataType: DataType.LocalizedText, value: { text: "" } });
        fileTransfer.getPropertyByName("ClientProcessingTimeout").setValueFromSource({ dataType: DataType.Double, value: 0 });
    }

    bind(name, handler) {
        bindMethod(this.guard(this.fileTransfer.getMethodByName(name)), handler);
    }

    generateFileForWrite(context) {
        const handle = this.nextHandle++;
        const file = this.fileType.instantiate({
            browseName: `Package${handle}`,
            componentOf: this.fileTransfer,
            namespace: this.namespace
        });
        const transfer = { handle, file, session: context.session, chunks: [], size: 0 };
        this.transfers.set(handle, transfer);
        bindMethod(this.guard(file.getMethodByName("Write")), (args, ctx) => this.write(transfer, args, ctx));
        bindMethod(file.getMethodByName("Close"), (args, ctx) => this.close(transfer, args[0].value, ctx));
        for (const name of ["Open", "Read", "GetPosition", "SetPosition"]) {
            bindMethod(file.getMethodByName(name), () => ({ statusCode: StatusCodes.BadNotSupported }));
        }
        this.setFileProperties(transfer);
        context.session?.once?.("session_closed", () => this.discard(transfer));
        return {
            statusCode: StatusCodes.Good,
            outputArguments: [
                new Variant({ dataType: DataType.NodeId, value: file.nodeId }),
                new Variant({ dataType: DataType.UInt32, value: handle }),
                new Variant({ dataType: DataType.NodeId, value: NodeId.nullNodeId })
            ]
        };
    }

    setFileProperties(transfer) {
        const set = (name, dataType, value) => transfer.file.getPropertyByName(name)?.setValueFromSource({ dataType, value, arrayType: VariantArrayType.Scalar });
        set("Size", DataType.UInt64, [Math.floor(transfer.size / 2 ** 32), transfer.size % 2 ** 32]);
        set("Writable", DataType.Boolean, true);
        set("UserWritable", DataType.Boolean, true);
        set("OpenCount", DataType.UInt16, 1);
    }

    // The handle belongs to the session that generated it.
    owned(transfer, handle, context) {
        return this.transfers.get(handle) === transfer && transfer.session === context.session;
    }

    write(transfer, args, context) {
        const [handle, data] = args.map((arg) => arg.value);
        if (!this.owned(transfer, handle, context)) {
            return { statusCode: StatusCodes.BadInvalidArgument };
        }
        const bytes = data ?? Buffer.alloc(0);
        if (transfer.size + bytes.length > this.maxPackageSize) {
            return { statusCode: StatusCodes.BadRequestTooLarge };
        }
        transfer.chunks.push(Buffer.from(bytes));
        transfer.size += bytes.length;
        this.setFileProperties(transfer);
        return { statusCode: StatusCodes.Good };
    }

    close(transfer, handle, context) {
        if (!this.owned(transfer, handle, context)) {
            return { statusCode: StatusCodes.BadInvalidArgument };
        }
        this.discard(transfer);
        return { statusCode: StatusCodes.Good };
    }

    async closeAndCommit(handle, context) {
        const transfer = this.transfers.get(handle);
        if (!transfer || transfer.session !== context.session) {
            return { statusCode: StatusCodes.BadInvalidArgument };
        }
        this.discard(transfer);
        if (transfer.size === 0) {
            return { statusCode: StatusCodes.BadInvalidArgument };
        }
        const answer = await this.client.stage(this.componentName, Buffer.concat(transfer.chunks));
        this.errorMessage.setValueFromSource({ dataType: DataType.LocalizedText, value: { text: answer.status === 0 ? "" : answer.result?.message ?? answer.error ?? "" } });
        return methodResult(answer.status, [new Variant({ dataType: DataType.NodeId, value: NodeId.nullNodeId })]);
    }

    discard(transfer) {
        if (this.transfers.delete(transfer.handle)) {
            this.namespace.deleteNode(transfer.file);
        }
    }

    dispose() {
        for (const transfer of [...this.transfers.values()]) {
            this.discard(transfer);
        }
    }
}

module.exports = { PackageTransfer };
