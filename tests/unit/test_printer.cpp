// The printer object on hand-worked bytes: setter clamps, output streams,
// blank-row counts, packing, the flips and trims no job option selects, the
// 1-bit debug image, the command blocks, page records, counter and frame.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "printer/ostra_printer.h"
#include "tests/support/filter_runner.h"

namespace {

namespace fs = std::filesystem;
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
    p.setSettings(&settings);
    p.setPageHeader(&header);
    strcpy(settings.PaperType, "LabelGaps");
    strcpy(settings.PrintSpeed, "4");
    strcpy(settings.JobId, "42");
    strcpy(settings.PrinterName, "Label1");
    settings.Darkness = 1;
    settings.GapsHeight = 3;
    settings.MaxMediaWidth = 576;  // dots, as the driver leaves it per page
    header.HWResolution[0] = header.HWResolution[1] = 203;
  }
  // What `body` writes to each of `n` output streams; the log goes to `log`.
  std::vector<std::string> output(const std::function<void()>& body, int n = 1) {
    std::vector<char*> data(n);
    std::vector<size_t> size(n);
    p.getOutputStreams().clear();
    for (int i = 0; i < n; ++i)
      p.getOutputStreams().push_back(open_memstream(&data[i], &size[i]));
    log = captureLog(body);
    std::vector<std::string> out;
    for (int i = 0; i < n; ++i) {
      fclose(p.getOutputStreams()[i]);
      out.emplace_back(data[i], size[i]);
      free(data[i]);
    }
    p.getOutputStreams().clear();
    return out;
  }

  std::string dir, log;
  PrinterState state;
  Settings settings{};
  cups_page_header2_t header{};
  OstraPrinter p;
};

TEST_F(Printer, SettersClampAndEveryStreamGetsTheBytes) {
  EXPECT_EQ(p.getPrintSpeed() * 100 + p.getPrintDensity(), 708);  // 7 and 8 to start with
  // value; brightness and contrast, density, speed from the value as text
  const int clamps[][4] = {
      {-250, -100, 0, 1}, {-1, -1, 0, 1}, {16, 16, 15, 15}, {101, 100, 15, 15}};
  for (const auto& c : clamps) {
    p.setBrightness(c[0]);
    p.setContrast(c[0]);
    p.setPrintDensity(c[0]);
    p.setPrintSpeed(std::to_string(c[0]).c_str());
    EXPECT_EQ(std::vector<int>(
                  {p.getBrightness(), p.getContrast(), p.getPrintDensity(), p.getPrintSpeed()}),
              std::vector<int>({c[1], c[1], c[2], c[3]}));
  }
  p.setPrintSpeed("12mm");  // atoi reads the leading digits
  EXPECT_EQ(p.getPrintSpeed(), 12);
  int formatted = 0;
  const auto out = output(
      [&] {
        formatted = p.printFormat("%d-%s", 5, "x");
        p.printStr("ab");
        p.printByte(0);
        p.printBytes(reinterpret_cast<const unsigned char*>("\x1b\xff"), 2);
      },
      2);
  EXPECT_EQ(formatted, 3);
  EXPECT_EQ(out, std::vector<std::string>(2, std::string("5-xab\0\x1b\xff", 8)));
  EXPECT_EQ(p.printFormat("%d", 5), 0);  // no stream at all
}

TEST_F(Printer, BlankRowsAndPacking) {
  // 3 rows x 4 bytes and an inked fourth row in memory, which the front count's
  // last test (one row past the page) must read as blank.
  const struct {
    const char* rows;
    size_t skip, front, back;
  } counts[] = {{".#.. .... ....", 0, 3, 1},   // the front count starts at row 1
                {".... ...# ....", 1, 3, 0},   // the ink is in the skipped byte
                {".... ...# ....", 5, 0, 2}};  // a skip beyond the row tests all of it
  for (const auto& c : counts) {
    Bytes mem = px(c.rows);
    mem.insert(mem.end(), 4, 0xFF);
    EXPECT_EQ(kiwaImageCountBlankLinesFromFront(mem.data(), 4, 3, c.skip, 4), c.front) << c.rows;
    EXPECT_EQ(kiwaImageCountBlankLinesFromBack(mem.data(), 4, 3, c.skip, 4), c.back) << c.rows;
  }
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

TEST_F(Printer, FlipsContrastAndTrimsThatNoJobOptionSets) {
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
  p.setContrast(-50);  // Light(0, -100): every level becomes 128, black
  EXPECT_EQ(process(Bytes(4, 255), 4, 1), Bytes(4, 0));
  // Ink only in row 2 of 4: the trim is worked out and logged, the whole page prints.
  p.setContrast(0);
  p.setRemoveBlankEdges(10);
  output([&] { p.printImage(px(".... .... .#.. ....").data(), 4, 4, 4); });
  EXPECT_NE(log.find("Adjusted image height to 2, pointer offset by 4 bytes\n"), std::string::npos);
  EXPECT_EQ(readFile(dir + "/spool/page_0001_jobid_000042_0000.dat").substr(20, 2),
            std::string("\4\0", 2));
}

TEST_F(Printer, OneBitDebugImageAndPageRecordBytes) {
  // 1 bit: row 0 of 0 1 0 1 0 1 0 1 | 1 0 is AA, then 40 | 3F (unused low bits
  // set) = 7F; row 1 of eight 9s | 0 9 is 00, 80 | 3F = BF; last row first,
  // rows padded to 4 bytes.
  const Bytes data = {0, 1, 0, 1, 0, 1, 0, 1, 1, 0, 9, 9, 9, 9, 9, 9, 9, 9, 0, 9};
  p.saveImage(data.data(), 10, 2, 10, 1);
  std::string bmp;
  for (const auto& e : fs::directory_iterator(dir))
    bmp += e.path().extension() == ".bmp" ? readFile(e.path()) : "";
  const char head[] =
      "BM\x46\0\0\0\0\0\0\0\x3e\0\0\0\x28\0\0\0\x0a\0\0\0\2\0\0\0\1\0\1\0\0\0\0\0\x08";
  const char tail[] = "\0\0\0\0\xff\xff\xff\0\0\xbf\0\0\xaa\x7f\0\0";
  EXPECT_EQ(bmp, std::string(head, 35) + std::string(19, '\0') + std::string(tail, 16));
  // A 576 x 400 dot label at 203 dpi, page 7. Row 0: three dots at the left;
  // row 1: all 576; row 2: the last dot only.
  state.PageNum = 7;
  settings.pageWidth = static_cast<float>(576 * 25.4 / 203);
  settings.pageHeight = static_cast<float>(400 * 25.4 / 203);
  Bytes page(576 * 400, 0);
  page[0] = page[1] = page[2] = page[3 * 576 - 1] = 255;
  std::fill(page.begin() + 576, page.begin() + 2 * 576, 255);
  EXPECT_EQ(output([&] { p.printImage(page.data(), 576, 400, 576); })[0], "");
  const std::string file = readFile(dir + "/spool/page_0007_jobid_000042_0000.dat");
  ASSERT_EQ(file.size(), 22u + 74 * 400);  // rows of 72 packed bytes + 2, no margin
  // LabelGaps; 576 wide; 400 rows -> 50.049 mm -> 399.99998 -> 399; 3 mm gap
  // -> 23.98 -> 23; page 7; GS v 0, 74 bytes x 400 rows.
  EXPECT_EQ(file.substr(0, 22),
            std::string("SIZ\1\x40\2\x8f\1\x17\0\0\0\7\0\x1d\x76\x30\0\x4a\0\x90\1", 22));
  EXPECT_EQ(file.substr(22, 3) + file.substr(22 + 74, 3) + file.substr(22 + 3 * 74 - 1, 1),
            std::string("\3\0\xe0\x40\2\xff\1", 7));
  EXPECT_EQ(state.PageNum, 8);
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
      {"Tattoo_A6", 1, 1000, 1300, 1204, 1205, 1418, {11, 700, 255, 12, 700, 0, 600, 11, 255,
       600, 12, 0, 1193, 700, 255, 1192, 700, 0, 600, 1406, 255, 102, 59, 7, 1101, 1358, 7}},
      {"A4", 2, 2500, 3300, 2500, 2410, 3272, {44, 14, 7, 45, 14, 255, 68, 3285, 255, 69, 1000, 7,
       1000, 25, 255, 1000, 26, 7, 2454, 14, 255}},
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

}  // namespace
