// SPDX-License-Identifier: MIT
#include "model/ModelledAvahi.h"

#include <algorithm>
#include <utility>

bool ModelledAvahi::isToFail(const std::string& function)
{
    if (m_failures.empty())
        return false;
    const auto failure = m_failures.find(function);
    if (failure == m_failures.end())
        return false;
    error = failure->second;
    m_failures.erase(failure);
    return true;
}

int ModelledAvahi::make(Kind kind, int client, const std::string& function, const std::string& arguments)
{
    std::string call = function + '(' + (kind == Client ? "" : nameOf(Client, client)) + arguments + ") = ";
    if (isToFail(function)) {
        calls.push_back(std::move(call) + "null");
        return 0;
    }
    const int number = ++m_last[kind];
    m_live[kind].push_back({number, kind == Client ? number : client});
    calls.push_back(std::move(call) + nameOf(kind, number));
    return number;
}

void ModelledAvahi::release(Kind kind, int number, const std::string& function)
{
    calls.push_back(function + '(' + nameOf(kind, number) + ')');
    forget(kind, number);
}

void ModelledAvahi::forget(Kind kind, int number)
{
    std::vector<Object>& live = m_live[kind];
    const auto isIt = [number](const Object& object) { return object.number == number; };
    live.erase(std::remove_if(live.begin(), live.end(), isIt), live.end());
}

void ModelledAvahi::releaseClient(int number)
{
    calls.push_back("client_free(" + nameOf(Client, number) + ')');
    const auto isOfIt = [number](const Object& object) { return object.client == number; };
    for (std::vector<Object>& live : m_live)
        live.erase(std::remove_if(live.begin(), live.end(), isOfIt), live.end());
}

int ModelledAvahi::clientErrno(int client)
{
    calls.push_back("client_errno(" + nameOf(Client, client) + ')');
    return error;
}

bool ModelledAvahi::isLive(Kind kind, int number) const
{
    return std::any_of(m_live[kind].begin(), m_live[kind].end(),
                       [number](const Object& object) { return object.number == number; });
}

int ModelledAvahi::choose(Kind kind, std::size_t choice) const
{
    const std::vector<Object>& live = m_live[kind];
    // 0 is the newest, so that the plainest choice is the object that the steps before have made.
    return live.empty() ? 0 : live[live.size() - 1 - choice % live.size()].number;
}

std::string ModelledAvahi::nameOf(Kind kind, int number)
{
    static const char* const names[] = {"client", "browser", "resolver", "recordBrowser", "group"};
    return names[kind] + std::to_string(number);
}
