#include "printer/kiwa_printer.h"

#include <gtest/gtest.h>

#include "tests/support/filter_runner.h"
#include "tests/support/filter_runner.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <set>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

// A fresh, empty directory for the running test under the build tree.
std::string freshDir() {
  return testWorkDir();
}

bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

Bytes readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

std::vector<std::string> filesIn(const std::string& dir) {
  std::set<std::string> names;
  for (const auto& e : fs::directory_iterator(dir))
    if (e.is_regular_file())
      names.insert(e.path().filename().string());
  return {names.begin(), names.end()};
}

// Pixel rows written as text: '.' is 0, any other character 255; blanks ignored.
Bytes px(const char* text) {
  Bytes b;
  for (; *text; ++text)
    if (*text != ' ')
      b.push_back(*text == '.' ? 0 : 255);
  return b;
}

void put(Bytes& b, uint32_t v, int size) {
  for (int i = 0; i < size; ++i)
    b.push_back((v >> (8 * i)) & 0xFF);
}

// The 54 header bytes of a BMP, field by field.
Bytes bmpHeader(uint32_t offset, uint32_t width, uint32_t height, uint16_t bpp, uint32_t image,
                uint32_t colours) {
  Bytes b = {'B', 'M'};
  for (uint32_t v : {offset + image, 0u, offset, 40u, width, height})
    put(b, v, 4);
  put(b, 1, 2);
  put(b, bpp, 2);
  for (uint32_t v : {0u, image, 0u, 0u, colours, colours})
    put(b, v, 4);
  return b;
}

// Keeps what the printer language would receive.
class RecordingPrinter : public KiwaPrinter {
 public:
  using KiwaPrinter::KiwaPrinter;
  int calls = 0;
  unsigned long bpl = 0, height = 0, width = 0;
  Bytes bits;

 protected:
  void doPrintImage(unsigned char* b, unsigned long bytesPerLine, unsigned long h,
                    unsigned long w) override {
    ++calls;
    bpl = bytesPerLine;
    height = h;
    width = w;
    bits.assign(b, b + bytesPerLine * h);
  }
};

class PrinterFixture : public testing::Test {
 protected:
  PrinterFixture() : dir(freshDir()), paths{dir + "/spool", dir}, p(state, paths) {
    p.getOutputStreams().clear();
  }

  // PageProcess with the threshold method; returns the first `n` bytes of its output.
  Bytes process(const Bytes& page, int stride, int width, int height, size_t n) {
    Bytes out(2 * stride * height, 0xAA);
    log = captureLog([&] {
      result =
          p.PageProcess(DITHER_NONE, page.data(), stride, width, height, out.data(), out.size());
    });
    return Bytes(out.begin(), out.begin() + n);
  }

  std::string dir;
  PrinterPaths paths;
  PrinterState state;
  RecordingPrinter p;
  long result = 0;
  std::string log;
};

class PrinterSettings : public PrinterFixture {};
class PrinterOutput : public PrinterFixture {};
class GrayToMono : public PrinterFixture {};
class PageProcess : public PrinterFixture {};
class PrinterImage : public PrinterFixture {};
class BmpDebugImage : public PrinterFixture {};

TEST_F(PrinterSettings, ConstructorValuesAndClamps) {
  RecordingPrinter fresh(state, paths);
  EXPECT_EQ(fresh.getPrintSpeed(), 7);
  EXPECT_EQ(fresh.getPrintDensity(), 8);
  EXPECT_EQ(fresh.getAntiWrinkle(), 0);
  EXPECT_EQ(fresh.getOutputStreams(), std::vector<FILE*>{stdout});

  const struct {
    int in, brightnessAndContrast, density;
  } ints[] = {{-250, -100, 0}, {-101, -100, 0}, {-1, -1, 0},    {0, 0, 0},
              {15, 15, 15},    {16, 16, 15},    {100, 100, 15}, {101, 100, 15}};
  for (const auto& c : ints) {
    p.setBrightness(c.in);
    p.setContrast(c.in);
    p.setPrintDensity(c.in);
    EXPECT_EQ(p.getBrightness(), c.brightnessAndContrast) << c.in;
    EXPECT_EQ(p.getContrast(), c.brightnessAndContrast) << c.in;
    EXPECT_EQ(p.getPrintDensity(), c.density) << c.in;
  }
  // atoi reads leading digits only; a non-number is 0 and clamps to 1.
  const struct {
    const char* text;
    int speed;
  } speeds[] = {{"0", 1},   {"abc", 1}, {"-3", 1},  {"1", 1},
                {"15", 15}, {"16", 15}, {"99", 15}, {"12mm", 12}};
  for (const auto& c : speeds) {
    p.setPrintSpeed(c.text);
    EXPECT_EQ(p.getPrintSpeed(), c.speed) << c.text;
  }
}

TEST_F(PrinterOutput, EveryStreamReceivesTheSameBytesInFull) {
  char* data[2] = {nullptr, nullptr};
  size_t size[2] = {0, 0};
  FILE* streams[2] = {open_memstream(&data[0], &size[0]), open_memstream(&data[1], &size[1])};
  p.getOutputStreams() = {streams[0], streams[1]};
  EXPECT_EQ(p.printFormat("%d-%s", 5, "x"), 3);
  p.printStr("ab");
  p.printByte(0);
  const unsigned char raw[] = {0x1B, 0x00, 0xFF};
  p.printBytes(raw, sizeof raw);
  for (int i = 0; i < 2; ++i) {
    fclose(streams[i]);
    EXPECT_EQ(Bytes(data[i], data[i] + size[i]), (Bytes{'5', '-', 'x', 'a', 'b', 0, 0x1B, 0, 0xFF}))
        << "stream " << i;
    free(data[i]);
  }
}

TEST_F(PrinterOutput, EmptyListWritesNothing) {
  fflush(stdout);
  testing::internal::CaptureStdout();
  EXPECT_EQ(p.printFormat("%d-%s", 5, "x"), 0);
  p.printStr("ab");
  p.printByte('c');
  p.printBytes(reinterpret_cast<const unsigned char*>("de"), 2);
  fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(BlankLineCount, FrontAndBackOnThreeRowPages) {
  // 3 rows x 4 bytes. An inked fourth row follows in memory: the front
  // count's last test lands there and must read it as blank.
  const struct {
    const char* rows;
    size_t skip, front, back;
  } cases[] = {
      {".... .... ....", 0, 3, 0}, {".#.. .... ....", 0, 3, 1},  // the front count starts at row 1
      {".... #... ....", 0, 0, 2}, {".... .... ..#.", 0, 1, 3},
      {".... ...# ....", 1, 3, 0},  // the ink is in the skipped byte
      {".... ...# ....", 5, 0, 2},  // skip beyond the row: whole rows count
      {"#### #### ####", 4, 3, 0},  // skip equal to the row leaves nothing
  };
  for (const auto& c : cases) {
    Bytes mem = px(c.rows);
    mem.insert(mem.end(), 4, 0xFF);
    EXPECT_EQ(kiwaImageCountBlankLinesFromFront(mem.data(), 4, 3, c.skip, 4), c.front) << c.rows;
    EXPECT_EQ(kiwaImageCountBlankLinesFromBack(mem.data(), 4, 3, c.skip, 4), c.back) << c.rows;
  }
}

TEST_F(GrayToMono, PacksLeftmostPixelIntoTopBitAndSkipsRightBytes) {
  const struct {
    unsigned long skip;
    int rowBytes;
    const char* rows;  // two
    Bytes packed;
  } cases[] = {
      // Pixels 8 and 9 go to the two top bits of a second byte.
      {0, 10, "#.......## .........#", {0x80, 0xC0, 0x00, 0x40}},
      // 13 of 16 packed: pixels 13..15 are dropped, pixel 12 is bit 3.
      {3, 16, "################ ............####", {0xFF, 0xF8, 0x00, 0x08}},
      // A skip as large as the row is ignored.
      {16, 16, "################ ...............#", {0xFF, 0xFF, 0x00, 0x01}},
  };
  for (const auto& c : cases) {
    p.setSkipRightPixels(c.skip);
    Bytes buf = px(c.rows);
    int n = 0;
    log += captureLog([&] { n = p.GrayToMono(c.rowBytes, 2, buf.data()); });
    ASSERT_EQ(n, 4) << c.rows;
    EXPECT_EQ(Bytes(buf.begin(), buf.begin() + n), c.packed) << c.rows;
  }
  EXPECT_TRUE(has(log, "DEBUG:GrayToMono, bpl(16), h(2), skipPixels(3), wb(13)\n")) << log;
  EXPECT_TRUE(has(log, "DEBUG:GrayToMono, bpl(16), h(2), skipPixels(16), wb(16)\n")) << log;
}

TEST_F(PageProcess, CopyProcessedPixelsWidensOneAndComplementsWhenNegative) {
  CxImage img;
  const uint8_t pixels[] = {1, 0, 255, 7, 0, 1, 2, 254};
  ASSERT_TRUE(img.CreateFromArray(pixels, 4, 2, 8, 4, false));
  const uint8_t kPad = 0xAA;  // stride 5: the fifth byte of each row stays
  const Bytes plain = {255, 0, 255, 7, kPad, 0, 255, 2, 254, kPad};
  const Bytes negative = {0, 255, 0, 248, kPad, 255, 0, 253, 1, kPad};  // ~v after 1 -> 255
  for (bool neg : {false, true}) {
    p.setNegativePrint(neg);
    Bytes out(10, kPad);
    p.copyProcessedPixels(&img, out.data(), 4, 2, 5, out.size());
    EXPECT_EQ(out, neg ? negative : plain) << neg;
  }
}

TEST_F(PageProcess, ThresholdsByTheMethodArgumentIntoPaddedRows) {
  // Width 5 gives 8-byte processed rows; gray 129 and up is index 1, 255 in out.
  p.setUseRVDithering(true);
  const Bytes out = process({0, 128, 129, 255, 200, 255, 0, 0, 0, 0}, 5, 5, 2, 16);
  EXPECT_EQ(result, 16);
  EXPECT_EQ(Bytes(out.begin(), out.begin() + 5), (Bytes{0, 0, 255, 255, 255}));
  EXPECT_EQ(Bytes(out.begin() + 8, out.begin() + 13), (Bytes{255, 0, 0, 0, 0}));
  EXPECT_FALSE(p.getUseRVDithering());
  EXPECT_TRUE(has(log, "DEBUG:PageProcess: RV dithering is disabled\n"));
  EXPECT_TRUE(has(log, "processed pixels, length: 16\n"));
  ASSERT_NE(p.processedImage(), nullptr);
  EXPECT_EQ(p.processedImage()->GetWidth(), 5u);

  // The member only selects the RV chain. Gray 100 under the threshold is
  // black; method 1's matrix would have whitened 6 of 16 pixels.
  p.setHalftoneType(DITHER_FLOYD_STEINBERG);
  EXPECT_EQ(process(Bytes(16, 100), 4, 4, 4, 16), Bytes(16, 0));
}

TEST_F(PageProcess, BrightnessAndContrastAreScaledAndSkippedWhenZero) {
  const struct {
    int brightness, contrast;
    uint8_t gray, out;
    const char* line;  // null: Light must not run
  } cases[] = {
      {0, 0, 120, 0, nullptr},
      // Light(10, 0): 120 - 128 + 138 + 0.5 = 130.5 -> 130, above the threshold.
      {2, 0, 120, 255, "PageProcess: Adjusted brightness to 10 and contrast to 0\n"},
      // Light(0, -100): factor 0 maps every level to 128.5 -> 128, black.
      {0, -50, 255, 0, "PageProcess: Adjusted brightness to 0 and contrast to -100\n"},
  };
  for (const auto& c : cases) {
    p.setBrightness(c.brightness);
    p.setContrast(c.contrast);
    EXPECT_EQ(process(Bytes(4, c.gray), 4, 4, 1, 4), Bytes(4, c.out)) << c.brightness;
    EXPECT_EQ(has(log, "Adjusted"), c.line != nullptr) << log;
    EXPECT_TRUE(!c.line || has(log, c.line)) << log;
  }
}

TEST_F(PageProcess, RotationAndMirrorFlipThePage) {
  const Bytes page = px("##.. ...#");  // 4 x 2
  const struct {
    bool rotate, mirror;
    const char* out;
  } cases[] = {
      {false, false, "##.. ...#"},
      {true, false, "#... ..##"},  // (x, y) -> (3 - x, 1 - y)
      {false, true, "..## #..."},  // (x, y) -> (3 - x, y)
      {true, true, "...# ##.."},   // both: rows swap, columns stay
  };
  for (const auto& c : cases) {
    p.setRotate180Print(c.rotate);
    p.setMirrorPrint(c.mirror);
    EXPECT_EQ(process(page, 4, 4, 2, 8), px(c.out)) << c.rotate << c.mirror;
    const size_t rotated = log.find("PageProcess: Rotated the image 180 degrees");
    const size_t mirrored = log.find("PageProcess: Mirrored the image");
    EXPECT_EQ(rotated != std::string::npos, c.rotate);
    EXPECT_EQ(mirrored != std::string::npos, c.mirror);
    // The flips commute on pixels, so only the log shows the order.
    EXPECT_TRUE(!(c.rotate && c.mirror) || rotated < mirrored) << log;
  }
}

TEST_F(PageProcess, NegativeInvertsTheImageAndTheCopyInvertsItBack) {
  p.setNegativePrint(true);
  const Bytes out = process(px(".#.#"), 4, 4, 1, 4);
  // Indices 0 1 0 1 complemented in the image: 255 254 255 254; the copy
  // complements again (255 is not widened): 0 1 0 1.
  ASSERT_NE(p.processedImage(), nullptr);
  const uint8_t* bits = p.processedImage()->GetBits(0);
  EXPECT_EQ(Bytes(bits, bits + 4), (Bytes{255, 254, 255, 254}));
  EXPECT_EQ(out, (Bytes{0, 1, 0, 1}));
  EXPECT_TRUE(has(log, "DEBUG:PageProcess: negativePrint_ 1\n"));
  EXPECT_TRUE(has(log, "DEBUG:PageProcess: Inverting the image for negative print\n"));
}

TEST_F(PrinterImage, TrimBitsChangeTheLogButNotThePrintedPage) {
  // Ink only in row 2 of 4: the front count (from row 1) finds it at i = 1,
  // the back count returns 3, one past it.
  const Bytes page = px(".... .... .#.. ....");
  const struct {
    unsigned char bits;
    const char *bottom, *top, *adjusted;
  } cases[] = {
      {0, nullptr, nullptr, nullptr},
      {2, nullptr, "number of top blank lines: 1\n", nullptr},  // bottom 0 is not above 1
      {8, "number of bottom blank lines: 3\n", nullptr, "height to 3, pointer offset by 0 bytes"},
      {10, "number of bottom blank lines: 3\n", "number of top blank lines: 1\n",
       "height to 2, pointer offset by 4 bytes"},
  };
  for (const auto& c : cases) {
    p.setRemoveBlankEdges(c.bits);
    log = captureLog([&] { p.printImage(page.data(), 4, 4, 4); });
    EXPECT_EQ(has(log, "Removal of bottom blank edges"), c.bottom != nullptr) << log;
    EXPECT_EQ(has(log, "Removal of top blank edges"), c.top != nullptr) << log;
    EXPECT_EQ(has(log, "printImage: Adjusted image"), c.adjusted != nullptr) << log;
    for (const char* part : {c.bottom, c.top, c.adjusted})
      EXPECT_TRUE(!part || has(log, part)) << log;
  }
  EXPECT_EQ(p.calls, 4);
  EXPECT_EQ(p.bpl, 4u);
  EXPECT_EQ(p.height, 4u);
  EXPECT_EQ(p.width, 4u);
  EXPECT_EQ(p.bits, (Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0}));
}

TEST_F(PrinterImage, UnprocessablePageSkipsDebugSaveAndPrinting) {
  // Width 0 cannot become an image, so no page has been processed yet.
  log = captureLog([&] { p.printImage(Bytes(4, 255).data(), 4, 1, 0); });
  EXPECT_TRUE(has(log, "CRIT:cximage.CreateFromArray with grey failed!\n"));
  EXPECT_TRUE(has(log, "ERROR:printImage: pimage is NULL, unable to print the image\n"));
  EXPECT_EQ(p.calls, 0);
  EXPECT_EQ(state.page_index, 1);  // the page as read was still saved
  const auto files = filesIn(dir);
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(files[0].rfind("origin_", 0), 0u);
}

TEST_F(BmpDebugImage, EightBitFileHasRampPaletteAndRawPixelBytes) {
  // Width 10, rows 12 bytes apart: the header says row size 12, image 24,
  // but the file carries the first 10 x 2 bytes of the buffer as they lie.
  Bytes data(24);
  for (int i = 0; i < 24; ++i)
    data[i] = static_cast<uint8_t>(i);
  p.saveImage(data.data(), 12, 2, 10, 8);
  const auto files = filesIn(dir);
  ASSERT_EQ(files.size(), 1u);
  Bytes expected = bmpHeader(1078, 10, 2, 8, 24, 256);
  for (int i = 0; i < 256; ++i)
    expected.insert(expected.end(), {uint8_t(i), uint8_t(i), uint8_t(i), 0});
  expected.insert(expected.end(), data.begin(), data.begin() + 20);
  EXPECT_EQ(readFile(dir + "/" + files[0]), expected);
}

TEST_F(BmpDebugImage, OneBitRowsRunLastToFirstWithZeroAsWhite) {
  // Row 0: 0 1 0 1 0 1 0 1 | 1 0  -> AA, then 40 | 3F (unused low bits set) = 7F
  // Row 1: eight 9s | 0 9         -> 00, then 80 | 3F = BF
  const Bytes data = {0, 1, 0, 1, 0, 1, 0, 1, 1, 0, 9, 9, 9, 9, 9, 9, 9, 9, 0, 9};
  p.saveImage(data.data(), 10, 2, 10, 1);
  const auto files = filesIn(dir);
  ASSERT_EQ(files.size(), 1u);
  Bytes expected = bmpHeader(62, 10, 2, 1, 8, 0);  // rows of 2 bytes padded to 4
  expected.insert(expected.end(), {0, 0, 0, 0, 255, 255, 255, 0});
  expected.insert(expected.end(), {0x00, 0xBF, 0, 0, 0xAA, 0x7F, 0, 0});
  EXPECT_EQ(readFile(dir + "/" + files[0]), expected);
}

TEST_F(BmpDebugImage, NamesCarryLocalTimeAndTheProcessWideIndex) {
  const Bytes page(16, 0);
  const time_t from = time(nullptr);
  p.saveImage(page.data(), 4, 4, 4, 8);
  p.saveImage(page.data(), 4, 4, 4, 8);
  {
    RecordingPrinter second(state, paths);  // the counter belongs to the process
    second.getOutputStreams().clear();
    captureLog([&] { second.printImage(page.data(), 4, 4, 4); });
  }
  const time_t to = time(nullptr);
  EXPECT_EQ(state.page_index, 4);
  const auto files = filesIn(dir);
  ASSERT_EQ(files.size(), 4u);
  const char* prefixes[] = {"prnimg_", "prnimg_", "origin_", "dithered_"};
  for (int i = 0; i < 4; ++i) {
    // year-month-day_hour_minute_second_index, unpadded, for any second passed
    std::set<std::string> names;
    for (time_t t = from; t <= to; ++t) {
      struct tm tm;
      localtime_r(&t, &tm);
      char name[96];
      snprintf(name, sizeof name, "%s%d-%d-%d_%d_%d_%d_%d.bmp", prefixes[i], tm.tm_year + 1900,
               tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, i);
      names.insert(name);
    }
    int found = 0;
    for (const auto& f : files)
      found += names.count(f);
    EXPECT_EQ(found, 1) << prefixes[i] << i;
  }
}

TEST_F(BmpDebugImage, IndexAdvancesWhenTheFileCannotBeOpened) {
  RecordingPrinter q(state, PrinterPaths{dir + "/spool", dir + "/missing"});
  testing::internal::CaptureStderr();
  q.saveImage(Bytes(4, 0).data(), 4, 1, 4, 8);
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(
      has(err, "KiwaPrinter::saveImage: unable to open the file " + dir + "/missing/prnimg_"))
      << err;
  EXPECT_EQ(state.page_index, 1);
  EXPECT_FALSE(fs::exists(dir + "/missing"));
}

}  // namespace
