#include "printer/ostra_printer.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include "tests/support/filter_runner.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

// A fresh directory for the running test, with room for its debug images.
std::string freshDir() {
  const std::string dir = testWorkDir();
  fs::create_directories(dir + "/images");
  return dir;
}

Bytes readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

void writeFile(const std::string& path, const Bytes& b) {
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(b.data()), b.size());
}

Bytes slice(const Bytes& b, size_t from, size_t n) {
  return from + n <= b.size() ? Bytes(b.begin() + from, b.begin() + from + n) : Bytes();
}

// What `body` writes to each of `count` output streams of the printer; the
// log goes nowhere meanwhile.
std::vector<Bytes> captureOutput(KiwaPrinter& p, int count, const std::function<void()>& body) {
  std::vector<char*> data(count, nullptr);
  std::vector<size_t> size(count, 0);
  p.getOutputStreams().clear();
  for (int i = 0; i < count; ++i)
    p.getOutputStreams().push_back(open_memstream(&data[i], &size[i]));
  FILE* devNull = fopen("/dev/null", "w");
  kiwaLogSetStream(devNull);
  body();
  kiwaLogSetStream(nullptr);
  fclose(devNull);
  std::vector<Bytes> out;
  for (int i = 0; i < count; ++i) {
    fclose(p.getOutputStreams()[i]);
    out.emplace_back(data[i], data[i] + size[i]);
    free(data[i]);
  }
  p.getOutputStreams().clear();
  return out;
}

// One row record: black-dot count (low byte first), margin zeros, packed row.
Bytes record(uint16_t dots, size_t margin, const Bytes& packed) {
  Bytes r = {uint8_t(dots & 0xFF), uint8_t(dots >> 8)};
  r.insert(r.end(), margin, 0);
  r.insert(r.end(), packed.begin(), packed.end());
  return r;
}

class OstraFixture : public testing::Test {
 protected:
  OstraFixture() : dir(freshDir()), paths{dir + "/spool", dir + "/images"} {
    printer = makePrinter(state);
    strcpy(settings.PaperType, "LabelGaps");
    strcpy(settings.PrintSpeed, "4");
    settings.Darkness = 1;
    settings.GapsHeight = 3;
    strcpy(settings.JobId, "42");
    strcpy(settings.PrinterName, "Label1");
    settings.MaxMediaWidth = 576;  // dots, as the driver leaves it per page
  }
  std::unique_ptr<OstraPrinter> makePrinter(PrinterState& s) {
    auto p = std::make_unique<OstraPrinter>(s, paths);
    p->getOutputStreams().clear();
    p->setSettings(&settings);
    p->setPageHeader(&header);
    return p;
  }

  // The driver's per-page step at 203 dpi: the size in millimetres, as floats.
  void setPage(int w, int h) {
    header.HWResolution[0] = header.HWResolution[1] = 203;
    header.cupsWidth = w;
    header.cupsHeight = h;
    header.cupsBytesPerLine = w;
    header.cupsBitsPerPixel = 8;
    settings.pageWidth = static_cast<float>(w * 25.4 / 203);
    settings.pageHeight = static_cast<float>(h * 25.4 / 203);
  }

  // jobSetup and printImage for one page, as the driver runs them.
  void printPage(OstraPrinter& p, const Bytes& page, int w, int h) {
    setPage(w, h);
    captureOutput(p, 0, [&] {
      jobSetup(&p, &settings);
      p.printImage(page.data(), w, h, w);
    });
  }

  std::string pageFile(int pageNum, int suffix) const {
    char name[64];
    snprintf(name, sizeof name, "/page_%04d_jobid_000042_%04d.dat", pageNum, suffix);
    return paths.spoolDir + name;
  }
  std::string counterFile() const { return paths.spoolDir + "/Label1.pgc"; }

  std::string dir;
  PrinterPaths paths;
  PrinterState state;
  Settings settings{};
  cups_page_header2_t header{};
  std::unique_ptr<OstraPrinter> printer;
};

class OstraPrintSetting : public OstraFixture {};
class OstraPageRecord : public OstraFixture {};
class OstraPageCounter : public OstraFixture {};

TEST_F(OstraPrintSetting, BlockComesFromJobSettingsToEveryStream) {
  // The printer's own speed and density must not leak into the block.
  printer->setPrintSpeed("9");
  printer->setPrintDensity(0);
  const struct {
    const char* speed;
    int darkness;
    uint8_t speedByte;
  } cases[] = {
      {"4", 1, 2}, {"2", 0, 0},   {"5", 2, 3},   {"1", 1, 1},
      {"0", 1, 0}, {"15", 0, 13}, {"257", 2, 1},  // 257 mod 256 = 1, below 2: sent as is
  };
  for (const auto& c : cases) {
    strcpy(settings.PrintSpeed, c.speed);
    settings.Darkness = c.darkness;
    const Bytes block = {0x1B, 0x73, 0x01, 0x00, 0x00, c.speedByte, uint8_t(c.darkness)};
    bool sent = false;
    auto out = captureOutput(*printer, 2, [&] { sent = printer->SendPrintSetting(); });
    EXPECT_TRUE(sent);
    EXPECT_EQ(out[0], block) << c.speed;
    EXPECT_EQ(out[1], block) << c.speed;
    // jobSetup sends it exactly once more.
    out = captureOutput(*printer, 2, [&] { jobSetup(printer.get(), &settings); });
    EXPECT_EQ(out[0], block) << c.speed;
    EXPECT_EQ(out[1], block) << c.speed;
  }
}

TEST_F(OstraPageRecord, LabelOf576By400DotsAt203Dpi) {
  state.PageNum = 7;
  // Gray 255 becomes a dot. Row 0: three dots at the left; row 1: all 576;
  // row 2: the last pixel only; the rest blank.
  Bytes page(576 * 400, 0);
  page[0] = page[1] = page[2] = 255;
  std::fill(page.begin() + 576, page.begin() + 2 * 576, 255);
  page[2 * 576 + 575] = 255;
  setPage(576, 400);
  const auto out = captureOutput(*printer, 1, [&] {
    jobSetup(printer.get(), &settings);
    printer->printImage(page.data(), 576, 400, 576);
  });
  // The output stream gets the print-setting block and nothing of the page.
  EXPECT_EQ(out[0], (Bytes{0x1B, 0x73, 0x01, 0x00, 0x00, 0x02, 0x01}));
  EXPECT_EQ(state.PageNum, 8);

  const Bytes file = readFile(pageFile(7, 0));
  ASSERT_EQ(file.size(), 22u + 74 * 400);  // rows of 72 packed bytes + 2, no margin
  const Bytes head = {
      'S',  'I',  'Z',  0x01,  // LabelGaps
      0x40, 0x02,              // 576 dots wide
      0x8F, 0x01,              // 400 rows -> 50.049 mm -> 399.99998 -> 399
      0x17, 0x00,              // 3 mm gap: 23.98 -> 23
      0x00, 0x00, 0x07, 0x00,  // PageNum 7
      0x1D, 0x76, 0x30, 0x00,  // GS v 0
      0x4A, 0x00, 0x90, 0x01,  // 74 bytes per row, 400 rows
  };
  EXPECT_EQ(slice(file, 0, 22), head);
  Bytes lastOnly(72, 0);
  lastOnly[71] = 0x01;
  Bytes threeLeft(72, 0);
  threeLeft[0] = 0xE0;
  EXPECT_EQ(slice(file, 22, 74), record(3, 0, threeLeft));
  EXPECT_EQ(slice(file, 22 + 74, 74), record(576, 0, Bytes(72, 0xFF)));
  EXPECT_EQ(slice(file, 22 + 2 * 74, 74), record(1, 0, lastOnly));
  EXPECT_EQ(slice(file, 22 + 3 * 74, 74), Bytes(74, 0));
  EXPECT_EQ(slice(file, 22 + 399 * 74, 74), Bytes(74, 0));

  // The spool directory is made on the first page, private to its owner.
  struct stat st;
  ASSERT_EQ(stat(paths.spoolDir.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
}

TEST_F(OstraPageRecord, LabelSizeBlockFields) {
  const struct {
    const char* paperType;
    uint8_t code;
  } media[] = {{"LabelGaps", 1}, {"LabelMark", 2}, {"Continue", 0}, {"continue", 1}, {"", 1}};
  setPage(576, 400);
  for (const auto& m : media) {
    strcpy(settings.PaperType, m.paperType);
    captureOutput(*printer, 0, [&] { EXPECT_TRUE(printer->OTCSendPaperInfo()); });
    EXPECT_EQ(state.bLabelInfo[3], m.code) << m.paperType;
  }
  // 812 dots -> 101.6 mm as a float (101.59999847) -> 811.99999 -> 811.
  setPage(812, 8);
  settings.GapsHeight = 0;
  state.PageNum = 300;
  captureOutput(*printer, 0, [&] { printer->OTCSendPaperInfo(); });
  const Bytes fields(state.bLabelInfo + 4, state.bLabelInfo + 14);
  EXPECT_EQ(fields, (Bytes{0x2B, 0x03, 0x08, 0x00, 0x00, 0x00, 0x00, 0x00, 0x2C, 0x01}));
  EXPECT_EQ(Bytes(state.bLabelInfo, state.bLabelInfo + 3), (Bytes{'S', 'I', 'Z'}));
}

TEST_F(OstraPageRecord, MarginCentresThePageOnTheMediaWidth) {
  const struct {
    float media;
    long width, rowBytes, margin;
  } cases[] = {
      {576, 476, 60, 7},  // 100 narrower: (50 + 7) / 8 = 7.125 -> 7
      {576, 480, 60, 6},  // (48 + 7) / 8 = 6.875 -> 6
      {600, 576, 72, 2},  // (12 + 7) / 8 -> 2
      {577, 576, 72, 0},  // (0.5 + 7) / 8 -> 0
      {500, 576, 72, 0},  // wider than the media
      {0, 576, 72, 0},    // no media width known
  };
  for (const auto& c : cases) {
    settings.MaxMediaWidth = c.media;
    // Row 0 has two dots per byte, row 1 none.
    Bytes bits(c.rowBytes, 0x81);
    bits.resize(2 * c.rowBytes, 0);
    const long size = 2 * (c.rowBytes + 2 + c.margin);
    EXPECT_EQ(printer->CalcBlackPoints(bits.data(), bits.size(), {c.width, 2}, nullptr, 0), size)
        << c.media << " " << c.width;
    Bytes out(size, 0xAA);  // a buffer of the wrong size is left alone
    printer->CalcBlackPoints(bits.data(), bits.size(), {c.width, 2}, out.data(), size - 1);
    EXPECT_EQ(out, Bytes(size, 0xAA));
    printer->CalcBlackPoints(bits.data(), bits.size(), {c.width, 2}, out.data(), size);
    Bytes expected = record(2 * c.rowBytes, c.margin, Bytes(c.rowBytes, 0x81));
    const Bytes blank = record(0, c.margin, Bytes(c.rowBytes, 0));
    expected.insert(expected.end(), blank.begin(), blank.end());
    EXPECT_EQ(out, expected) << c.media << " " << c.width;
  }
}

TEST_F(OstraPageCounter, ReloadedPerPageStoredAtJobEndAcrossJobs) {
  const Bytes page(8 * 2, 255);
  // First job, no counter stored yet: pages count up in memory from 1.
  printPage(*printer, page, 8, 2);
  printPage(*printer, page, 8, 2);
  jobEnd(printer.get(), &settings);
  EXPECT_TRUE(fs::exists(pageFile(1, 0)));
  EXPECT_TRUE(fs::exists(pageFile(2, 0)));
  EXPECT_EQ(readFile(counterFile()), (Bytes{3, 0}));

  // Second job in a new process: every page reloads 3, so the names differ
  // only in their suffix, and the stored value moves on by one.
  PrinterState second;
  auto next = makePrinter(second);
  printPage(*next, page, 8, 2);
  EXPECT_EQ(second.PageNum, 4);
  printPage(*next, page, 8, 2);
  jobEnd(next.get(), &settings);
  EXPECT_EQ(readFile(counterFile()), (Bytes{4, 0}));
  const Bytes again = readFile(pageFile(3, 1));
  EXPECT_EQ(slice(again, 12, 2), (Bytes{3, 0}));
  EXPECT_TRUE(fs::exists(pageFile(3, 0)));
  EXPECT_FALSE(fs::exists(pageFile(4, 0)));
}

TEST_F(OstraPageCounter, JobEndWrapsAt9000) {
  fs::create_directories(paths.spoolDir);
  const struct { uint16_t before, stored; } cases[] = {{8999, 8999}, {9000, 1}, {65535, 1}};
  for (const auto& c : cases) {
    state.PageNum = c.before;
    jobEnd(printer.get(), &settings);
    EXPECT_EQ(readFile(counterFile()), (Bytes{uint8_t(c.stored & 0xFF), uint8_t(c.stored >> 8)}))
        << c.before;
    EXPECT_EQ(state.PageNum, c.stored);
  }
  // A stored counter overrides the one in memory at the next page.
  writeFile(counterFile(), {0x34, 0x12});
  captureOutput(*printer, 1, [&] { jobSetup(printer.get(), &settings); });
  EXPECT_EQ(state.PageNum, 0x1234);
}

TEST_F(OstraPageCounter, JobEndWithoutSpoolDirectoryDoesNothing) {
  state.PageNum = 5;
  jobEnd(printer.get(), &settings);
  EXPECT_FALSE(fs::exists(paths.spoolDir));
  EXPECT_EQ(state.PageNum, 5);
}

}  // namespace
