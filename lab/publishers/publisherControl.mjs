// SPDX-License-Identifier: MIT
//
// The protocol that steers a publisher: one JSON object a line, each answered by one JSON line.
// ../README.md describes the commands.

import { readFileSync } from 'node:fs';
import { isIPv4 } from 'node:net';
import { basename } from 'node:path';
import { createInterface } from 'node:readline';

const maxLabel = 63;
const maxTxtString = 255;

/** A request that cannot be carried out; the publisher stays as it was. */
export class RequestError extends Error {}

/** Ends a publisher that was started elsewhere: its devices would appear on the machine's real network. */
export function requireLab() {
    if (process.env.VD_LAB_HOST)
        return;
    const program = basename(process.argv[1]);
    console.error(`${program}: run me by lab exec HOST ..., as I publish on every network that I see`);
    process.exit(2);
}

/**
 * Answers request lines one after the other until "quit" or the end of the input, then ends the process.
 * handlers[command](request) returns the further members of the answer, a promise of them, or nothing.
 */
export async function control(packageName, handlers) {
    const manifest = new URL(`node_modules/${packageName}/package.json`, import.meta.url);
    write({ event: 'ready', publisher: packageName, version: JSON.parse(readFileSync(manifest)).version });
    for await (const line of createInterface({ input: process.stdin })) {
        if (!await handleLine(line, handlers))
            break;
    }
    // At once, without the goodbyes of an orderly end.
    process.exit(0);
}

/** What a "publish" request says of one service. */
function serviceFromRequest(fields) {
    const name = text(fields, 'name');
    const type = text(fields, 'type');
    if (!/^_[A-Za-z0-9-]{1,15}\._(tcp|udp)$/.test(type))
        throw new RequestError(`'${type}' is not a service type such as _http._tcp`);
    const port = fields.port ?? 80;
    if (!Number.isInteger(port) || port < 0 || port > 65535)
        throw new RequestError(`${port} is not a port`);
    return {
        identifier: fields.service ?? name,
        name: label(name),
        type,
        host: label(text(fields, 'host').replace(/\.local$/, '')) + '.local',
        port,
        addresses: (fields.addresses ?? []).map(checkedAddress),
        txt: txtEntries(fields.txt ?? []),
    };
}

function checkedAddress(address) {
    if (!isIPv4(address))
        throw new RequestError(`'${address}' is not an IPv4 address`);
    return address;
}

/** The entries of a TXT record: { string } in bytes, and { key, value } where an entry was given as such. */
export function txtEntries(entries) {
    if (!Array.isArray(entries))
        throw new RequestError('txt is a list of objects');
    return entries.map(txtEntry);
}

/** The published services by their identifiers. */
export class ServiceTable {
    #services = new Map();

    get all() {
        return [...this.#services.values()];
    }

    /** Takes the "services" of a request, all or none; `check(service)` throws for one that cannot be published. */
    add(requested, check) {
        if (!Array.isArray(requested) || requested.length === 0)
            throw new RequestError('services is a list with at least one service');
        const services = requested.map(serviceFromRequest);
        services.forEach(check);
        const taken = new Set(this.#services.keys());
        for (const { identifier } of services) {
            if (taken.has(identifier))
                throw new RequestError(`service '${identifier}' is already published`);
            taken.add(identifier);
        }
        services.forEach(service => this.#services.set(service.identifier, service));
        return services;
    }

    find(identifier) {
        const service = this.#services.get(identifier);
        if (!service)
            throw new RequestError(`service '${identifier}' is not published`);
        return service;
    }

    /** The published services that stand on the same host, for an address belongs to the host. */
    onHostOf({ host }) {
        return this.all.filter(other => other.host.toLowerCase() === host.toLowerCase());
    }

    /** Adds or removes the "address" of a request on the host of its "service"; returns both. */
    changeAddresses(request, adds) {
        const service = this.find(request.service);
        const address = checkedAddress(request.address);
        if (service.addresses.includes(address) === adds) {
            const state = adds ? 'already has' : 'has not';
            throw new RequestError(`'${service.identifier}' ${state} the address ${address}`);
        }
        for (const other of this.onHostOf(service))
            other.addresses = other.addresses.filter(known => known !== address).concat(adds ? address : []);
        return { service, address };
    }

    /** Removes the "services" that a request names, or all; returns them. */
    remove(request) {
        const removed = request.services ? request.services.map(identifier => this.find(identifier)) : this.all;
        removed.forEach(service => this.#services.delete(service.identifier));
        return removed;
    }
}

async function handleLine(line, handlers) {
    let command = null;
    try {
        const request = JSON.parse(line);
        command = request?.command ?? null;
        if (command === 'quit') {
            write({ event: 'done', command });
            return false;
        }
        if (!Object.hasOwn(handlers, command))
            throw new RequestError(`no such command; there are ${Object.keys(handlers).join(', ')}, quit`);
        write({ event: 'done', command, ...await handlers[command](request) });
    } catch (error) {
        if (!(error instanceof RequestError || error instanceof SyntaxError))
            throw error;
        write({ event: 'error', command, message: error.message });
    }
    return true;
}

function txtEntry(entry) {
    if (entry === null || typeof entry !== 'object' || ('key' in entry) === ('raw' in entry))
        throw new RequestError('an entry of txt is {"key", "value"}, {"key", "text"}, {"key"} or {"raw"}');
    const { key } = entry;
    const value = 'value' in entry ? fromBase64(entry.value) : 'text' in entry ? Buffer.from(entry.text) : undefined;
    const string = 'raw' in entry ? fromBase64(entry.raw)
        : value === undefined ? Buffer.from(key)
        : Buffer.concat([Buffer.from(`${key}=`), value]);
    if (string.length > maxTxtString)
        throw new RequestError(`a TXT string has at most ${maxTxtString} bytes, not ${string.length}`);
    return { key, value, string };
}

function fromBase64(encoded) {
    const bytes = typeof encoded === 'string' ? Buffer.from(encoded, 'base64') : null;
    if (bytes?.toString('base64') !== encoded)
        throw new RequestError(`${JSON.stringify(encoded)} is not base64`);
    return bytes;
}

function text(fields, key) {
    if (typeof fields?.[key] !== 'string')
        throw new RequestError(`'${key}' is missing, or is not text`);
    return fields[key];
}

function label(name) {
    const length = Buffer.byteLength(name);
    if (length < 1 || length > maxLabel)
        throw new RequestError(`a name has 1 to ${maxLabel} bytes, not ${length}`);
    return name;
}

function write(answer) {
    process.stdout.write(JSON.stringify(answer) + '\n');
}
