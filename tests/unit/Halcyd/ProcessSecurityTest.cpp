#include "Halcyd/ProcessSecurity.h"

#include <gtest/gtest.h>

TEST(ProcessSecurity, DescriptorIsAbsoluteWithOwnerAndGroupAndWithoutAccessLists)
{
    ProcessSecurity security;
    ASSERT_EQ(security.Result(), ERROR_SUCCESS);
    ASSERT_TRUE(IsValidSecurityDescriptor(security.Descriptor()));

    SECURITY_DESCRIPTOR_CONTROL control = 0;
    DWORD revision = 0;
    ASSERT_TRUE(GetSecurityDescriptorControl(security.Descriptor(), &control, &revision));
    EXPECT_EQ(revision, SECURITY_DESCRIPTOR_REVISION);
    EXPECT_EQ(
        control & (SE_SELF_RELATIVE | SE_DACL_PRESENT | SE_SACL_PRESENT | SE_OWNER_DEFAULTED | SE_GROUP_DEFAULTED), 0);

    PSID owner = nullptr;
    PSID group = nullptr;
    BOOL defaulted = TRUE;
    ASSERT_TRUE(GetSecurityDescriptorOwner(security.Descriptor(), &owner, &defaulted));
    EXPECT_TRUE(owner != nullptr && IsValidSid(owner));
    EXPECT_FALSE(defaulted);
    ASSERT_TRUE(GetSecurityDescriptorGroup(security.Descriptor(), &group, &defaulted));
    EXPECT_TRUE(group != nullptr && IsValidSid(group));
    EXPECT_FALSE(defaulted);
}
