"use strict";
// The server's users: names with scrypt-hashed passwords and role names, kept in a JSON file
// ({"users":[{"name","password","roles"}]}). Passwords are never stored or logged in clear.
const crypto = require("node:crypto");
const fs = require("node:fs");
const { promisify } = require("node:util");
const { WellKnownRoles, makeRoles } = require("node-opcua");

const scrypt = promisify(crypto.scrypt);
const Scheme = "scrypt";
const Cost = { N: 16384, r: 8, p: 1 };
const KeyLength = 32;
const RoleNames = ["Observer", "Operator", "Engineer", "Supervisor", "ConfigureAdmin", "SecurityAdmin"];

async function hashPassword(password, salt = crypto.randomBytes(16)) {
    const key = await scrypt(password, salt, KeyLength, Cost);
    return [Scheme, Cost.N, Cost.r, Cost.p, salt.toString("base64"), key.toString("base64")].join("$");
}

async function verifyPassword(password, stored) {
    const parts = String(stored).split("$");
    if (parts.length !== 6 || parts[0] !== Scheme) {
        return false;
    }
    const [, N, r, p, salt, hash] = parts;
    const expected = Buffer.from(hash, "base64");
    const key = await scrypt(password, Buffer.from(salt, "base64"), expected.length, { N: +N, r: +r, p: +p });
    return expected.length > 0 && crypto.timingSafeEqual(key, expected);
}

function checkRoles(roles, where) {
    if (!Array.isArray(roles) || roles.some((role) => !RoleNames.includes(role))) {
        throw new Error(`${where}: roles must be a list of ${RoleNames.join(", ")}`);
    }
}

function readUsersFile(file) {
    if (!fs.existsSync(file)) {
        return [];
    }
    const content = JSON.parse(fs.readFileSync(file, "utf8"));
    const users = content.users;
    if (!Array.isArray(users)) {
        throw new Error(`${file}: expected {"users": [...]}`);
    }
    for (const user of users) {
        if (typeof user.name !== "string" || user.name === "" || user.name === "anonymous") {
            throw new Error(`${file}: every user needs a name other than "anonymous"`);
        }
        checkRoles(user.roles, `${file}: user "${user.name}"`);
    }
    return users;
}

class Users {
    constructor(file) {
        this.byName = new Map(readUsersFile(file).map((user) => [user.name, user]));
    }

    // For node-opcua's user manager: a name and password pair is valid when the stored hash matches.
    async isValidUser(name, password) {
        const user = this.byName.get(name);
        return !!user && typeof user.password === "string" && (await verifyPassword(password, user.password));
    }

    // Roles of a user who logged in with a password or with a trusted X.509 certificate whose common
    // name is the user's name.
    getUserRoles(name) {
        const user = this.byName.get(name);
        return makeRoles(user ? user.roles.map((role) => WellKnownRoles[role]) : []);
    }

    get size() {
        return this.byName.size;
    }
}

// Adds or replaces one user in the file (written with mode 0600 by a rename).
async function setUser(file, name, password, roles) {
    checkRoles(roles, "roles");
    if (!name || name === "anonymous") {
        throw new Error("a user needs a name other than \"anonymous\"");
    }
    if (!password) {
        throw new Error("a user needs a password");
    }
    const users = readUsersFile(file).filter((user) => user.name !== name);
    users.push({ name, password: await hashPassword(password), roles });
    const temporary = `${file}.tmp`;
    fs.writeFileSync(temporary, JSON.stringify({ users }, null, 2) + "\n", { mode: 0o600 });
    fs.renameSync(temporary, file);
}

module.exports = { Users, setUser, hashPassword, verifyPassword, RoleNames };
