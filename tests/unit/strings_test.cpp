#include "DataBuffer.h"
#include "StringBuffer.h"
#include "XString.h"

#include <gtest/gtest.h>

using namespace p11client;

TEST(StringBuffer, TrimsOnlyWhiteSpaceAtBothEnds)
{
    StringBuffer sb(" \t\r\n 3B 7F \n");
    sb.trim2();
    EXPECT_STREQ(sb.getString(), "3B 7F");
    StringBuffer blank("  \n");
    blank.trim2();
    EXPECT_TRUE(blank.isEmpty());
}

TEST(StringBuffer, StripDirectoryKeepsTheFileName)
{
    StringBuffer path("/usr/lib/softhsm/libsofthsm2.so");
    path.stripDirectory();
    EXPECT_STREQ(path.getString(), "libsofthsm2.so");
    StringBuffer bare("libsofthsm2.so");
    bare.stripDirectory();
    EXPECT_STREQ(bare.getString(), "libsofthsm2.so");
    StringBuffer dir("/usr/lib/");
    dir.stripDirectory();
    EXPECT_TRUE(dir.isEmpty());
}

TEST(StringBuffer, TestsAreCaseSensitiveUnlessSaidOtherwise)
{
    StringBuffer sb("3b7f96000080318065B085");
    EXPECT_FALSE(sb.beginsWith("3B7F"));
    EXPECT_TRUE(sb.equalsIgnoreCase("3B7F96000080318065b085"));
    sb.toUpperCase();
    EXPECT_TRUE(sb.beginsWith("3B7F"));
    EXPECT_TRUE(sb.endsWith("B085"));
    EXPECT_TRUE(sb.containsSubstring("8065"));
    EXPECT_FALSE(sb.containsSubstring("8065b"));
}

TEST(StringBuffer, AppendingItsOwnTextDoublesIt)
{
    StringBuffer sb("abc");
    sb.append(sb);
    sb.append(sb.view().substr(1, 2));
    sb.prepend("x");
    EXPECT_STREQ(sb.getString(), "xabcabcbc");
    EXPECT_EQ(sb.getSize(), 9u);
}

TEST(XString, CopiesAreIndependentAndClearEmpties)
{
    XString a("1234");
    XString b;
    b.copyFromX(a);
    a.setFromUtf8("9999");
    EXPECT_TRUE(b.equalsUtf8("1234"));
    b.clear();
    EXPECT_TRUE(b.isEmpty());
    EXPECT_STREQ(b.getUtf8(), "");
}

TEST(DataBuffer, Base64DecodesAcrossLineBreaks)
{
    DataBuffer db;
    ASSERT_TRUE(db.appendEncodedById("aGVsbG8g\nd29y\r\nbGQ=", DataBuffer::kBase64));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(db.getData()), db.getSize()), "hello world");
}

TEST(DataBuffer, InvalidEncodingsAppendNothing)
{
    DataBuffer db(reinterpret_cast<const uint8_t*>("ab"), 2);
    EXPECT_FALSE(db.appendEncodedById("a*b=", DataBuffer::kBase64));
    EXPECT_FALSE(db.appendEncodedById("abc", DataBuffer::kHex));
    EXPECT_FALSE(db.appendEncodedById("zz", DataBuffer::kHex));
    EXPECT_FALSE(db.appendEncodedById("00", 99));
    EXPECT_EQ(db.getSize(), 2u);
}

TEST(DataBuffer, HexAndBase64RoundTrip)
{
    DataBuffer db;
    ASSERT_TRUE(db.appendEncodedById("00ff10Ab", DataBuffer::kHex));
    StringBuffer hex;
    db.appendHex(hex, false);
    EXPECT_STREQ(hex.getString(), "00ff10ab");
    StringBuffer b64;
    ASSERT_TRUE(db.encodeDb(DataBuffer::kBase64, b64));
    DataBuffer back;
    ASSERT_TRUE(back.appendEncodedById(b64.getString(), DataBuffer::kBase64));
    EXPECT_TRUE(back.equals(db));
}
