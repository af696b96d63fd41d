// The version record that other code in the process reads.
#include "veltranePgFdwVersion.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <iterator>

TEST(Version, IsWrittenOutInFourLengths)
{
    const VeltranePgFdw3_0::Version version;
    for (const bool flag : {false, true}) {
        EXPECT_STREQ(version.GetDescStringMajorMinor(flag), "3.2");
        EXPECT_STREQ(version.GetDescStringMajorMinorRelease(flag), "3.2.13");
        EXPECT_STREQ(version.GetDescStringMajorMinorReleaseRevision(flag), "3.2.13.166");
    }
    EXPECT_STREQ(version.GetDescStringMajorMinorReleaseRevisionDate(), "3.2.13.166 2022-7");
    const int numbers[] = {version.GetMajor(),    version.GetMinor(), version.GetRelease(),
                           version.GetRevision(), version.GetYear(),  version.GetMonth()};
    const int expected[] = {3, 2, 13, 166, 2022, 7};
    EXPECT_TRUE(std::equal(std::begin(numbers), std::end(numbers), expected));
}
