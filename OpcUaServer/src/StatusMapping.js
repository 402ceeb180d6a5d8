"use strict";
// The module's status codes are OPC UA's own numbers: they pass to the client unchanged. Method
// handlers are bound through one helper.
const { getStatusCodeFromCode, StatusCodes } = require("node-opcua");

function makeStatusCode(code) {
    return code === 0 ? StatusCodes.Good : getStatusCodeFromCode(code >>> 0);
}

function methodResult(code, outputArguments = []) {
    return code === 0 ? { statusCode: StatusCodes.Good, outputArguments } : { statusCode: makeStatusCode(code) };
}

// Binds a handler (sync or async, returning a call result) to a method node.
function bindMethod(method, handler) {
    method.bindMethod(async (inputArguments, context) => handler(inputArguments, context));
    return method;
}

module.exports = { bindMethod, makeStatusCode, methodResult };
