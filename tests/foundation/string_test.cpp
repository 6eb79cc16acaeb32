#include "foundation/g_string.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/guards.h"

#include <cstring>

TEST(GString, SetAndAppend_KeepTextSizeAndCountersInStep)
{
    CCountersGuard guard;
    CGString str;
    EXPECT_EQ(str.GetLength(), 0xFFFFFFFFu);
    struct {
        DWORD (CGString::*pfnStep)(char const *);
        char const *pszText;
        DWORD dwResult;
        char const *pszAfter;
    } const aSteps[] = {
        {&CGString::Append, "first", eGE_OK, "first"}, // without text it is a Set
        {&CGString::Set, "abc", eGE_OK, "abc"},
        {&CGString::Append, nullptr, eGE_NULL_ARGUMENT, "abc"},
        {&CGString::Set, nullptr, eGE_NULL_ARGUMENT, ""},
        {&CGString::Append, "xyz", eGE_OK, "xyz"},
    };
    for (auto const &step : aSteps) {
        EXPECT_EQ((str.*step.pfnStep)(step.pszText), step.dwResult);
        ASSERT_STREQ(str.m_pszText, step.pszAfter);
        EXPECT_EQ(str.GetSize(), std::strlen(step.pszAfter) + 1);
        EXPECT_EQ(g_cMemory, guard.m_cMemory + 1);
        EXPECT_EQ(g_cbMemory, guard.m_cbMemory + str.GetSize());
    }
    str.Append(str.m_pszText); // its own text as an argument
    str.Set(str.m_pszText + 4);
    EXPECT_STREQ(str.m_pszText, "yz");
    str.Alloc(8);
    std::strcpy(str.m_pszText, "in"); // in place, with room behind it
    EXPECT_EQ(str.Append(" place"), eGE_OK);
    EXPECT_STREQ(str.m_pszText, "in place");
    str.Set("yz");
    CAllocFault fault(1);
    EXPECT_EQ(str.Append("lost"), eGE_OUT_OF_MEMORY);
    EXPECT_STREQ(str.m_pszText, "yz");
}

TEST(GString, FindNoCase_PointsIntoTheCallersText)
{
    char const szText[] = "Scan To DESKTOP to";
    EXPECT_EQ(GStrFindNoCase(szText, "desk"), szText + 8);
    EXPECT_EQ(GStrFindNoCase(szText, "TO"), szText + 5);
    EXPECT_EQ(GStrFindNoCase(szText, "tops"), nullptr);
    EXPECT_EQ(GStrFindNoCase(nullptr, "x"), nullptr);
}
