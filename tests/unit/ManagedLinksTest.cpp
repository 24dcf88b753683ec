// SPDX-License-Identifier: MIT
// Where a device is looked for that is seen on several interfaces, or over both protocols.
#include "support/ManagedFixture.h"

#include <avahi-common/address.h>

namespace {

const char SUBTYPE[] = "_dome._sub._http._tcp";
// "Cam" behind a zero-width no-break space.
const char MARKED[] = "\xEF\xBB\xBF"
                      "Cam";

} // namespace

class ManagedLinksTest : public ManagedTest
{
protected:
    static std::string newResolverOn(int interface, int number, int protocol = AVAHI_PROTO_INET)
    {
        return newResolver("Cam", number, HTTP, interface, protocol);
    }

    /** "Cam" seen on interfaces 2 and 3, and asked for on 2 by resolver 1. */
    void seenOnTwo()
    {
        run();
        appearsOn("Cam", 2);
        appearsOn("Cam", 3);
        turn();
        EXPECT_EQ(takeCalls().back(), newResolverOn(2, 1));
    }

    void seenOverIpv6()
    {
        run();
        appearsOn("Cam", 2, AVAHI_PROTO_INET6);
        takeCalls();
    }

    /** The device answers @p resolver, and its host @p addressBrowser. */
    void answer(int resolver, int addressBrowser)
    {
        resolved(resolver, "Cam", "cam.local", "10.0.0.1", cameraTxt);
        onlyAnswerIs(addressBrowser, "10.0.0.1");
        takeCalls();
    }

    /** What is called when @p resolver got no answer, which changes nothing of what is known. */
    Lines callsAfterTimeoutOf(int resolver)
    {
        const Lines before = table();
        takeSignals();
        resolveFails(resolver, "Cam", AVAHI_ERR_TIMEOUT);
        takeCalls();
        turn();
        EXPECT_EQ(takeSignals(), Lines());
        EXPECT_EQ(table(), before);
        return takeCalls();
    }
};

TEST_F(ManagedLinksTest, DeviceIsAskedOverIpv4WhereBothProtocolsShowIt)
{
    run();
    appearsOn("Cam", 2, AVAHI_PROTO_INET6);
    appearsOn("Cam", 2, AVAHI_PROTO_INET);
    takeCalls();
    turn();
    EXPECT_EQ(takeCalls(), Lines{newResolverOn(2, 1)});
}

TEST_F(ManagedLinksTest, DeviceIsAskedOverIpv6WhereOnlyThatShowsIt)
{
    seenOverIpv6();
    turn();
    EXPECT_EQ(takeCalls(), Lines{newResolverOn(2, 1, AVAHI_PROTO_INET6)});
}

TEST_F(ManagedLinksTest, Ipv4TakesThePlaceOfIpv6ThatHasNotAnswered)
{
    seenOverIpv6();
    turn();
    takeCalls();
    appearsOn("Cam", 2, AVAHI_PROTO_INET);
    turn();
    EXPECT_EQ(takeCalls(), (Lines{"service_resolver_free(resolver1)", newResolverOn(2, 2)}));
}

TEST_F(ManagedLinksTest, Ipv4IsNotAskedWhenIpv6HasAnswered)
{
    seenOverIpv6();
    turn();
    answer(1, 1);
    appearsOn("Cam", 2, AVAHI_PROTO_INET);
    turn();
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(ManagedLinksTest, Ipv4ThatComesBackIsAskedThoughIpv6Stayed)
{
    run();
    appearsOn("Cam", 2, AVAHI_PROTO_INET);
    appearsOn("Cam", 2, AVAHI_PROTO_INET6);
    turn();
    answer(1, 1);
    disappearsOn("Cam", 2, AVAHI_PROTO_INET);
    turn();
    takeCalls();
    appearsOn("Cam", 2, AVAHI_PROTO_INET);
    turn();
    EXPECT_EQ(takeCalls(), Lines{newResolverOn(2, 2)});
    answer(2, 2);
    appearsOn("Cam", 2, AVAHI_PROTO_INET);
    turn();
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(ManagedLinksTest, KeptQueryThatIpv6AnswersStaysThere)
{
    seenOverIpv6();
    discovery().StartQueryRecords("Cam", HTTP, true);
    turn();
    answer(1, 1);
    appearsOn("Cam", 2, AVAHI_PROTO_INET);
    turn();
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(ManagedLinksTest, LinkThatTwoBrowsersShowIsAskedOnce)
{
    run();
    discovery().BrowseServices(SUBTYPE);
    appearsOn("Cam", 2, AVAHI_PROTO_INET6);
    turn();
    takeCalls();
    appearsOn("Cam", 2, AVAHI_PROTO_INET6, HTTP, 2);
    turn();
    EXPECT_EQ(callsAfterTimeoutOf(1), Lines());
}

TEST_F(ManagedLinksTest, Ipv6OfAnInterfaceIsNotAskedBesideItsIpv4)
{
    run();
    appearsOn("Cam", 2, AVAHI_PROTO_INET);
    turn();
    takeCalls();
    appearsOn("Cam", 2, AVAHI_PROTO_INET6);
    turn();
    EXPECT_EQ(callsAfterTimeoutOf(1), Lines());
    turn(300);
    EXPECT_EQ(takeCalls(), Lines());
}

TEST_F(ManagedLinksTest, OtherInterfaceIsAskedWhenOneDoesNotAnswer)
{
    seenOnTwo();
    EXPECT_EQ(callsAfterTimeoutOf(1), (Lines{"service_resolver_free(resolver1)", newResolverOn(3, 2)}));
}

TEST_F(ManagedLinksTest, DeviceIsFoundWhereItAnswersAndKeepsWhatItToldThere)
{
    AvahiAddress address = AvahiAddress();
    avahi_address_parse("10.0.0.1", AVAHI_PROTO_INET, &address);
    seenOnTwo();
    callsAfterTimeoutOf(1);
    avahi.fireResolve(avahi.resolver(2), AVAHI_RESOLVER_FOUND, 3, AVAHI_PROTO_INET, "Cam", HTTP, "local", "cam.local",
                      &address, 80, cameraTxt);
    const std::string record = "serviceType='_http._tcp' interfaceIndex=3 deviceKind=1 serviceName='Cam' "
                               "hostName='cam.local' recordHostName='cam.local' addresses=[10.0.0.1] "
                               + known;
    EXPECT_EQ(takeSignals(), Lines{"found " + record});
    disappearsOn("Cam", 2);
    EXPECT_EQ(takeSignals(), Lines());
    EXPECT_EQ(table(), Lines{"\"Cam\": " + record});
    disappearsOn("Cam", 3);
    EXPECT_EQ(takeSignals(), Lines{"lost " + record});
}

TEST_F(ManagedLinksTest, InterfacesThatDoNotAnswerAreAskedAgainAfterAWhile)
{
    seenOnTwo();
    callsAfterTimeoutOf(1);
    callsAfterTimeoutOf(2);
    turn(4000);
    EXPECT_EQ(takeCalls(), Lines());
    turn(1600);
    EXPECT_EQ(takeCalls(), (Lines{"service_resolver_free(resolver2)", newResolverOn(2, 3)}));
}

TEST_F(ManagedLinksTest, InterfaceThatAppearsLetsAllBeAskedWithoutAPause)
{
    seenOnTwo();
    callsAfterTimeoutOf(1);
    callsAfterTimeoutOf(2);
    appearsOn("Cam", 4);
    turn();
    EXPECT_EQ(takeCalls(), (Lines{"service_resolver_free(resolver2)", newResolverOn(2, 3)}));
    EXPECT_EQ(callsAfterTimeoutOf(3), (Lines{"service_resolver_free(resolver3)", newResolverOn(3, 4)}));
    EXPECT_EQ(callsAfterTimeoutOf(4), (Lines{"service_resolver_free(resolver4)", newResolverOn(4, 5)}));
}

TEST_F(ManagedLinksTest, InterfaceThatAnsweredIsAskedFirstAndTheOtherAtOnce)
{
    seenOnTwo();
    callsAfterTimeoutOf(1);
    answer(2, 1);
    discovery().StartQueryRecords("Cam", HTTP, false);
    turn();
    EXPECT_EQ(takeCalls(), Lines{newResolverOn(3, 3)});
    EXPECT_EQ(callsAfterTimeoutOf(3), (Lines{"service_resolver_free(resolver3)", newResolverOn(2, 4)}));
}

TEST_F(ManagedLinksTest, WhoeverAsksAgainBeforeAnAnswerAsksTheOtherInterface)
{
    seenOnTwo();
    discovery().StartQueryRecords("Cam", HTTP, false);
    turn();
    EXPECT_EQ(takeCalls(), (Lines{"service_resolver_free(resolver1)", newResolverOn(3, 2)}));
    discovery().StartQueryRecords("Cam", HTTP, false);
    turn();
    EXPECT_EQ(takeCalls(), (Lines{"service_resolver_free(resolver2)", newResolverOn(2, 3)}));
}

TEST_F(ManagedLinksTest, KeptQueryGoesOnElsewhereWhenItsLinkShowsTheDeviceNoMore)
{
    run();
    appearsOn("Cam", 2, AVAHI_PROTO_INET);
    appearsOn("Cam", 2, AVAHI_PROTO_INET6);
    discovery().StartQueryRecords("Cam", HTTP, true);
    turn();
    answer(1, 1);
    disappearsOn("Cam", 2, AVAHI_PROTO_INET);
    turn();
    EXPECT_EQ(takeCalls(), (Lines{"service_resolver_free(resolver1)", newResolverOn(2, 2, AVAHI_PROTO_INET6)}));
}

TEST_F(ManagedLinksTest, KeptQueryGoesOnElsewhereWhenItsLinkAnswersNoMore)
{
    seenOnTwo();
    discovery().StartQueryRecords("Cam", HTTP, true);
    turn();
    answer(2, 1);
    EXPECT_EQ(callsAfterTimeoutOf(2), (Lines{"service_resolver_free(resolver2)", newResolverOn(2, 3)}));
}

TEST_F(ManagedLinksTest, KeptQueryOnTheOnlyLinkStaysOpenWithoutAnAnswer)
{
    run();
    appears("Cam");
    discovery().StartQueryRecords("Cam", HTTP, true);
    turn();
    answer(1, 1);
    EXPECT_EQ(callsAfterTimeoutOf(1), Lines());
}

TEST_F(ManagedLinksTest, KeptQueryAsksTheInterfaceAgainThatAnswered)
{
    seenOnTwo();
    answer(1, 1);
    discovery().StartQueryRecords("Cam", HTTP, true);
    turn();
    answer(2, 2);
    discovery().StartQueryRecords("Cam", HTTP, false);
    turn();
    EXPECT_EQ(takeCalls(), (Lines{"service_resolver_free(resolver2)", newResolverOn(2, 3)}));
}

TEST_F(ManagedLinksTest, WhoGivesWayToOthersAsksTheOtherInterfaceNext)
{
    discovery().setObjectLimit(8);
    seenOnTwo();
    for (int i = 0; i < 8; ++i)
        appears(camName(i).c_str());
    turn(3000);
    EXPECT_EQ(count(takeCalls(), resolverCall(1, 3, AVAHI_PROTO_INET, "Cam", HTTP)), 1);
}

TEST_F(ManagedLinksTest, DeviceStaysWhenItsSubtypeGoes)
{
    run();
    discovery().BrowseServices(SUBTYPE);
    found();
    appearsOn("Cam", 2, AVAHI_PROTO_INET, HTTP, 2);
    turn();
    disappearsOn("Cam", 2, AVAHI_PROTO_INET, HTTP, 2);
    EXPECT_EQ(takeSignals(), Lines());
    disappearsOn("Cam", 2);
    EXPECT_EQ(takeSignals().size(), 1u);
}

TEST_F(ManagedLinksTest, NameBehindAByteOrderMarkIsAskedForWhole)
{
    run();
    takeCalls();
    appears(MARKED);
    turn();
    EXPECT_EQ(takeCalls(), Lines{newResolver(MARKED, 1)});
    discovery().StartQueryRecords(MARKED, HTTP, false);
    turn();
    EXPECT_EQ(takeCalls(), (Lines{"service_resolver_free(resolver1)", newResolver(MARKED, 2)}));
}

TEST_F(ManagedLinksTest, NameBehindAByteOrderMarkIsNotThatWithoutIt)
{
    run();
    found();
    appears(MARKED);
    turn();
    disappears(MARKED);
    EXPECT_EQ(takeSignals(), Lines());
}
