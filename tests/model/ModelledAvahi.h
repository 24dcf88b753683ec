// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

/** Which Avahi objects there are, and what the calls that make and free them look like in the stand-in's words. */
class ModelledAvahi
{
public:
    enum Kind { Client, Browser, Resolver, RecordBrowser, Group, KindCount };

    /** The calls of the running step. */
    std::vector<std::string> calls;
    /** What avahi_client_errno() answers. */
    int error = 0;

    void failNext(const std::string& function, int code) { m_failures[function] = code; }

    /** Whether @p function is to fail; sets the error if so. */
    bool isToFail(const std::string& function);

    /**
     * Notes a call that makes an object of @p kind; its number, 0 when the call fails. Its first argument is the
     * client, but for clients.
     */
    int make(Kind kind, int client, const std::string& function, const std::string& arguments);

    /** Notes a call that frees an object. */
    void release(Kind kind, int number, const std::string& function);

    /** The object goes, and nothing is called for it. */
    void forget(Kind kind, int number);

    /** Frees the client, and with it all that was made from it. */
    void releaseClient(int number);

    int clientErrno(int client);

    bool isLive(Kind kind, int number) const;

    /** The object of @p kind that @p choice stands for, in order of creation; 0 when there is none. */
    int choose(Kind kind, std::size_t choice) const;

    static std::string nameOf(Kind kind, int number);

private:
    struct Object
    {
        int number;
        int client;
    };

    std::vector<Object> m_live[KindCount];
    int m_last[KindCount] = {};
    std::map<std::string, int> m_failures;
};
