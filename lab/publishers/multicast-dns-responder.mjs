#!/usr/bin/env node
// SPDX-License-Identifier: MIT
//
// Publishes services by a small responder of its own on npm's multicast-dns, steered by JSON lines
// (see ../README.md).

import multicastDns from 'multicast-dns';
import { BlockList } from 'node:net';
import { networkInterfaces } from 'node:os';

import { control, RequestError, requireLab, ServiceTable, txtEntries } from './publisherControl.mjs';

const hostTtl = 120;
const otherTtl = 4500;
const repeatAfterMilliseconds = 1000;

requireLab();
const services = new ServiceTable();
const links = Object.values(networkInterfaces()).flat()
    .filter(address => address.family === 'IPv4' && !address.internal)
    .map(openLink);

await control('multicast-dns', {
    async publish(request) {
        for (const service of services.add(request.services, refuseDots))
            await announce(service);
    },

    async 'set-txt'(request) {
        const service = services.find(request.service);
        service.txt = txtEntries(request.txt);
        await announce(service);
    },

    async 'add-address'(request) {
        await announce(services.changeAddresses(request, true).service);
    },

    async 'remove-address'(request) {
        const { service, address } = services.changeAddresses(request, false);
        // Without the cache-flush bit, so that it speaks of this one address and not of the others.
        await respond({ answers: [{ name: service.host, type: 'A', ttl: 0, data: address }] });
    },

    async goodbye(request) {
        for (const service of services.remove(request)) {
            const keepsHost = services.onHostOf(service).length > 0;
            const leaving = records(service).filter(record => record.type !== 'A' || !keepsHost);
            await respond({ answers: leaving.map(record => ({ ...record, ttl: 0 })) });
        }
    },

    vanish(request) {
        services.remove(request);
    },
});

function openLink({ address, cidr }) {
    const subnet = new BlockList();
    subnet.addSubnet(address, Number(cidr.split('/')[1]), 'ipv4');
    const socket = multicastDns({ interface: address, bind: '0.0.0.0' });
    socket.on('query', (query, source) => {
        // The sockets of all links hear every link.
        if (subnet.check(source.address))
            answer(socket, query);
    });
    return socket;
}

function answer(socket, query) {
    const isKnown = record => record.type === 'PTR' && query.answers.some(
        known => known.type === 'PTR' && sameName(known.name, record.name) && sameName(known.data, record.data));
    for (const service of services.all) {
        const own = records(service);
        const answers = own.filter(record => query.questions.some(question => asksFor(question, record))
            && !isKnown(record));
        if (answers.length > 0)
            socket.respond({ answers, additionals: own.filter(record => !answers.includes(record)) });
    }
}

function asksFor(question, record) {
    return sameName(question.name, record.name) && [record.type, 'ANY'].includes(question.type);
}

function records(service) {
    const type = `${service.type}.local`;
    const instance = `${service.name}.${type}`;
    const strings = service.txt.map(entry => entry.string);
    return [
        { name: type, type: 'PTR', ttl: otherTtl, data: instance },
        { name: instance, type: 'SRV', ttl: hostTtl, flush: true, data: { port: service.port, target: service.host } },
        // A TXT record without any string does not exist: what comes nearest is one empty string.
        { name: instance, type: 'TXT', ttl: otherTtl, flush: true, data: strings.length ? strings : [Buffer.alloc(0)] },
        ...service.addresses.map(data => ({ name: service.host, type: 'A', ttl: hostTtl, flush: true, data })),
    ];
}

async function announce(service) {
    await respond({ answers: records(service) });
    setTimeout(() => {
        if (services.all.includes(service))
            respond({ answers: records(service) });
    }, repeatAfterMilliseconds).unref();
}

function respond(packet) {
    return Promise.all(links.map(link => new Promise((resolve, reject) => {
        link.respond(packet, error => error ? reject(error) : resolve());
    })));
}

function refuseDots({ name }) {
    // The package takes names as text and splits them at every dot.
    if (name.includes('.'))
        throw new RequestError(`multicast-dns cannot write the dot in the instance name '${name}'`);
}

function sameName(one, other) {
    return one.toLowerCase() === other.toLowerCase();
}
