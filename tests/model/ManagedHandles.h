// SPDX-License-Identifier: MIT
#pragma once

#include "support/AvahiStandIn.h"

#include <string>
#include <vector>

/** Whether @p text, a handle or a call, begins with @p kind ("resolver"). */
bool isOfKind(const std::string& text, const std::string& kind);

/** 3 of "resolver3". */
int numberOf(const std::string& handle);

/** Those of one kind, in order of creation. */
std::vector<std::string> liveOf(const AvahiStandIn& avahi, const std::string& kind);
