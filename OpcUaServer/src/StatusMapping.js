"use strict";
// The module's status codes are OPC UA's own numbers: they pass to the client unchanged. Method
// handlers are bound through one helper.
const { getStatusCodeFromCode, StatusCodes } = require("node-opcua");
const { ConnectionError } = require("./UpdateServiceClient");

function makeStatusCode(code) {
    return code === 0 ? StatusCodes.Good : getStatusCodeFromCode(code >>> 0);
}

function methodResult(code, outputArguments = []) {
    return code === 0 ? { statusCode: StatusCodes.Good, outputArguments } : { statusCode: makeStatusCode(code) };
}

// Binds a handler (sync or async, returning a call result) to a method node; an update service that
// cannot be reached answers Bad_NoCommunication.
function bindMethod(method, handler) {
    method.bindMethod(async (inputArguments, context) => {
        try {
            return await handler(inputArguments, context);
        } catch (error) {
            if (error instanceof ConnectionError) {
                return { statusCode: StatusCodes.BadNoCommunication };
            }
            throw error;
        }
    });
    return method;
}

module.exports = { bindMethod, makeStatusCode, methodResult };
