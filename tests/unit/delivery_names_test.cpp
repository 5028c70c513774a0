#include "platform_linux/delivery_names.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

using testing::ElementsAre;
using testing::IsEmpty;
using zol::cfg::deliveryNames;

const std::vector<std::string> subscribed{
    "MoatKeeper",        "MoatKeeperInputPolicy",   "MoatKeeperForwardingPolicy",
    "MoatKeeperRuleset", "MoatKeeperBridgeFilters", "MoatKeeperBridgeFilterRules"};

TEST(DeliveryNamesTest, EachTableInTheOrderOfTheSubscription)
{
    EXPECT_THAT(deliveryNames(subscribed, {}), IsEmpty());
    EXPECT_THAT(deliveryNames(subscribed, {"MoatKeeperRuleset"}), ElementsAre("MoatKeeperRuleset"));
    EXPECT_THAT(deliveryNames(subscribed, {"MoatKeeperRuleset", "MoatKeeper", "MoatKeeperForwardingPolicy"}),
                ElementsAre("MoatKeeper", "MoatKeeperForwardingPolicy", "MoatKeeperRuleset"));
}

TEST(DeliveryNamesTest, TheTablesOfTheFiltersAreReadOnce)
{
    EXPECT_THAT(deliveryNames(subscribed, {"MoatKeeperBridgeFilters"}), ElementsAre("MoatKeeperBridgeFilters"));
    EXPECT_THAT(deliveryNames(subscribed, {"MoatKeeperBridgeFilterRules"}), ElementsAre("MoatKeeperBridgeFilterRules"));
    EXPECT_THAT(deliveryNames(subscribed, {subscribed.begin(), subscribed.end()}),
                ElementsAre("MoatKeeper", "MoatKeeperInputPolicy", "MoatKeeperForwardingPolicy", "MoatKeeperRuleset",
                            "MoatKeeperBridgeFilters"));
}

} // namespace
