#include "image/cximage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <set>
#include <utility>
#include <vector>

namespace {

// An image of the given depth with the gray palette; px holds rows 0, 1, ...
void makeImage(CxImage& img, int w, int h, uint32_t bpp, const std::vector<uint8_t>& px,
               uint32_t type = 0) {
  ASSERT_NE(img.Create(w, h, bpp, type), nullptr);
  img.SetGrayPalette();
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      img.SetPixelIndex(x, y, px[y * w + x]);
}

std::vector<uint8_t> pixelsOf(const CxImage& img) {
  std::vector<uint8_t> out;
  for (uint32_t y = 0; y < img.GetHeight(); ++y)
    for (uint32_t x = 0; x < img.GetWidth(); ++x)
      out.push_back(img.GetPixelIndex(x, y));
  return out;
}

std::vector<uint8_t> blockOf(const CxImage& img) {
  const auto* p = static_cast<const uint8_t*>(img.GetDIB());
  return std::vector<uint8_t>(p, p + img.GetSize());
}

std::vector<int> bgra(tagRGBQUAD c) {
  return {c.rgbBlue, c.rgbGreen, c.rgbRed, c.rgbReserved};
}

const tagRGBQUAD kWhite = {255, 255, 255, 0};

std::vector<uint8_t> ramp() {
  std::vector<uint8_t> v(256);
  for (int i = 0; i < 256; ++i)
    v[i] = static_cast<uint8_t>(i);
  return v;
}

TEST(CxImageTransformLight, WholeTableForPureBrightnessAndFlatContrast) {
  const struct {
    int brightness, contrast;
    std::function<int(int)> expect;
  } cases[] = {
      {0, 0, [](int i) { return i; }},
      {0, -100, [](int) { return 128; }},                      // c = 0: 128.5
      {200, 0, [](int i) { return std::min(255, i + 200); }},  // i + 200.5
      {-200, 0, [](int i) { return std::max(0, i - 200); }},   // i - 199.5, toward zero
  };
  for (const auto& c : cases) {
    CxImage img;
    makeImage(img, 256, 1, 8, ramp());
    ASSERT_TRUE(img.Light(c.brightness, c.contrast));
    for (int i = 0; i < 256; ++i)
      ASSERT_EQ(img.GetPixelIndex(i, 0), c.expect(i)) << c.brightness << "," << c.contrast;
  }
}

// c = 1.5: v = 1.5 (i - 128) + 128.5 + brightness; index 42 gives -0.5, 213 gives 256.
// c = 0.1f = 0.100000001490116: -125 c rounds to exactly -12.5 in float, so index 3
// gives 116.0 (115.99999981 -> 115 in double); likewise -5 c rounds to -0.5.
TEST(CxImageTransformLight, ContrastInSinglePrecision) {
  const struct {
    int brightness, contrast, index, expected;
  } cases[] = {{0, 50, 0, 0},     {0, 50, 42, 0},    {0, 50, 43, 1},     {0, 50, 127, 127},
               {0, 50, 129, 130}, {0, 50, 212, 254}, {0, 50, 213, 255},  {10, 50, 50, 21},
               {10, 50, 100, 96}, {0, -90, 3, 116},  {0, -90, 123, 128}, {0, -90, 0, 115},
               {0, -90, 255, 141}};
  for (const auto& c : cases) {
    CxImage img;
    makeImage(img, 256, 1, 8, ramp());
    ASSERT_TRUE(img.Light(c.brightness, c.contrast));
    EXPECT_EQ(img.GetPixelIndex(c.index, 0), c.expected)
        << c.brightness << "," << c.contrast << " index " << c.index;
  }
}

TEST(CxImageTransformLight, LutWorksOnIndicesAndKeepsPadding) {
  uint8_t table[256] = {1, 0};  // swaps the two 1-bit indices
  EXPECT_FALSE(CxImage().Light(0, 0));
  EXPECT_FALSE(CxImage().Lut(table));
  CxImage img;
  makeImage(img, 10, 1, 1, {1, 0, 0, 1, 1, 1, 0, 0, 0, 1});
  EXPECT_FALSE(img.Lut(nullptr));
  img.GetBits()[1] |= 0x3F;  // bits of the padding after pixel 9
  img.GetBits()[2] = 0x77;
  ASSERT_TRUE(img.Lut(table));
  EXPECT_EQ(pixelsOf(img), (std::vector<uint8_t>{0, 1, 1, 0, 0, 0, 1, 1, 1, 0}));
  EXPECT_EQ(img.GetBits()[1] & 0x3F, 0x3F);
  EXPECT_EQ(img.GetBits()[2], 0x77);
}

TEST(CxImageTransform, NegativeInvertsPixelAreaIncludingPadding) {
  CxImage img;
  makeImage(img, 3, 2, 8, {0, 10, 200, 255, 1, 128});
  img.GetBits(0)[3] = 0x5A;
  const std::vector<uint8_t> before = blockOf(img);
  img.Negative();
  EXPECT_EQ(pixelsOf(img), (std::vector<uint8_t>{255, 245, 55, 0, 254, 127}));
  EXPECT_EQ(img.GetBits(0)[3], 0xA5);
  EXPECT_EQ(img.GetBits(1)[3], 0xFF);
  EXPECT_EQ(bgra(img.GetPaletteColor(10)), (std::vector<int>{10, 10, 10, 0}));
  img.Negative();
  EXPECT_EQ(blockOf(img), before);
}

TEST(CxImageTransform, Rotate180TurnsImageIntoEightBitsWithPalette) {
  CxImage img;
  makeImage(img, 3, 2, 8, {1, 2, 3, 4, 5, 6}, 4);
  img.SetPaletteColor(5, 1, 2, 3);
  const std::vector<uint8_t> before = blockOf(img);
  CxImage dst;
  ASSERT_TRUE(img.Rotate180(&dst));
  EXPECT_EQ(blockOf(img), before);
  EXPECT_EQ(pixelsOf(dst), (std::vector<uint8_t>{6, 5, 4, 3, 2, 1}));
  EXPECT_EQ(bgra(dst.GetPaletteColor(5)), (std::vector<int>{3, 2, 1, 0}));
  EXPECT_EQ(dst.GetType(), 4u);
  ASSERT_TRUE(img.Rotate180());
  EXPECT_FALSE(CxImage().Rotate180());
  // A 1-bit image comes back 8 bits deep with indices 0 and 1 at (9 - x, 1 - y).
  CxImage mono;
  std::vector<uint8_t> px(20, 0), expected(20, 0);
  px[0] = px[1] = px[10 + 3] = px[10 + 9] = 1;
  expected[0] = expected[6] = expected[10 + 8] = expected[10 + 9] = 1;
  makeImage(mono, 10, 2, 1, px);
  ASSERT_TRUE(mono.Rotate180());
  EXPECT_EQ(mono.GetBpp(), 8);
  EXPECT_EQ(pixelsOf(mono), expected);
  EXPECT_EQ(bgra(mono.GetPaletteColor(1)), (std::vector<int>{255, 255, 255, 0}));
}

TEST(CxImageTransform, MirrorReversesEachRow) {
  CxImage narrow;
  makeImage(narrow, 1, 3, 8, {7, 8, 9});
  narrow.Mirror();
  EXPECT_EQ(pixelsOf(narrow), (std::vector<uint8_t>{7, 8, 9}));
  CxImage img;
  makeImage(img, 5, 2, 8, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, 3);
  img.Mirror();
  EXPECT_EQ(img.GetType(), 3u);
  EXPECT_EQ(pixelsOf(img), (std::vector<uint8_t>{5, 4, 3, 2, 1, 10, 9, 8, 7, 6}));
}

// Row 0 is the bottom line, so the bottom amount is the vertical offset of the old rows.
TEST(CxImageTransformExpand, EightBitGrowsWithCanvasAroundTheOldPixels) {
  std::vector<uint8_t> px(16);
  for (int i = 0; i < 16; ++i)
    px[i] = static_cast<uint8_t>(i + 1);
  const long amounts[][4] = {{2, 3, 2, 3}, {0, 1, 3, 2}, {1, 2, 0, 0}};  // left, top, right, bottom
  for (const auto& a : amounts) {
    CxImage img;
    makeImage(img, 4, 4, 8, px, 6);
    ASSERT_TRUE(img.Expand(a[0], a[1], a[2], a[3], kWhite));
    ASSERT_EQ(img.GetWidth(), 4 + a[0] + a[2]);
    ASSERT_EQ(img.GetHeight(), 4 + a[1] + a[3]);
    EXPECT_EQ(img.GetType(), 6u);
    for (int y = 0; y < 4 + a[1] + a[3]; ++y)
      for (int x = 0; x < 4 + a[0] + a[2]; ++x) {
        const bool old = x >= a[0] && x < a[0] + 4 && y >= a[3] && y < a[3] + 4;
        ASSERT_EQ(img.GetPixelIndex(x, y), old ? px[(y - a[3]) * 4 + (x - a[0])] : 255)
            << x << "," << y << " amounts " << a[0] << a[1] << a[2] << a[3];
      }
  }
}

TEST(CxImageTransformExpand, OneBitUsesNearestCanvasIndex) {
  CxImage img;
  makeImage(img, 3, 2, 1, {1, 0, 0, 0, 0, 1});
  ASSERT_TRUE(img.Expand(1, 0, 2, 1, kWhite));  // white is index 1 of the 2-entry gray palette
  EXPECT_EQ(img.GetBpp(), 1);
  EXPECT_EQ(pixelsOf(img), (std::vector<uint8_t>{1, 1, 1, 1, 1, 1,  //
                                                 1, 1, 0, 0, 1, 1,  //
                                                 1, 0, 0, 1, 1, 1}));
}

TEST(CxImageTransformExpand, NothingToAddNegativeAmountsAndTooLarge) {
  CxImage img;
  makeImage(img, 3, 2, 8, {1, 2, 3, 4, 5, 6});
  const std::vector<uint8_t> before = blockOf(img);
  EXPECT_FALSE(img.Expand(-1, 0, 0, 0, kWhite));
  EXPECT_FALSE(img.Expand(0, 0, 0, -1, kWhite));
  EXPECT_EQ(blockOf(img), before);
  // Same header, palette and pixels; only the row padding takes the canvas fill.
  ASSERT_TRUE(img.Expand(0, 0, 0, 0, kWhite));
  const std::vector<uint8_t> after = blockOf(img);
  ASSERT_EQ(after.size(), before.size());
  EXPECT_TRUE(std::equal(before.begin(), before.begin() + 40 + 1024, after.begin()));
  EXPECT_EQ(pixelsOf(img), (std::vector<uint8_t>{1, 2, 3, 4, 5, 6}));
  EXPECT_FALSE(CxImage().Expand(1, 1, 1, 1, kWhite));
  // 65536 x 32768 at 8 bits wraps the size product.
  CxImage dot;
  makeImage(dot, 1, 1, 8, {9});
  EXPECT_FALSE(dot.Expand(65535, 32767, 0, 0, kWhite));
  EXPECT_STREQ(dot.GetLastError(), "CXIMAGE_MAX_MEMORY exceeded");
  EXPECT_EQ(dot.GetWidth(), 1u);
  EXPECT_EQ(dot.GetPixelIndex(0, 0), 9);
}

TEST(CxImageTransformIncreaseBpp, RefusesNarrowingAndOddDepths) {
  const struct {
    uint32_t from, to;
    bool ok;
  } cases[] = {{8, 8, true},  {24, 8, false}, {8, 16, false}, {8, 4, false},
               {1, 2, false}, {1, 1, false},  {4, 32, false}};
  for (const auto& c : cases) {
    CxImage img;
    ASSERT_NE(img.Create(3, 2, c.from, 0), nullptr);
    const std::vector<uint8_t> before = blockOf(img);
    EXPECT_EQ(img.IncreaseBpp(c.to), c.ok) << c.from << "->" << c.to;
    EXPECT_EQ(img.GetBpp(), c.from);
    EXPECT_EQ(blockOf(img), before);
  }
  EXPECT_FALSE(CxImage().IncreaseBpp(8));
}

TEST(CxImageTransformIncreaseBpp, OneToEightKeepsIndicesAndTwoPaletteEntries) {
  CxImage img;
  const std::vector<uint8_t> px = {1, 0, 0, 1, 1, 0, 1, 0, 0, 1, 0, 1, 1, 1, 0, 0, 0, 0, 1, 1};
  makeImage(img, 10, 2, 1, px, 2);
  ASSERT_TRUE(img.IncreaseBpp(8));
  EXPECT_EQ(img.GetBpp(), 8);
  EXPECT_EQ(img.GetEffWidth(), 12u);
  EXPECT_EQ(img.GetType(), 2u);
  EXPECT_EQ(pixelsOf(img), px);
  EXPECT_EQ(bgra(img.GetPaletteColor(0)), (std::vector<int>{0, 0, 0, 0}));
  EXPECT_EQ(bgra(img.GetPaletteColor(1)), (std::vector<int>{255, 255, 255, 0}));
  for (int i = 2; i < 256; ++i)
    ASSERT_EQ(bgra(img.GetPaletteColor(static_cast<uint8_t>(i))), (std::vector<int>{0, 0, 0, 0}));
}

TEST(CxImageTransform, DrawLineBresenhamBothEndsAndClipped) {
  using Points = std::set<std::pair<int, int>>;
  const struct {
    int x0, x1, y0, y1;
    Points expected;
  } cases[] = {
      {0, 3, 0, 1, {{0, 0}, {1, 0}, {2, 1}, {3, 1}}},
      {3, 0, 1, 0, {{3, 1}, {2, 1}, {1, 0}, {0, 0}}},
      {5, 5, 5, 5, {{5, 5}}},
      // y-major: num starts at 1, +1 per step, overflows at 3.
      {0, 1, 0, 3, {{0, 0}, {0, 1}, {1, 2}, {1, 3}}},
      // a diagonal that leaves the 6 x 6 image after two pixels
      {4, 8, 2, 6, {{4, 2}, {5, 3}}},
      {-2, 2, 4, 4, {{0, 4}, {1, 4}, {2, 4}}},
  };
  for (const auto& c : cases) {
    CxImage img;
    makeImage(img, 6, 6, 8, std::vector<uint8_t>(36, 0));
    img.DrawLine(c.x0, c.x1, c.y0, c.y1, 9);
    Points got;
    for (int y = 0; y < 6; ++y)
      for (int x = 0; x < 6; ++x)
        if (img.GetPixelIndex(x, y) != 0) {
          EXPECT_EQ(img.GetPixelIndex(x, y), 9);
          got.insert({x, y});
        }
    EXPECT_EQ(got, c.expected) << c.x0 << "," << c.x1 << "," << c.y0 << "," << c.y1;
  }
}

}  // namespace
