#include "platform/cstring.h"
#include "tests/support/alloc_fault.h"

#include <gtest/gtest.h>

#include <cstring>
#include <type_traits>

namespace {

static_assert(sizeof(CString) == sizeof(void *));
static_assert(std::is_nothrow_move_constructible_v<CString>);

// Whether the change raises, without memory, the exception for that.
template <class Change>
bool RaisesMemory(Change change)
{
    CAllocFault const fault(1);
    try {
        change();
    } catch (CMemoryException const &) {
        return true;
    }
    return false;
}

} // namespace

TEST(CStringTest, NullAndMovedFromReadEmpty)
{
    CString str("text");
    EXPECT_FALSE(RaisesMemory([&] { str = static_cast<char const *>(nullptr); }));
    EXPECT_TRUE(str.IsEmpty());
    EXPECT_STREQ(str, "");
    CString strMoved("text");
    EXPECT_STREQ(CString(std::move(strMoved)), "text");
    EXPECT_STREQ(static_cast<char const *>(strMoved), "");
    EXPECT_EQ(CString(), CString(static_cast<char const *>(nullptr)));
}

TEST(CStringTest, ATextMayBeAssignedAndAppendedToItself)
{
    CString str("abc");
    CString const &same = str;
    CString const copy(str);
    str = same;
    EXPECT_STREQ(str, "abc");
    str = std::strchr(same, 'b'); // a part of its own text
    EXPECT_STREQ(str, "bc");
    str += same;
    EXPECT_STREQ(str, "bcbc");
    str += std::strrchr(same, 'c');
    str += 'd';
    str += '\0';
    EXPECT_STREQ(str, "bcbccd");
    EXPECT_EQ(str.GetLength(), 6);
    EXPECT_TRUE(copy == "abc"); // a copy is independent of its source
    EXPECT_FALSE(copy == str);
}

TEST(CStringTest, NoMemoryRaisesAndLeavesTheTarget)
{
    CString const other("other");
    CString str("kept");
    EXPECT_TRUE(RaisesMemory([&] { str = other; }));
    EXPECT_TRUE(RaisesMemory([&] { str += "more"; }));
    EXPECT_TRUE(RaisesMemory([&] { str += other; }));
    EXPECT_TRUE(RaisesMemory([&] { CString const copy(other); }));
    EXPECT_STREQ(str, "kept");
}
