#include <stdlib.h>

#include <gtest/gtest.h>

#include "system/DeviceRoot.h"

using talvern::DeviceRoot;

TEST(DeviceRootMapping, UnsetOrEmptyRootLeavesPathsAloneAndARootIsPrefixedOnce) {
    unsetenv("QUORVIA_ROOT");
    EXPECT_EQ("/userdisk/data", DeviceRoot::sPath("/userdisk/data"));
    setenv("QUORVIA_ROOT", "", 1);
    EXPECT_EQ("/proc/mounts", DeviceRoot::sPath("/proc/mounts"));
    setenv("QUORVIA_ROOT", "/tmp/r//", 1);
    EXPECT_EQ("/tmp/r/sbin/uci", DeviceRoot::sPath("/sbin/uci"));
}
