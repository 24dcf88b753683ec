// SPDX-License-Identifier: MIT
#pragma once

#include <vd/ServiceDiscovery.h>

#include <QtCore/QList>
#include <QtCore/QMap>
#include <QtCore/QPair>
#include <QtCore/QString>

#include <cstddef>
#include <string>
#include <vector>

typedef QMap<QString, vd::SServiceInfo> Table;
typedef QList<QPair<QString, QString>> Queue;

/** A signal, and how things stood when it was emitted. */
struct Signal
{
    const char* kind;
    vd::SServiceInfo record;
    Table table;
    Queue queue;
    /** How much of the step was logged and called before. */
    std::size_t logLines;
    std::size_t calls;
};

/** What happens in one step. */
struct Observation
{
    /** Each begins with its level in brackets. */
    std::vector<std::string> log;
    std::vector<std::string> calls;
    std::vector<Signal> signalled;
    /** What the operations returned, in the order in which they returned. */
    std::vector<bool> results;

    void clear()
    {
        log.clear();
        calls.clear();
        signalled.clear();
        results.clear();
    }
};

/** What lasts from step to step. */
struct State
{
    Table services;
    Queue recordQueue;
    bool isBrowsing = false;
    bool isRegistered = false;
    std::size_t browsers = 0;
    bool hasClient = false;
    bool isTicking = false;
    int interval = 0;
    bool holdsResolver = false;
    bool holdsRecordBrowser = false;
    std::string registeredName;
    std::string registeredType;
    /** The published strings, in the order of their list. */
    std::vector<std::string> txtRecord;
    /** After a record that is refused, nothing is promised about the stored one. */
    bool isTxtRecordTold = true;
};

bool isEqual(const vd::SServiceInfo& left, const vd::SServiceInfo& right);
bool isEqual(const Table& left, const Table& right);

/** The first difference, in words; empty when there is none. */
std::string difference(const Observation& expected, const Observation& seen);
std::string difference(const State& expected, const State& seen);
