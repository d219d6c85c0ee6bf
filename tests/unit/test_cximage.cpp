#include "image/cximage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

namespace {

// The whole memory block (header copy, palette, rows) as bytes.
std::vector<uint8_t> blockOf(const CxImage& img) {
  const auto* p = static_cast<const uint8_t*>(img.GetDIB());
  return std::vector<uint8_t>(p, p + img.GetSize());
}

ptrdiff_t offsetOf(const CxImage& img, const void* p) {
  return static_cast<const uint8_t*>(p) - static_cast<const uint8_t*>(img.GetDIB());
}

std::vector<int> bgra(tagRGBQUAD c) {
  return {c.rgbBlue, c.rgbGreen, c.rgbRed, c.rgbReserved};
}
tagRGBQUAD gray(uint8_t v, uint8_t reserved = 0) {
  return tagRGBQUAD{v, v, v, reserved};
}

const char kNoSize[] = "CxImage::Create : width and height must be greater than zero";

TEST(CxImageCreate, FailuresLeaveTextAndEmptyImage) {
  const char kTooBig[] = "CXIMAGE_MAX_MEMORY exceeded";
  // 65536 * 32768 * 8 = 2^34 wraps to 0, and 0 / 8 != 2^31 = width * height.
  const struct {
    uint32_t w, h;
    const char* text;
  } cases[] = {{0, 5, kNoSize}, {5, 0, kNoSize}, {0, 0, kNoSize}, {65536, 32768, kTooBig}};
  for (const auto& c : cases) {
    CxImage img;
    EXPECT_STREQ(img.GetLastError(), "");
    EXPECT_EQ(img.Create(c.w, c.h, 8, 0), nullptr);
    EXPECT_STREQ(img.GetLastError(), c.text);
    EXPECT_FALSE(img.IsValid());
    ASSERT_NE(img.Create(1, 1, 8, 0), nullptr);  // success keeps the old text
    EXPECT_STREQ(img.GetLastError(), c.text);
  }
  // Here both products wrap to 0, which passes; biSizeImage wraps to 0 too.
  CxImage huge;
  ASSERT_NE(huge.Create(65536, 65536, 8, 0), nullptr);
  EXPECT_EQ(huge.GetHeader().biSizeImage, 0u);
  EXPECT_EQ(huge.GetSize(), 40u + 1024u);
  huge.Destroy();
}

TEST(CxImageCreate, NormalisesDepthAndFillsHeader) {
  const struct {
    uint32_t asked, bpp, colors;
  } cases[] = {{0, 1, 2},   {1, 1, 2},  {2, 4, 16},  {4, 4, 16}, {5, 8, 256},
               {8, 8, 256}, {9, 24, 0}, {24, 24, 0}, {32, 24, 0}};
  for (const auto& c : cases) {
    CxImage img;
    void* block = img.Create(3, 2, c.asked, 9);
    ASSERT_NE(block, nullptr) << c.asked;
    EXPECT_EQ(img.GetBpp(), c.bpp) << c.asked;
    EXPECT_EQ(img.GetNumColors(), c.colors) << c.asked;
    EXPECT_EQ(img.GetType(), 9u);
    const CxBitmapInfoHeader& h = img.GetHeader();
    EXPECT_EQ(h.biSize + h.biPlanes + h.biCompression, 41u);
    EXPECT_EQ(h.biSizeImage, img.GetEffWidth() * 2);
    EXPECT_EQ(std::memcmp(block, &h, 40), 0) << c.asked;  // the block opens with the header
  }
}

TEST(CxImageCreate, EffectiveWidthPadsRowsToFourBytes) {
  const struct {
    uint32_t bpp, width, eff;
  } cases[] = {{1, 1, 4}, {1, 32, 4}, {1, 33, 8}, {4, 9, 8}, {8, 4, 4}, {8, 5, 8}, {24, 1, 4}};
  for (const auto& c : cases) {
    CxImage img;
    ASSERT_NE(img.Create(c.width, 3, c.bpp, 0), nullptr);
    EXPECT_EQ(img.GetEffWidth(), c.eff) << c.bpp << " bpp, width " << c.width;
  }
}

TEST(CxImageLayout, PaletteAndRowsSitAtFixedOffsets) {
  CxImage img, rgb;
  EXPECT_EQ(img.GetBits(), nullptr);
  EXPECT_EQ(img.GetPalette(), nullptr);
  ASSERT_NE(img.Create(5, 3, 8, 0), nullptr);
  EXPECT_EQ(img.GetSize(), 40u + 8 * 3 + 1024);
  EXPECT_EQ(offsetOf(img, img.GetPalette()), 40);
  EXPECT_EQ(offsetOf(img, img.GetBits()), 40 + 1024);
  EXPECT_EQ(offsetOf(img, img.GetBits(2)), 40 + 1024 + 16);
  EXPECT_EQ(img.GetBits(3), nullptr);
  const std::vector<uint8_t> block = blockOf(img);  // palette and rows start zeroed
  EXPECT_TRUE(std::all_of(block.begin() + 40, block.end(), [](uint8_t b) { return b == 0; }));
  ASSERT_NE(rgb.Create(2, 2, 24, 0), nullptr);
  EXPECT_EQ(rgb.GetPalette(), nullptr);
  EXPECT_EQ(offsetOf(rgb, rgb.GetBits()), 40);
}

TEST(CxImageCreateFromArray, CopiesRowsWithOptionalFlipAndGrayPalette) {
  const uint8_t src[] = {1, 2, 3, 4, 5, 6};
  for (bool flip : {false, true}) {
    CxImage img;
    ASSERT_TRUE(img.CreateFromArray(src, 3, 2, 8, 3, flip));
    for (int x = 0; x < 3; ++x) {
      EXPECT_EQ(img.GetPixelIndex(x, flip ? 1 : 0), src[x]);
      EXPECT_EQ(img.GetPixelIndex(x, flip ? 0 : 1), src[3 + x]);
    }
    EXPECT_EQ(bgra(img.GetPaletteColor(7)), (std::vector<int>{7, 7, 7, 0}));
  }
}

TEST(CxImageCreateFromArray, CopiesAtMostEffWidthOrLineLengthBytes) {
  CxImage img;
  // Width 6 (effWidth 8) from 4-byte lines: bytes 4..7 of each row stay zero.
  const uint8_t shortRows[] = {1, 2, 3, 4, 5, 6, 7, 8};
  ASSERT_TRUE(img.CreateFromArray(shortRows, 6, 2, 8, 4, false));
  EXPECT_EQ(std::vector<uint8_t>(img.GetBits(1), img.GetBits(1) + 8),
            (std::vector<uint8_t>{5, 6, 7, 8, 0, 0, 0, 0}));
  // Width 2 (effWidth 4) from 6-byte lines: 4 bytes per row, next row 6 bytes on.
  const uint8_t longRows[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  ASSERT_TRUE(img.CreateFromArray(longRows, 2, 2, 8, 6, false));
  EXPECT_EQ(std::vector<uint8_t>(img.GetBits(1), img.GetBits(1) + 4),
            (std::vector<uint8_t>{7, 8, 9, 10}));
  // Refusals before Create leave the error text alone.
  CxImage bad;
  EXPECT_FALSE(bad.CreateFromArray(nullptr, 2, 2, 8, 2, false));
  EXPECT_FALSE(bad.CreateFromArray(shortRows, 2, 2, 2, 2, false));
  EXPECT_FALSE(bad.IsValid());
  EXPECT_STREQ(bad.GetLastError(), "");
}

TEST(CxImagePixels, PackedDepthsAddressBitsAndNibbles) {
  CxImage mono, nib;
  ASSERT_NE(mono.Create(16, 2, 1, 0), nullptr);
  mono.SetPixelIndex(9, 1, 1);  // byte 9 / 8 = 1, bit 7 - 9 % 8 = 6
  EXPECT_EQ(mono.GetBits(1)[1], 0x40);
  EXPECT_EQ(mono.GetPixelIndex(9, 1), 1);
  mono.SetPixelIndex(15, 1, 3);  // only bit 0 of the index counts
  EXPECT_EQ(mono.GetBits(1)[1], 0x41);
  mono.SetPixelIndex(9, 1, 2);
  EXPECT_EQ(mono.GetBits(1)[1], 0x01);

  ASSERT_NE(nib.Create(5, 1, 4, 0), nullptr);
  nib.SetPixelIndex(2, 0, 0x1F);  // even x: high nibble of byte 1, index & 15
  EXPECT_EQ(nib.GetBits()[1], 0xF0);
  nib.SetPixelIndex(3, 0, 0x0A);
  nib.SetPixelIndex(2, 0, 0x01);  // the old nibble is cleared first
  EXPECT_EQ(nib.GetBits()[1], 0x1A);
  EXPECT_EQ(nib.GetPixelIndex(3, 0), 10);
  nib.SetPixelIndex(4, 0, 7);
  EXPECT_EQ(nib.GetBits()[2], 0x70);
}

TEST(CxImagePixels, OutOfRangeReadReturnsFirstPixelByte) {
  CxImage g8, mono, rgb, empty;
  ASSERT_NE(g8.Create(3, 2, 8, 0), nullptr);
  g8.SetPixelIndex(0, 0, 42);
  g8.SetPixelIndex(2, 1, 7);
  const int64_t outside[][2] = {{-1, 0}, {0, -1}, {3, 0}, {0, 2}, {3, 2}, {-5, 9}};
  for (const auto& p : outside)
    EXPECT_EQ(g8.GetPixelIndex(p[0], p[1]), 42) << p[0] << p[1];
  ASSERT_NE(mono.Create(10, 2, 1, 0), nullptr);
  mono.SetPixelIndex(0, 0, 1);
  EXPECT_EQ(mono.GetPixelIndex(-1, 0), 0x80);  // the whole packed byte, not a pixel
  mono.SetPixelIndex(2, 0, 1);
  EXPECT_EQ(mono.GetPixelIndex(10, 0), 0xA0);
  EXPECT_EQ(mono.GetPixelIndex(0, 2), 0xA0);
  ASSERT_NE(rgb.Create(2, 1, 24, 0), nullptr);
  rgb.GetBits()[0] = 9;
  EXPECT_EQ(rgb.GetPixelIndex(0, 0) + rgb.GetPixelIndex(-1, 0) + empty.GetPixelIndex(0, 0), 0);
}

TEST(CxImagePixels, OutOfRangeWritesAreDropped) {
  for (uint32_t bpp : {1u, 4u, 8u, 24u}) {
    CxImage img;
    ASSERT_NE(img.Create(10, 2, bpp, 0), nullptr);
    const std::vector<uint8_t> before = blockOf(img);
    const int64_t outside[][2] = {{10, 0}, {-1, 0}, {0, 2}, {0, -1}, {11, 1}};
    for (const auto& p : outside)
      img.SetPixelIndex(p[0], p[1], 0xFF);
    if (bpp == 24)
      img.SetPixelIndex(0, 0, 0xFF);  // no palette, no index writes
    EXPECT_EQ(blockOf(img), before) << bpp;
  }
}

TEST(CxImagePalette, NearestIndexPrefersLowestOfEqualDistancesAndMemoises) {
  CxImage img, rgb, copy;
  ASSERT_NE(img.Create(2, 2, 1, 0), nullptr);
  img.SetGrayPalette();
  EXPECT_EQ(img.GetNearestIndex(gray(200)), 1);
  EXPECT_EQ(img.GetNearestIndex(gray(127)), 0);  // 3*127^2 = 48387 < 3*128^2 = 49152
  EXPECT_EQ(img.GetNearestIndex(gray(128)), 1);
  EXPECT_EQ(img.GetNearestIndex(gray(255, 77)), 1);  // the reserved byte is ignored
  img.SetPaletteColor(0, 100, 100, 100);
  img.SetPaletteColor(1, 120, 120, 120);
  EXPECT_EQ(img.GetNearestIndex(gray(110)), 0);  // both 3*10^2 away
  img.SetPaletteColor(1, 100, 100, 100);
  EXPECT_EQ(img.GetNearestIndex(gray(100)), 0);
  ASSERT_NE(rgb.Create(1, 1, 24, 0), nullptr);
  EXPECT_EQ(rgb.GetNearestIndex(gray(255)), 0);
  // The memo answers a repeated colour even after the palette changed (now 0 is
  // white), and it travels with CopyInfo: the copy's new palette is all black.
  img.SetGrayPalette();
  EXPECT_EQ(img.GetNearestIndex(gray(200)), 1);
  img.SetPaletteColor(0, 255, 255, 255);
  img.SetPaletteColor(1, 0, 0, 0);
  EXPECT_EQ(img.GetNearestIndex(gray(200)), 1);
  copy.CopyInfo(img);
  ASSERT_NE(copy.Create(2, 2, 1, 0), nullptr);
  EXPECT_EQ(copy.GetNearestIndex(gray(200)), 1);
  EXPECT_EQ(img.GetNearestIndex(gray(201)), 0);  // new colour: real search
  EXPECT_EQ(img.GetNearestIndex(gray(200)), 0);
}

TEST(CxImagePalette, GetAndSetStayWithinThePalette) {
  CxImage img, rgb;
  ASSERT_NE(img.Create(3, 1, 1, 0), nullptr);
  img.SetPaletteColor(1, 10, 20, 30, 40);  // r, g, b, alpha
  EXPECT_EQ(bgra(img.GetPaletteColor(1)), (std::vector<int>{30, 20, 10, 40}));
  std::vector<uint8_t> before = blockOf(img);
  img.SetPaletteColor(2, 1, 1, 1);
  EXPECT_EQ(blockOf(img), before);
  EXPECT_EQ(bgra(img.GetPaletteColor(2)), (std::vector<int>{0, 0, 0, 0}));
  // Three entries offered, two taken: the first pixel byte after the palette survives.
  const tagRGBQUAD three[] = {gray(5), gray(6), gray(7, 7)};
  img.GetBits()[0] = 0x5A;
  img.SetPalette(three, 3);
  EXPECT_EQ(img.GetPaletteColor(1).rgbRed, 6);
  EXPECT_EQ(img.GetBits()[0], 0x5A);
  ASSERT_NE(rgb.Create(1, 1, 24, 0), nullptr);
  EXPECT_EQ(bgra(rgb.GetPaletteColor(0)), (std::vector<int>{0, 0, 0, 0}));
}

TEST(CxImageLifecycle, TransferMovesBlockAndEmptiesSource) {
  CxImage src, dst;
  ASSERT_NE(src.Create(5, 3, 8, 7), nullptr);
  src.SetPixelIndex(4, 2, 99);
  const void* block = src.GetDIB();
  const uint8_t* bits = src.GetBits();
  ASSERT_NE(dst.Create(1, 1, 1, 0), nullptr);
  EXPECT_TRUE(dst.Transfer(src));
  EXPECT_EQ(dst.GetDIB(), block);
  EXPECT_EQ(dst.GetBits(), bits);
  EXPECT_EQ((std::vector<uint32_t>{dst.GetWidth(), dst.GetHeight(), dst.GetBpp(), dst.GetType()}),
            (std::vector<uint32_t>{5, 3, 8, 7}));
  EXPECT_EQ(dst.GetPixelIndex(4, 2), 99);
  EXPECT_FALSE(src.IsValid());
  EXPECT_EQ(src.GetWidth() + src.GetHeight() + src.GetEffWidth() + src.GetType(), 0u);
  EXPECT_EQ(src.GetBits(), nullptr);
  EXPECT_TRUE(dst.Transfer(src));  // an empty source empties the target
  EXPECT_FALSE(dst.IsValid());
}

TEST(CxImageLifecycle, CopyInfoOnlyIntoAnEmptyImageAndDestroyKeepsHeader) {
  CxImage src, fresh, used;
  EXPECT_EQ(src.Create(0, 1, 8, 0), nullptr);  // leaves an error text behind
  ASSERT_NE(src.Create(9, 2, 1, 5), nullptr);
  fresh.CopyInfo(src);
  EXPECT_EQ(fresh.GetType(), 5u);
  EXPECT_EQ(fresh.GetEffWidth(), 4u);
  EXPECT_STREQ(fresh.GetLastError(), kNoSize);
  EXPECT_FALSE(fresh.IsValid());
  EXPECT_EQ(fresh.GetWidth(), 0u);  // the header is not part of the info record
  ASSERT_NE(used.Create(3, 3, 8, 1), nullptr);
  used.CopyInfo(src);
  EXPECT_EQ(used.GetType(), 1u);
  EXPECT_STREQ(used.GetLastError(), "");

  EXPECT_TRUE(used.Destroy());
  EXPECT_FALSE(used.IsValid());
  EXPECT_EQ(used.GetWidth(), 3u);
  EXPECT_EQ(used.GetBits(), nullptr);
  EXPECT_TRUE(used.Destroy());
}

}  // namespace
