// SPDX-License-Identifier: MIT
#pragma once

#include "support/DiscoveryFixture.h"

#include <string>

// What is logged and called.

inline const std::string PREFIX = "[1] AvahiServiceDiscovery::";
inline const std::string NO_GROUP = PREFIX + "RegisterService () -> could not register entry group!";
inline const std::string GROUP_RESET = PREFIX + "TerminateRegistration () -> performed entry group reset";

// The list as Avahi gets it: what was added last stands first.
inline const std::string PLAIN_TXT
    = "[SAVE.vandrel.com=F MASK.vandrel.com=\\x00\\x00\\x00\\x00 "
      "NEWIP.vandrel.com=\\x00\\x00\\x00\\x00 PWD.vandrel.com= USER.vandrel.com= "
      "ZEPH.vandrel.com=\\x00\\x00\\x00]";

inline std::string registering(const std::string& name, const std::string& type = "_reconf._tcp")
{
    return PREFIX + "RegisterService() -> registering service " + name + " type: " + type;
}

inline std::string adding(const std::string& group, const std::string& txt = PLAIN_TXT, const std::string& name = "Setup")
{
    return "entry_group_add_service_strlst(" + group + ", -1, -1, 320, \"" + name
           + "\", \"_reconf._tcp\", null, null, 80, " + txt + ")";
}

inline std::string failedToAdd(const std::string& name, const std::string& type, int error)
{
    return PREFIX + "RegisterService() -> failed to register service" + name + " type: " + type
           + " errorcode: " + std::to_string(error);
}

inline std::string failedUpdate(int error)
{
    return PREFIX + "UpdateTxtRecord () -> could not update text record; errorcode: " + std::to_string(error);
}

/** The published strings in their order of addition, which is that of the wire. */
inline Lines stringsOf(AvahiStringList* list)
{
    Lines strings;
    for (; list; list = avahi_string_list_get_next(list)) {
        strings.insert(strings.begin(),
                       std::string(reinterpret_cast<const char*>(avahi_string_list_get_text(list)),
                                   avahi_string_list_get_size(list)));
    }
    return strings;
}

class RegistrationTest : public DiscoveryTest
{
protected:
    bool registerService(const char* name = "Setup", const char* type = "_reconf._tcp")
    {
        return discovery().RegisterService(name, type, info);
    }

    void startRegistered()
    {
        startBrowsing();
        ASSERT_TRUE(registerService());
        forgetAll();
    }

    vd::SReconfigInfo info = vd::SReconfigInfo();
};
