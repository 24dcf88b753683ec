// SPDX-License-Identifier: MIT
#include "model/ManagedHandles.h"

#include <algorithm>

bool isOfKind(const std::string& text, const std::string& kind)
{
    return text.rfind(kind, 0) == 0;
}

int numberOf(const std::string& handle)
{
    return std::stoi(handle.substr(handle.find_first_of("0123456789")));
}

std::vector<std::string> liveOf(const AvahiStandIn& avahi, const std::string& kind)
{
    std::vector<std::string> handles = avahi.liveHandles();
    handles.erase(std::remove_if(handles.begin(), handles.end(),
                                 [&](const std::string& handle) { return !isOfKind(handle, kind); }),
                  handles.end());
    return handles;
}
