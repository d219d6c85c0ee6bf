#include "common/kiwa_common.h"

#include <gtest/gtest.h>

#include "tests/support/filter_runner.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

namespace {

TEST(KiwaLogCommon, WritesLevelWordMessageAndNewline) {
  const struct {
    int level;
    const char* expected;
  } cases[] = {{0, "DEBUG:x\n"}, {1, "DEBUG:x\n"}, {2, "WARN:x\n"},
               {3, "ERROR:x\n"}, {4, "CRIT:x\n"},  {5, "INVALID:x\n"}};
  for (const auto& c : cases) {
    EXPECT_EQ(captureLog([&] { kiwaLogCommon(c.level, "x"); }), c.expected) << c.level;
  }
}

TEST(KiwaLogCommon, FormatsArgumentsAndKeepsTrailingNewlineOfFormat) {
  EXPECT_EQ(captureLog([] { kiwaLogCommon(0, "n=%d s=%s f=%.2f", -7, "ab", 1.5); }),
            "DEBUG:n=-7 s=ab f=1.50\n");
  // A format that already ends in a newline leaves an empty line behind it.
  EXPECT_EQ(captureLog([] { kiwaLogCommon(0, "PAGE: %d %d\n", 1, 2); }), "DEBUG:PAGE: 1 2\n\n");
}

TEST(KiwaLogCommon, WritesToStandardErrorWhenNotRedirected) {
  kiwaLogSetStream(nullptr);
  testing::internal::CaptureStderr();
  kiwaLogCommon(4, "disk %s", "full");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "CRIT:disk full\n");
}

// The PPD choice keywords of "HalftoneType", in enumeration order.
const char* const kHalftoneNames[] = {
    "None",   "FloydSteinberg", "Ordered", "Burkes",    "Stucki", "JarvisJudiceNinke",
    "Sierra", "StevensonArce",  "Tattoo",  "Tattoo_Q7",
};

TEST(KiwaHalftoneType, NamesAndValuesMapBothWays) {
  for (int i = 0; i < 10; ++i) {
    EXPECT_STREQ(kiwaHalftoneTypeToStr(static_cast<DitherType>(i)), kHalftoneNames[i]);
    EXPECT_EQ(kiwaHalftoneTypeFromStr(kHalftoneNames[i]), i) << kHalftoneNames[i];
  }
  EXPECT_STREQ(kiwaHalftoneTypeToStr(static_cast<DitherType>(10)), "None");
  EXPECT_STREQ(kiwaHalftoneTypeToStr(static_cast<DitherType>(255)), "None");
}

TEST(KiwaHalftoneType, UnknownOrDifferentlyCasedNamesGiveNone) {
  for (const char* name : {"tattoo", "", "TATTOO_Q7", "Tattoo_Q", "Tattoo_Q7 ", " None", "Floyd"})
    EXPECT_EQ(kiwaHalftoneTypeFromStr(name), DITHER_NONE) << '"' << name << '"';
}

TEST(KiwaPathGetBasename, ReturnsPointerPastLastSeparatorOfEitherKind) {
  EXPECT_EQ(kiwaPathGetBasename(nullptr), nullptr);
  const struct {
    const char* path;
    const char* base;
  } cases[] = {
      {"page.bmp", "page.bmp"},
      {"", ""},
      {"/var/spool/cups/tmp/page.bmp", "page.bmp"},
      {"C:\\spool\\page.bmp", "page.bmp"},
      {"a\\b/c/d.bmp", "d.bmp"},   // slash is the later separator
      {"a/b\\c\\d.bmp", "d.bmp"},  // backslash is the later separator
      {"a\\b/c\\", ""},            // ends in a separator
      {"/", ""},
  };
  for (const auto& c : cases) {
    const char* got = kiwaPathGetBasename(c.path);
    ASSERT_NE(got, nullptr) << c.path;
    EXPECT_STREQ(got, c.base) << c.path;
    // The result lies inside the caller's string, not in a copy.
    EXPECT_EQ(got, c.path + strlen(c.path) - strlen(c.base)) << c.path;
  }
}

TEST(KiwaStrCpy, TruncatesTerminatesAndZeroPadsWithinLen) {
  const std::string sixty = std::string(30, 'a') + std::string(30, 'b');
  const struct {
    const char* src;
    size_t len;
    std::string expected;
  } cases[] = {
      {sixty.c_str(), 41, sixty.substr(0, 40)},
      {"abc", 10, "abc"},
      {"abcd", 5, "abcd"},
      {"abcde", 5, "abcd"},
      {"abc", 1, ""},
      {"", 4, ""},
      {nullptr, 8, ""},
  };
  constexpr size_t kBufSize = 64;
  for (const auto& c : cases) {
    char buf[kBufSize];
    memset(buf, 0x5A, sizeof buf);
    EXPECT_EQ(kiwaStrCpy(buf, c.src, c.len), buf);
    EXPECT_STREQ(buf, c.expected.c_str()) << "len " << c.len;
    for (size_t i = c.expected.size(); i < c.len; ++i)
      EXPECT_EQ(buf[i], '\0') << "len " << c.len << " byte " << i;
    for (size_t i = c.len; i < kBufSize; ++i)
      ASSERT_EQ(buf[i], 0x5A) << "len " << c.len << " wrote past len at " << i;
  }
}

}  // namespace
