#!/usr/bin/env node
// SPDX-License-Identifier: MIT
//
// Publishes services by npm's bonjour-service, steered by JSON lines (see ../README.md). It is here for what it
// does to others: every byte from 80 up in a TXT value leaves it as EF BF BD.

import { Bonjour } from 'bonjour-service';

import { control, RequestError, requireLab, ServiceTable, txtEntries } from './publisherControl.mjs';

requireLab();
const services = new ServiceTable();
const published = new Map();
const bonjour = new Bonjour();

await control('bonjour-service', {
    async publish(request) {
        for (const service of services.add(request.services, refuseUnsupported))
            await start(service, publicationOf(service));
    },

    // The package has no call for a changed text: a device that uses it withdraws its service and publishes anew.
    async 'set-txt'(request) {
        const service = services.find(request.service);
        const txt = txtEntries(request.txt);
        refuseUnsupported({ addresses: [], txt });
        await stop(service);
        service.txt = txt;
        await start(service, publicationOf(service));
    },

    async goodbye(request) {
        for (const service of services.remove(request))
            await stop(service);
    },
});

function publicationOf({ name, type, host, port, txt }) {
    const [, shortType, protocol] = type.match(/^_(.*)\._(.*)$/);
    return { name, type: shortType, protocol, host, port, txt: txtObject(txt), disableIPv6: true, probe: false };
}

function txtObject(entries) {
    return Object.fromEntries(entries.map(({ key, value }) => [key, value]));
}

function refuseUnsupported({ addresses, txt }) {
    if (addresses.length > 0)
        throw new RequestError('bonjour-service publishes the addresses of the interfaces: leave "addresses" out');
    if (txt.some(entry => entry.value === undefined))
        throw new RequestError('bonjour-service only has TXT strings of a key and a value');
}

function start(service, publication) {
    const running = bonjour.publish(publication);
    published.set(service.identifier, running);
    return new Promise(resolve => running.once('up', resolve));
}

function stop(service) {
    const running = published.get(service.identifier);
    published.delete(service.identifier);
    return new Promise(resolve => running.stop(resolve));
}
