// The printer object on hand-worked bytes: what no job option selects (blank-row
// counts, packing with a skip, contrast, rotation, trims, the frame) and the
// barcode touch-ups on hand-made pages; page records are locked by the golden jobs.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "printer/ostra_printer.h"
#include "tests/support/filter_runner.h"

#if !defined(__SANITIZE_ADDRESS__)
// A counting allocator that fails one chosen page-sized allocation; smaller
// ones (log lines, names, stdio buffers) always succeed.
extern "C" void* __libc_malloc(size_t);
extern "C" void* __libc_calloc(size_t, size_t);
extern "C" void* __libc_realloc(void*, size_t);
static bool sCounting = false;
static long sFailAt = -1, sLargeAllocations = 0;
static bool failNow(size_t n) {
  return sCounting && n >= 65536 && sLargeAllocations++ == sFailAt;
}
extern "C" void* malloc(size_t n) noexcept {
  return failNow(n) ? nullptr : __libc_malloc(n);
}
extern "C" void* calloc(size_t c, size_t n) noexcept {
  return failNow(c * n) ? nullptr : __libc_calloc(c, n);
}
extern "C" void* realloc(void* p, size_t n) noexcept {
  return failNow(n) ? nullptr : __libc_realloc(p, n);
}
#endif

namespace {

using Bytes = std::vector<uint8_t>;

// Pixel rows as text: '.' is 0, any other character 255; blanks ignored.
Bytes px(const char* text) {
  Bytes b;
  for (; *text; ++text)
    if (*text != ' ')
      b.push_back(*text == '.' ? 0 : 255);
  return b;
}

class Printer : public testing::Test {
 protected:
  Printer() : dir(testWorkDir()), p(state, PrinterPaths{dir + "/spool", dir}) {
    p.getOutputStreams().clear();
    p.setSettings(&settings);
    p.setPageHeader(&header);
    strcpy(settings.PaperType, "LabelGaps");
    strcpy(settings.JobId, "42");
    settings.GapsHeight = 3;
    settings.MaxMediaWidth = 576;  // dots, as the driver leaves it per page
    header.HWResolution[0] = header.HWResolution[1] = 203;
  }
  std::string dir, log;
  PrinterState state;
  Settings settings{};
  cups_page_header2_t header{};
  OstraPrinter p;
};

TEST_F(Printer, WhatNoJobOptionSets) {
  const auto process = [&](const Bytes& page, int w, int h) {
    Bytes out(2 * page.size());
    log = captureLog(
        [&] { p.PageProcess(DITHER_NONE, page.data(), w, w, h, out.data(), out.size()); });
    return Bytes(out.begin(), out.begin() + page.size());
  };
  p.setRotate180Print(true);
  EXPECT_EQ(process(px("##.. ...#"), 4, 2), px("#... ..##"));
  p.setMirrorPrint(true);  // rotated first, then mirrored
  EXPECT_EQ(process(px("##.. ...#"), 4, 2), px("...# ##.."));
  EXPECT_LT(log.find("Rotated the image 180 degrees"), log.find("Mirrored the image"));
  p.setRotate180Print(false);
  p.setMirrorPrint(false);
  p.setContrast(-25);  // Light(0, -50): 129 becomes 1 * 0.5 + 128.5 = 129, still white
  EXPECT_EQ(process(Bytes(4, 129), 4, 1), Bytes(4, 255));
  // Ink only in row 2 of 4: the front count tests rows from 1 and finds it at
  // 1, the back count returns 3, one past it. The trim is worked out and
  // logged; the whole page prints.
  p.setContrast(0);
  p.setRemoveBlankEdges(10);
  log = captureLog([&] { p.printImage(px(".... .... .#.. ....").data(), 4, 4, 4); });
  EXPECT_NE(log.find("Adjusted image height to 2, pointer offset by 4 bytes\n"), std::string::npos);
  EXPECT_EQ(readFile(dir + "/spool/page_0001_jobid_000042_0000.dat").substr(20, 2),
            std::string("\4\0", 2));
  // Packing leaves out the skipped right-hand bytes (a skip of the whole row
  // counts for nothing); the leftmost pixel is the top bit.
  const struct {
    unsigned long skip;
    int rowBytes;
    const char* rows;  // two
    Bytes packed;
  } packs[] = {{0, 10, "#.......## .........#", {0x80, 0xC0, 0x00, 0x40}},  // pixels 8, 9: byte 2
               {3, 16, "################ ............####", {0xFF, 0xF8, 0x00, 0x08}},
               {16, 16, "################ ...............#", {0xFF, 0xFF, 0x00, 0x01}}};
  for (const auto& c : packs) {
    p.setSkipRightPixels(c.skip);
    Bytes buf = px(c.rows);
    int n = 0;
    captureLog([&] { n = p.GrayToMono(c.rowBytes, 2, buf.data()); });
    EXPECT_EQ(Bytes(buf.begin(), buf.begin() + n), c.packed) << c.rows;
  }
}

// Each page-sized allocation of one page fails in turn: the page prints as it
// would have, or not at all with an ERROR line; never half done, never a crash.
TEST_F(Printer, NoMemoryNeverPrintsHalfAPage) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizer owns malloc";
#else
  Bytes page(1024 * 600);  // even its 1-bit form is page-sized
  for (size_t i = 0; i < page.size(); ++i)
    page[i] = static_cast<uint8_t>(i * 37 % 251);
  p.setMirrorPrint(true);
  for (DitherType method : {DITHER_BURKES, DITHER_TATTOO}) {
    p.setHalftoneType(method);
    std::string reference;
    long failAt = -1;
    for (;; ++failAt) {
      std::filesystem::remove_all(dir + "/spool");
      sLargeAllocations = 0;
      sFailAt = failAt;
      sCounting = true;
      log = captureLog([&] { p.printImage(page.data(), 1024, 600, 1024); });
      sCounting = false;
      const std::string record = readFile(dir + "/spool/page_0001_jobid_000042_0000.dat");
      state.PageNum = 1;
      if (failAt >= 0 && sLargeAllocations <= failAt)
        break;  // every allocation of the page has failed once
      if (failAt < 0)
        reference = record;
      else if (record.empty())
        EXPECT_TRUE(p.pageFailure() && log.find("ERROR:") != std::string::npos) << failAt;
      else
        EXPECT_EQ(record, reference) << method << ", allocation " << failAt << " failed";
    }
    EXPECT_GE(failAt, 5) << method;  // the allocator did count
  }
#endif
}

TEST_F(Printer, AntiWrinkleFrame) {
  // 300 dpi: bars 12 high, side bars 12, 24, 35, 47, 59 wide by level. A6 is
  // 1181 x 1394 before the bars: a 1000 x 1300 page grows by (1205 - 1000) / 2
  // = 102 and (1418 - 1300) / 2 = 59 to 1204 x 1418, the frame at (0, 0). A
  // 2500 x 3300 page around the A4 frame of 2410 x 3272 at level 2: at (45, 14).
  const struct {
    const char* name;
    int level, w, h, grownW, canvasW, canvasH;
    std::vector<int> probes;  // x, y, expected index: the page is 7, margins 0
  } cases[] = {
      // clang-format off
      {"Tattoo_A6", 1, 1000, 1300, 1204, 1205, 1418,
       {11, 700, 255, 12, 700, 0, 600, 11, 255, 600, 12, 0, 1193, 700, 255, 600, 1406, 255, 102, 59, 7}},
      {"A4", 2, 2500, 3300, 2500, 2410, 3272, {44, 14, 7, 45, 14, 255, 68, 3285, 255, 1000, 26, 7}},
      {"Letter", 5, 10, 8, 2598, 2598, 3059, {58, 1500, 255, 59, 1500, 0}},
      {"Tattoo_A5", 3, 2432, 1418, 2432, 2432, 1418, {34, 0, 255, 35, 500, 7}},
      {"a4", 1, 10, 8, 10, 0, 0, {0, 0, 7, 5, 4, 7}},  // names are case-sensitive: no frame
      // clang-format on
  };
  for (const auto& c : cases) {
    CxImage im;
    im.Create(c.w, c.h, 8, 0);
    memset(im.GetBits(0), 7, im.GetEffWidth() * c.h);
    snprintf(header.cupsPageSizeName, sizeof header.cupsPageSizeName, "%s", c.name);
    p.setAntiWrinkle(c.level);
    log = captureLog([&] { p.EnableAntiWrink(im); });
    char canvas[128];
    snprintf(canvas, sizeof canvas, "Page size is %s, CanvasWidth: %d, CanvasHeight: %d\n", c.name,
             c.canvasW, c.canvasH);
    EXPECT_EQ(log.find(canvas) != std::string::npos, c.canvasW != 0) << log;
    EXPECT_EQ(im.GetWidth(), uint32_t(c.grownW)) << c.name;
    for (size_t i = 0; i + 2 < c.probes.size(); i += 3)
      EXPECT_EQ(im.GetPixelIndex(c.probes[i], c.probes[i + 1]), c.probes[i + 2])
          << c.name << " at " << c.probes[i] << "," << c.probes[i + 1];
  }
}

// An 8-bit page, rows (width + 3) / 4 * 4 bytes apart; the padding holds a
// marker that no routine may touch.
struct Page {
  Page(int width, int height)
      : w(width), h(height), stride((width + 3) / 4 * 4), b(stride * h, 0x5A) {
    for (int y = 0; y < h; ++y)
      fill(y, 0, w, 0);
  }
  uint8_t& at(int x, int y) { return b[y * stride + x]; }
  void fill(int y, int from, int to, uint8_t v) {
    for (int x = from; x < to && x < w; ++x)
      at(x, y) = v;
  }
  int w, h, stride;
  std::vector<uint8_t> b;
};

TEST_F(Printer, DashedLineBreaksOnlyLongEndedRunsInInnerRows) {
  // Row `row`: full [from, from + len), one empty pixel, full to the edge.
  // Expected: x in [dashFrom, dashTo) with x % 8 < 4 cleared, nothing else.
  // Worked example: grid columns 16..408 lie in [410 - 400, 410); 408 clears
  // 408..411, past the ending pixel 410, while 10..15 and 412 stay.
  const struct {
    int w, h, row, from, len, dashFrom, dashTo;
  } cases[] = {
      // clang-format off
      {413, 9, 2, 10, 400, 16, 412},
      {330, 9, 2, 0, 320, 0, 0}, {330, 9, 2, 0, 321, 0, 324},  // a run must exceed 320
      {400, 9, 2, 0, 400, 0, 0},                               // open at the right edge
      {413, 9, 1, 10, 400, 0, 0}, {413, 9, 3, 10, 400, 0, 0},  // row 1; the last six rows
      {413, 20, 13, 9, 400, 16, 412},  // grid column 8 starts before the run
      // clang-format on
  };
  for (const auto& c : cases) {
    Page page(c.w, c.h);
    page.fill(c.row, c.from, c.from + c.len, 255);
    page.fill(c.row, c.from + c.len + 1, c.w, 255);
    Page expected = page;
    for (int x = c.dashFrom; x < c.dashTo; ++x)
      if (x % 8 < 4)
        expected.at(x, c.row) = 0;
    captureLog([&] { p.ApplyDashedLine(page.b.data(), c.w, c.h); });
    EXPECT_EQ(page.b, expected.b) << c.w << " " << c.row << " " << c.len;
  }
}

TEST_F(Printer, RowScanClearsLongRunsOverShallowGaps) {
  // Width 101: half is 50, middle column 50 not counted. Row 1: the run [from,
  // from + len) and `extra` full pixels from column 60; row 0 full above the
  // run if `above`; then `depth` empty rows and, if `stopper`, a full one.
  const struct {
    const char* what;
    int from, len, extra, above, depth, stopper, clearFrom, clearTo;
  } cases[] = {
      // clang-format off
      {"1 empty below", 10, 41, 0, 1, 1, 1, 10, 51},  {"3 empty below", 10, 41, 0, 1, 3, 1, 10, 51},
      {"4 empty below", 10, 41, 0, 1, 4, 1, 0, 0},    {"ink right below", 10, 41, 0, 1, 0, 1, 0, 0},
      {"nothing above", 10, 41, 0, 0, 1, 1, 0, 0},    {"run of 40", 10, 40, 0, 1, 1, 1, 0, 0},
      {"50 full (40 + 10)", 10, 41, 10, 1, 1, 1, 0, 0}, {"open at the end", 60, 41, 0, 1, 1, 1, 0, 0},
      {"43 from column 0 count as 41", 0, 43, 0, 1, 1, 1, 2, 43},  // the scan starts at 2
      // clang-format on
  };
  for (const auto& c : cases) {
    Page page(101, 2 + c.depth + c.stopper);
    if (c.above)
      page.fill(0, c.from, c.from + c.len, 255);
    page.fill(1, c.from, c.from + c.len, 255);
    page.fill(1, 60, 60 + c.extra, 255);
    if (c.stopper)
      page.fill(page.h - 1, c.from, c.from + c.len, 255);
    Page expected = page;
    expected.fill(1, c.clearFrom, c.clearTo, 0);
    captureLog([&] { p.OptimazeBarcode1(page.b.data(), page.w, page.h); });
    EXPECT_EQ(page.b, expected.b) << c.what;
  }
}

TEST_F(Printer, ColumnScanStaggersAndTrimsBarEnds) {
  // Every column of a 5-wide page holds `in` (top down, '#' full); expected for
  // x % 4 == 0 (columns 0, 4), x % 4 == 2 and odd x, null if unchanged.
  const struct {
    const char *in, *col0, *col2, *odd;
  } cases[] = {
      // clang-format off
      // Row 9 ends a run of 7 (rows 3..9): rows 7, 5 or 8, 6 go; row 9 too (row 11 full).
      {"##########.#....", "#####.#.#..#....", "######.#...#....", "#########..#...."},
      // Run of 6 at row 8: no stagger, only the trim.
      {"#########.#.....", "########..#.....", "########..#.....", "########..#....."},
      {"######.#........", nullptr, nullptr, nullptr},  // run of 3: too short
      // Row 7 is trimmed (run 5, ink at 9) and the scan steps over gap row 8,
      // so the run goes on at row 9 with 6 and row 9 is trimmed too. Had it
      // looked at row 8, row 9 would be a run of 1 and stay.
      {"########.#.#....", "#######....#....", "#######....#....", "#######....#...."},
      // Shortest trim: run of 4 at row 6, scanned only when height - 6 > 6.
      {"#######.#....", "######..#....", "######..#....", "######..#...."},
      {"#######.#...", nullptr, nullptr, nullptr},
      // clang-format on
  };
  for (const auto& c : cases) {
    const int h = static_cast<int>(std::string(c.in).size());
    Page page(5, h), expected(5, h);
    for (int x = 0; x < 5; ++x) {
      const char* want = x % 2 ? c.odd : x % 4 == 0 ? c.col0 : c.col2;
      for (int y = 0; y < h; ++y) {
        page.at(x, y) = c.in[y] == '#' ? 255 : 0;
        expected.at(x, y) = (want ? want : c.in)[y] == '#' ? 255 : 0;
      }
    }
    captureLog([&] { p.OptimazeBarcode2(page.b.data(), page.w, page.h); });
    EXPECT_EQ(page.b, expected.b) << c.in;
  }
}

}  // namespace
