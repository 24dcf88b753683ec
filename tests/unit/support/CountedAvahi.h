// SPDX-License-Identifier: MIT
#pragma once

#include <avahi-client/client.h>
#include <avahi-client/lookup.h>
#include <avahi-client/publish.h>

/**
 * Takes the place of libavahi-client where no memory may be had: what it needs is there from the start.
 *
 * Every call succeeds but for those that make something, on request. A browser, a resolver and an address browser are
 * told apart by their kind alone, so the events below are those of the one that was made last.
 */
namespace CountedAvahi {

// A device and its types for the tests that have no memory.
const char CAMERA[] = "Cam";
const char HOST[] = "cam.local";
const char ADDRESS[] = "10.0.0.1";
const char HTTP[] = "_http._tcp";
const char SETUP[] = "_setup._tcp";

enum Kind { Client, Browser, Resolver, RecordBrowser, Group, KINDS };

/** How many handles are open. */
int open();
int open(Kind kind);

/** How many were ever made. */
int made(Kind kind);

/** From now on nothing of @p kind can be made, as without memory; KINDS stands for none. */
void refuse(Kind kind);

/** A client that is made is told of the daemon by clientIs() only, not from inside the call that makes it. */
void tellLater();

/** How many services were handed to the daemon. */
int published();

void clientIs(AvahiClientState state);
void browsed(AvahiBrowserEvent event, const char* name);
void resolved(const char* name, const char* host, const char* address, AvahiStringList* txt);
void recordSeen(AvahiBrowserEvent event, const char* host, const char* address);
void groupIs(AvahiEntryGroupState state);

} // namespace CountedAvahi
