// The fast pixel paths against the straightforward per-pixel ones: the same
// generated pages with every option that changes the road must give the same
// processed image, debug images and page record, byte for byte.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "printer/ostra_printer.h"
#include "tests/support/filter_runner.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

enum Pattern { kNoise, kGradient, kText, kBars };

struct Shape {
  int width, height, extraStride;
  Pattern pattern;
};

// Every width modulo 8 (and modulo 4, which moves the packed rows), one row,
// one column, strides past the width, and pages wide enough for long runs.
const Shape kShapes[] = {
    {1, 1, 0, kNoise},    {1, 40, 0, kGradient},   {40, 1, 0, kNoise},    {2, 9, 1, kText},
    {3, 17, 0, kNoise},   {4, 6, 2, kBars},        {5, 23, 0, kGradient}, {6, 12, 5, kNoise},
    {7, 31, 0, kText},    {9, 11, 3, kNoise},      {61, 37, 3, kNoise},   {64, 48, 0, kBars},
    {203, 151, 1, kText}, {250, 90, 0, kGradient}, {340, 70, 7, kBars},   {333, 120, 0, kNoise},
};

// Padding bytes past the width get noise too: no path may let them through.
Bytes makePage(const Shape& s, uint32_t seed) {
  const int stride = s.width + s.extraStride;
  Bytes page(static_cast<size_t>(stride) * s.height);
  std::mt19937 rng(seed);
  std::vector<uint8_t> bar(static_cast<size_t>(stride));
  for (int x = 0; x < stride; ++x)
    bar[x] =
        (x == 0 || rng() % 3 != 0) ? (x > 0 ? bar[x - 1] : 255) : (x > 0 ? 255 - bar[x - 1] : 0);
  for (int y = 0; y < s.height; ++y) {
    for (int x = 0; x < stride; ++x) {
      uint8_t v = static_cast<uint8_t>(rng());
      if (x < s.width && s.pattern == kGradient)
        v = static_cast<uint8_t>(x * 255 / std::max(1, s.width - 1) + y * 3);
      if (x < s.width && s.pattern == kText)  // strokes with soft edges on white
        v = (x % 11 < 2 && y % 13 < 9) || (x / 3 + y / 5) % 7 == 0 ? 255 : x % 11 == 2 ? 128 : 0;
      if (x < s.width && s.pattern == kBars)
        v = y % 29 == 28 ? 0 : bar[x];
      page[static_cast<size_t>(y) * stride + x] = v;
    }
  }
  return page;
}

struct Options {
  const char* name;
  int brightness, contrast;
  bool rotate, mirror, negative;
  int antiWrinkle, barcode;
  unsigned long skipRightPixels;
};

const Options kOptions[] = {
    {"plain", 0, 0, false, false, false, 0, 0, 0},
    {"brightness and contrast", 30, -40, false, false, false, 0, 0, 0},
    {"darker, rotated", -25, 60, true, false, false, 0, 0, 0},
    {"mirrored negative", 0, 0, false, true, true, 0, 0, 0},
    {"frame", 0, 0, false, false, false, 2, 0, 0},
    {"bars by rows", 0, 0, false, false, false, 0, 1, 0},
    {"bars by columns, skipped bytes", 0, 0, true, true, false, 0, 2, 5},
};

void appendFiles(const std::string& dir, std::vector<std::string>& out) {
  if (!fs::exists(dir))
    return;
  for (const auto& entry : fs::directory_iterator(dir))
    if (entry.is_regular_file())
      out.push_back(readFile(entry.path()));
}

// Everything one page leaves behind: the files written, the processed image
// among them as its debug BMP (debug image names hold the time, so their
// contents are compared as a set).
std::vector<std::string> printPage(KiwaPixelPath path, const std::string& dir, const Shape& shape,
                                   const Bytes& page, const Options& o, int method) {
  kiwaSetPixelPath(path);
  PrinterState state;
  OstraPrinter p(state, PrinterPaths{dir + "/spool", dir + "/img"});
  fs::create_directories(dir + "/img");
  Settings settings{};
  cups_page_header2_t header{};
  strcpy(settings.PaperType, "LabelGaps");
  strcpy(settings.JobId, "42");
  settings.MaxMediaWidth = 576;
  header.HWResolution[0] = header.HWResolution[1] = 203;
  strcpy(header.cupsPageSizeName, "Tattoo_A6");
  p.getOutputStreams().clear();
  p.setSettings(&settings);
  p.setPageHeader(&header);
  p.setHalftoneType(static_cast<DitherType>(method));
  p.setBrightness(o.brightness);
  p.setContrast(o.contrast);
  p.setRotate180Print(o.rotate);
  p.setMirrorPrint(o.mirror);
  p.setNegativePrint(o.negative);
  p.setAntiWrinkle(o.antiWrinkle);
  p.setVBarcodeOpt(o.barcode);
  p.setSkipRightPixels(o.skipRightPixels);
  captureLog([&] {
    p.printImage(page.data(), shape.width + shape.extraStride, shape.height, shape.width);
  });
  kiwaSetPixelPath(KiwaPixelPath::Fast);

  std::vector<std::string> files;
  appendFiles(dir + "/spool", files);
  appendFiles(dir + "/img", files);
  std::sort(files.begin(), files.end());
  fs::remove_all(dir);
  return files;
}

TEST(FastPaths, MatchTheReferenceByteForByte) {
  const std::string dir = testWorkDir();
  int compared = 0;
  for (const Shape& shape : kShapes) {
    const Bytes page = makePage(shape, static_cast<uint32_t>(shape.width * 131 + shape.height));
    for (const Options& o : kOptions) {
      for (int method = 0; method < kHalftoneTypeCount; ++method) {
        const auto reference =
            printPage(KiwaPixelPath::Reference, dir + "/reference", shape, page, o, method);
        ASSERT_EQ(reference.size(), 3u) << "two debug images and a record";
        // With and without the instructions picked at run time.
        for (KiwaPixelPath path : {KiwaPixelPath::Fast, KiwaPixelPath::Baseline}) {
          EXPECT_TRUE(printPage(path, dir + "/fast", shape, page, o, method) == reference)
              << shape.width << " x " << shape.height << " + " << shape.extraStride << ", "
              << o.name << ", " << kiwaHalftoneTypeToStr(static_cast<DitherType>(method))
              << (path == KiwaPixelPath::Fast ? "" : ", baseline");
        }
        ++compared;
      }
    }
  }
  EXPECT_EQ(compared, 16 * 7 * 10);
}

}  // namespace
