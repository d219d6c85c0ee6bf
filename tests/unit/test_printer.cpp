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

Bytes bytesOf(const std::string& s) {
  return Bytes(s.begin(), s.end());
}

class Printer : public testing::Test {
 protected:
  Printer() : dir(testWorkDir()), p(state, PrinterPaths{dir + "/spool", dir}) {
    p.getOutputStreams().clear();
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
  // What `body` writes to one output stream; the log goes to memory.
  std::string output(const std::function<void()>& body) {
    char* data = nullptr;
    size_t size = 0;
    p.getOutputStreams() = {open_memstream(&data, &size)};
    log = captureLog(body);
    fclose(p.getOutputStreams()[0]);
    p.getOutputStreams().clear();
    std::string out(data, size);
    free(data);
    return out;
  }
  // PageProcess with the threshold method; the first `n` bytes of its output.
  Bytes process(const Bytes& page, int w, int h, size_t n) {
    Bytes out(2 * w * h, 0xAA);
    log = captureLog(
        [&] { p.PageProcess(DITHER_NONE, page.data(), w, w, h, out.data(), out.size()); });
    return Bytes(out.begin(), out.begin() + n);
  }

  std::string dir;
  PrinterState state;
  Settings settings{};
  cups_page_header2_t header{};
  OstraPrinter p;
  std::string log;
};

TEST_F(Printer, SettersClampAndEveryStreamGetsTheBytes) {
  EXPECT_EQ(p.getPrintSpeed(), 7);
  EXPECT_EQ(p.getPrintDensity(), 8);
  const int ints[][3] = {{-250, -100, 0}, {-1, -1, 0}, {16, 16, 15}, {101, 100, 15}};
  for (const auto& c : ints) {
    p.setBrightness(c[0]);
    p.setContrast(c[0]);
    p.setPrintDensity(c[0]);
    EXPECT_EQ(p.getBrightness() + p.getContrast(), 2 * c[1]) << c[0];
    EXPECT_EQ(p.getPrintDensity(), c[2]) << c[0];
  }
  const std::pair<const char*, int> speeds[] = {{"0", 1}, {"abc", 1}, {"16", 15}, {"12mm", 12}};
  for (const auto& [text, speed] : speeds) {
    p.setPrintSpeed(text);
    EXPECT_EQ(p.getPrintSpeed(), speed) << text;
  }
  char* data[2] = {nullptr, nullptr};
  size_t size[2] = {0, 0};
  p.getOutputStreams() = {open_memstream(&data[0], &size[0]), open_memstream(&data[1], &size[1])};
  EXPECT_EQ(p.printFormat("%d-%s", 5, "x"), 3);
  p.printStr("ab");
  p.printByte(0);
  p.printBytes(reinterpret_cast<const unsigned char*>("\x1b\xff"), 2);
  for (int i = 0; i < 2; ++i) {
    fclose(p.getOutputStreams()[i]);
    EXPECT_EQ(std::string(data[i], size[i]), std::string("5-xab\0\x1b\xff", 8)) << i;
    free(data[i]);
  }
  p.getOutputStreams().clear();
  EXPECT_EQ(p.printFormat("%d", 5), 0);
}

TEST_F(Printer, BlankRowsAndPacking) {
  // 3 rows x 4 bytes and an inked fourth row in memory, which the front count's
  // last test (one row past the page) must read as blank.
  const struct {
    const char* rows;
    size_t skip, front, back;
  } counts[] = {{".... .... ....", 0, 3, 0},
                {".#.. .... ....", 0, 3, 1},  // front starts at row 1
                {".... #... ....", 0, 0, 2},
                {".... ...# ....", 1, 3, 0},   // ink in the skipped byte
                {".... ...# ....", 5, 0, 2}};  // skip beyond the row
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
  } packs[] = {{0, 10, "#.......## .........#", {0x80, 0xC0, 0x00, 0x40}},
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
  const struct {
    bool rotate, mirror;
    const char* out;
  } flips[] = {{true, false, "#... ..##"}, {true, true, "...# ##.."}};
  for (const auto& c : flips) {
    p.setRotate180Print(c.rotate);
    p.setMirrorPrint(c.mirror);
    EXPECT_EQ(process(px("##.. ...#"), 4, 2, 8), px(c.out)) << c.mirror;
  }
  EXPECT_LT(log.find("Rotated the image 180 degrees"), log.find("Mirrored the image"));
  p.setRotate180Print(false);
  p.setMirrorPrint(false);
  p.setContrast(-50);  // Light(0, -100): every level becomes 128, black
  EXPECT_EQ(process(Bytes(4, 255), 4, 1, 4), Bytes(4, 0));
  EXPECT_NE(log.find("DEBUG:PageProcess: Adjusted brightness to 0 and contrast to -100\n"),
            std::string::npos);
  // Ink only in row 2 of 4: the trim is worked out and logged, the whole page prints.
  p.setContrast(0);
  p.setRemoveBlankEdges(10);
  output([&] { p.printImage(px(".... .... .#.. ....").data(), 4, 4, 4); });
  EXPECT_NE(log.find("printImage: Adjusted image height to 2, pointer offset by 4 bytes\n"),
            std::string::npos);
  const std::string record = readFile(dir + "/spool/page_0001_jobid_000042_0000.dat");
  EXPECT_EQ(record.substr(20, 2), std::string("\x04\x00", 2));  // four rows
}

TEST_F(Printer, OneBitDebugImageRunsLastRowFirstWithZeroAsWhite) {
  // Row 0: 0 1 0 1 0 1 0 1 | 1 0 -> AA, then 40 | 3F (unused low bits set) = 7F
  // Row 1: eight 9s | 0 9       -> 00, then 80 | 3F = BF; rows padded to 4 bytes.
  const Bytes data = {0, 1, 0, 1, 0, 1, 0, 1, 1, 0, 9, 9, 9, 9, 9, 9, 9, 9, 0, 9};
  p.saveImage(data.data(), 10, 2, 10, 1);
  std::string file;
  for (const auto& e : fs::directory_iterator(dir))
    if (e.path().extension() == ".bmp")
      file = readFile(e.path().string());
  const std::string head("BM\x46\0\0\0\0\0\0\0\x3e\0\0\0\x28\0\0\0\x0a\0\0\0\x02\0\0\0\x01\0\x01\0",
                         30);
  ASSERT_EQ(file.size(), 62u + 8);
  EXPECT_EQ(file.substr(0, 30), head);
  EXPECT_EQ(bytesOf(file.substr(54)),
            (Bytes{0, 0, 0, 0, 255, 255, 255, 0, 0x00, 0xBF, 0, 0, 0xAA, 0x7F, 0, 0}));
}

TEST_F(Printer, CommandBlockAndPageRecordBytes) {
  // Speed n (mod 256) goes out as n - 2 from 2 on; the printer's own speed
  // and density never reach the block.
  p.setPrintSpeed("9");
  const std::pair<const char*, uint8_t> speeds[] = {
      {"4", 2}, {"1", 1}, {"0", 0}, {"15", 13}, {"257", 1}};
  for (const auto& [speed, sent] : speeds) {
    strcpy(settings.PrintSpeed, speed);
    EXPECT_EQ(bytesOf(output([&] { jobSetup(&p, &settings); })),
              (Bytes{0x1B, 0x73, 0x01, 0x00, 0x00, sent, 0x01}))
        << speed;
  }
  // A 576 x 400 dot label at 203 dpi, page 7. Row 0: three dots at the left;
  // row 1: all 576; row 2: the last dot only.
  state.PageNum = 7;
  settings.pageWidth = static_cast<float>(576 * 25.4 / 203);
  settings.pageHeight = static_cast<float>(400 * 25.4 / 203);
  Bytes page(576 * 400, 0);
  page[0] = page[1] = page[2] = page[3 * 576 - 1] = 255;
  std::fill(page.begin() + 576, page.begin() + 2 * 576, 255);
  output([&] { p.printImage(page.data(), 576, 400, 576); });
  const Bytes file = bytesOf(readFile(dir + "/spool/page_0007_jobid_000042_0000.dat"));
  ASSERT_EQ(file.size(), 22u + 74 * 400);  // rows of 72 packed bytes + 2, no margin
  const Bytes head = {
      'S',  'I',  'Z',  0x01,              // LabelGaps
      0x40, 0x02, 0x8F, 0x01,              // 576 wide; 400 rows -> 50.049 mm -> 399.99998 -> 399
      0x17, 0x00, 0x00, 0x00, 0x07, 0x00,  // 3 mm gap: 23.98 -> 23; page 7
      0x1D, 0x76, 0x30, 0x00, 0x4A, 0x00, 0x90, 0x01};  // GS v 0, 74 x 400
  EXPECT_EQ(Bytes(file.begin(), file.begin() + 22), head);
  const size_t row[] = {22, 22 + 74, 22 + 2 * 74};
  EXPECT_EQ(Bytes(file.begin() + row[0], file.begin() + row[0] + 3), (Bytes{3, 0, 0xE0}));
  EXPECT_EQ(Bytes(file.begin() + row[1], file.begin() + row[1] + 3), (Bytes{0x40, 0x02, 0xFF}));
  EXPECT_EQ(Bytes(file.begin() + row[2], file.begin() + row[2] + 74).back(), 0x01);
  EXPECT_EQ(state.PageNum, 8);
  // The margin centres the page on the media in whole bytes, rounded up, in float.
  const float margins[][3] = {{576, 476, 7}, {576, 480, 6}, {577, 576, 0}, {500, 576, 0}};
  for (const auto& m : margins) {
    settings.MaxMediaWidth = m[0];
    EXPECT_EQ(p.CalcBlackPoints(nullptr, 60, {static_cast<long>(m[1]), 1}, nullptr, 0), 62 + m[2]);
  }
}

TEST_F(Printer, CounterWrapsAt9000AndReloads) {
  fs::create_directories(dir + "/spool");
  const uint16_t cases[][2] = {{8999, 8999}, {9000, 1}, {65535, 1}};
  for (const auto& c : cases) {
    state.PageNum = c[0];
    jobEnd(&p, &settings);
    EXPECT_EQ(bytesOf(readFile(dir + "/spool/Label1.pgc")),
              (Bytes{uint8_t(c[1] & 0xFF), uint8_t(c[1] >> 8)}));
  }
  FILE* f = fopen((dir + "/spool/Label1.pgc").c_str(), "wb");
  fwrite("\x34\x12", 2, 1, f);
  fclose(f);
  output([&] { jobSetup(&p, &settings); });
  EXPECT_EQ(state.PageNum, 0x1234);
}

TEST_F(Printer, AntiWrinkleFrame) {
  // 300 dpi: bars 12 high; side bars 12, 24, 35, 47, 59 wide by level. A6 is
  // 1181 x 1394 before the bars; a 1000 x 1300 page grows by (1205 - 1000) / 2
  // = 102 and (1418 - 1300) / 2 = 59 to 1204 x 1418, the frame at (0, 0).
  // A 2500 x 3300 page around the A4 frame 2410 x 3272 at level 2: at (45, 14).
  const struct {
    const char* name;
    int level, w, h, grownW, canvasW, canvasH;
    std::vector<int> probes;  // x, y, expected index
  } cases[] = {
      {"Tattoo_A6", 1, 1000, 1300, 1204, 1205, 1418, {11,  700, 255, 12,   700,  0,   600,  11,
                                                      255, 600, 12,  0,    1193, 700, 255,  1192,
                                                      700, 0,   600, 1406, 255,  600, 1405, 0,
                                                      102, 59,  7,   1101, 1358, 7}},
      {"A4", 2, 2500, 3300, 2500, 2410, 3272, {44,   14,   7,  45,   14,   255,  68,
                                               3285, 255,  69, 1000, 7,    1000, 25,
                                               255,  1000, 26, 7,    2454, 14,   255}},
      {"Letter", 5, 10, 8, 2598, 2598, 3059, {0, 1500, 255, 58, 1500, 255, 59, 1500, 0}},
      {"Tattoo_A5", 3, 2432, 1418, 2432, 2432, 1418, {34, 0, 255, 35, 500, 7}},
      {"a4", 1, 10, 8, 10, 0, 0, {0, 0, 7, 5, 4, 7}},  // names are case-sensitive: no frame
  };
  for (const auto& c : cases) {
    CxImage im;
    im.Create(c.w, c.h, 8, 0);
    for (int y = 0; y < c.h; ++y)
      memset(im.GetBits(y), 7, c.w);
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
  p.setPageHeader(nullptr);
  EXPECT_EQ(captureLog([&] {
              CxImage im;
              p.EnableAntiWrink(im);
            }),
            "DEBUG:EnableAntiWrink: Image or pageHdr_ is not valid, returning.\n");
}

}  // namespace
