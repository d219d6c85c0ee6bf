#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "printer/ostra_printer.h"
#include "tests/support/filter_runner.h"

namespace {

// A w x h page of index `fill`. Index 0 is white here, so the margin that
// enlargement adds (0) can be told apart from the bars (255).
void makePage(CxImage& im, int w, int h, uint8_t fill) {
  im.Create(w, h, 8, 0);
  im.SetGrayPalette();
  im.SetPaletteColor(0, 255, 255, 255);
  im.SetPaletteColor(255, 0, 0, 0);
  for (int y = 0; y < h; ++y)
    memset(im.GetBits(y), fill, w);
}

class AntiWrink : public testing::Test {
 protected:
  AntiWrink() { p.setPageHeader(&header); }
  std::string frame(const char* sizeName, int level, CxImage& im) {
    snprintf(header.cupsPageSizeName, sizeof header.cupsPageSizeName, "%s", sizeName);
    p.setAntiWrinkle(level);
    return captureLog([&] { p.EnableAntiWrink(im); });
  }

  PrinterState state;
  OstraPrinter p{state};
  cups_page_header2_t header{};
};

TEST_F(AntiWrink, CanvasAndBarWidthsPerPageSizeAndLevel) {
  // 300 dpi: lineH = (300*100/254 + 5)/10 = (118+5)/10 = 12; lineV by level
  // from 118, 236, 354, 472, 590: 12, 24, 35, 47, 59. Base canvas e.g. A4
  // (23622+5)/10 = 2362 x (32480+5)/10 = 3248; width + 2 lineV, height + 24.
  const int lineV[] = {12, 24, 35, 47, 59};
  const struct {
    const char* name;
    int height, width[5];
  } sizes[] = {{"A4", 3272, {2386, 2410, 2432, 2456, 2480}},
               {"Letter", 3059, {2504, 2528, 2550, 2574, 2598}},
               {"Tattoo_A5", 1418, {2386, 2410, 2432, 2456, 2480}},
               {"Tattoo_A6", 1418, {1205, 1229, 1251, 1275, 1299}}};
  CxImage im;
  makePage(im, 2600, 3400, 0);  // larger than every canvas: never enlarged
  for (const auto& s : sizes) {
    for (int level = 1; level <= 5; ++level) {
      char want[256];
      snprintf(
          want, sizeof want,
          "DEBUG:EnableAntiWrink: AntiWrinkle level: %d, line_v: %d points, line_h: 12 "
          "points.\nDEBUG:EnableAntiWrink: Page size is %s, CanvasWidth: %d, CanvasHeight: %d\n",
          level, lineV[level - 1], s.name, s.width[level - 1], s.height);
      EXPECT_EQ(frame(s.name, level, im).substr(0, strlen(want)), want);
    }
  }
}

TEST_F(AntiWrink, FramesAndRefusals) {
  const char* kNotValid = "DEBUG:EnableAntiWrink: Image or pageHdr_ is not valid, returning.\n";
  const struct {
    const char* name;
    bool header;
    int dims[5];  // level, page width and height, width and height afterwards
    const char* log;
    std::vector<int> probes;  // x, y, expected index
  } cases[] = {
      // Canvas 1181+24 x 1394+24 = 1205 x 1418; ex = 205/2 = 102, ey = 118/2 = 59, so
      // 1204 wide. Bars: columns 0..11, 1193..1203; rows 0..11, 1406..1417. Margin 0.
      {"Tattoo_A6",
       true,
       {1, 1000, 1300, 1204, 1418},
       "DEBUG:EnableAntiWrink: AntiWrinkle level: 1, line_v: 12 points, line_h: 12 points.\n"
       "DEBUG:EnableAntiWrink: Page size is Tattoo_A6, CanvasWidth: 1205, CanvasHeight: 1418\n"
       "DEBUG:EnableAntiWrink: Image width is less than canvas width, exPoints: 102\n"
       "DEBUG:EnableAntiWrink: Image height is less than canvas height, eyPoints: 59\n"
       "DEBUG:EnableAntiWrink: Image expanded successfully.\n"
       "DEBUG:EnableAntiWrink: Drawing left line. point(0, 0, 12, 1418)\n"
       "DEBUG:EnableAntiWrink: Drawing top line. point(0, 0, 1205, 12)\n"
       "DEBUG:EnableAntiWrink: Drawing right line. point(1193, 0, 1205, 1418)\n"
       "DEBUG:EnableAntiWrink: Drawing bottom line. point(0, 0, 1205, 1418)\n",
       {0,   0,   255,  11,  700, 255,  12,  700,  0,    600,  11,   255,  600,
        12,  0,   1192, 700, 0,   1193, 700, 255,  1203, 1417, 255,  600,  1406,
        255, 600, 1405, 0,   102, 59,   7,   1101, 1358, 7,    1102, 1358, 0}},
      // Canvas 2362+48 x 3248+24 = 2410 x 3272 inside 2500 x 3300: ox = 90/2 = 45,
      // oy = 28/2 = 14. Left 45..68, right 2431..2454, top 14..25, bottom 3274..3285.
      {"A4",
       true,
       {2, 2500, 3300, 2500, 3300},
       "DEBUG:EnableAntiWrink: AntiWrinkle level: 2, line_v: 24 points, line_h: 12 points.\n"
       "DEBUG:EnableAntiWrink: Page size is A4, CanvasWidth: 2410, CanvasHeight: 3272\n"
       "DEBUG:EnableAntiWrink: Image width is greater than canvas width, offset.x: 45\n"
       "DEBUG:EnableAntiWrink: Image height is greater than canvas height, offset.y: 14\n"
       "DEBUG:EnableAntiWrink: Drawing left line. point(45, 14, 69, 3286)\n"
       "DEBUG:EnableAntiWrink: Drawing top line. point(45, 14, 2455, 26)\n"
       "DEBUG:EnableAntiWrink: Drawing right line. point(2431, 14, 2455, 3286)\n"
       "DEBUG:EnableAntiWrink: Drawing bottom line. point(45, 14, 2455, 3286)\n",
       {44, 14,   7,    45,   14,   255,  68,  3285, 255,  69, 1000, 7,    45,
        13, 7,    45,   3286, 7,    1000, 25,  255,  1000, 26, 7,    2430, 1000,
        7,  2431, 1000, 255,  2454, 14,   255, 2455, 1000, 7,  1000, 3274, 255}},
      // Unknown name (names are case-sensitive): a 0 x 0 canvas that the page
      // "exceeds", so ox = 5, oy = 4; side bars get no rows, top and bottom no
      // columns. The left bar logs the counters' starting column 0.
      {"a4",
       true,
       {1, 10, 8, 10, 8},
       "DEBUG:EnableAntiWrink: AntiWrinkle level: 1, line_v: 12 points, line_h: 12 points.\n"
       "DEBUG:EnableAntiWrink: Image width is greater than canvas width, offset.x: 5\n"
       "DEBUG:EnableAntiWrink: Image height is greater than canvas height, offset.y: 4\n"
       "DEBUG:EnableAntiWrink: Drawing left line. point(5, 4, 0, 4)\n"
       "DEBUG:EnableAntiWrink: Drawing top line. point(5, 4, 5, 16)\n"
       "DEBUG:EnableAntiWrink: Drawing right line. point(-7, 4, 5, 4)\n"
       "DEBUG:EnableAntiWrink: Drawing bottom line. point(5, 4, 5, 4)\n",
       {0, 0, 7, 5, 4, 7, 9, 7, 7}},
      {"A4", false, {1, 10, 8, 10, 8}, kNotValid, {0, 0, 7, 9, 7, 7}},
      {"A4", true, {1, 0, 0, 0, 0}, kNotValid, {}},  // no image
  };
  for (const auto& c : cases) {
    CxImage im;
    if (c.dims[1] > 0)
      makePage(im, c.dims[1], c.dims[2], 7);
    p.setPageHeader(c.header ? &header : nullptr);
    EXPECT_EQ(frame(c.name, c.dims[0], im), c.log) << c.name;
    EXPECT_EQ(im.GetWidth(), uint32_t(c.dims[3])) << c.name;
    EXPECT_EQ(im.GetHeight(), uint32_t(c.dims[4])) << c.name;
    for (size_t i = 0; i + 2 < c.probes.size(); i += 3)
      EXPECT_EQ(im.GetPixelIndex(c.probes[i], c.probes[i + 1]), c.probes[i + 2])
          << c.name << " at " << c.probes[i] << "," << c.probes[i + 1];
  }
}

}  // namespace
