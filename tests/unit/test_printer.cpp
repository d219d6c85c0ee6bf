// The printer object where the golden jobs cannot reach: a page short of
// memory at each allocation, the barcode touch-ups on hand-made pages, the
// page checks at each limit, and a job's records kept in memory.
// (Rotation, contrast, trims, skips and the frame are set by no front end.)
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "printer/ostra_job.h"
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
      bool printed = false;
      log = captureLog([&] { printed = p.printImage(page.data(), 1024, 600, 1024); });
      sCounting = false;
      const std::string record = readFile(dir + "/spool/page_0001_jobid_000042_0000.dat");
      state.PageNum = 1;
      if (failAt >= 0 && sLargeAllocations <= failAt)
        break;  // every allocation of the page has failed once
      if (failAt < 0)
        reference = record;
      else if (record.empty())
        EXPECT_TRUE(!printed && log.find("ERROR:") != std::string::npos) << failAt;
      else
        EXPECT_EQ(record, reference) << method << ", allocation " << failAt << " failed";
    }
    EXPECT_GE(failAt, 5) << method;  // the allocator did count
  }
#endif
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

// Each limit of a page header: exactly at it the page prints, one past it is
// refused naming the field; a zero height or row size ends the pages.
TEST(Job, PageHeaderAtEachLimit) {
  using Header = cups_page_header2_t;
  using Check = OstraJob::Check;
  const struct {
    void (*change)(Header&);
    Check check;
    const char* why;
  } cases[] = {
      {[](Header&) {}, Check::Print, ""},
      {[](Header& h) { h.cupsWidth = h.cupsBytesPerLine = 4096; }, Check::Print, ""},
      {[](Header& h) { h.cupsWidth = h.cupsBytesPerLine = 4097; }, Check::Refused,
       "cupsWidth is 4097, must be 1 to 4096"},
      {[](Header& h) { h.cupsWidth = 0; }, Check::Refused, "cupsWidth is 0, must be 1 to 4096"},
      {[](Header& h) { h.cupsHeight = 32767; }, Check::Print, ""},
      {[](Header& h) { h.cupsHeight = 32768; }, Check::Refused,
       "cupsHeight is 32768, must be 1 to 32767"},
      {[](Header& h) { h.cupsHeight = 0; }, Check::EndOfPages, ""},
      {[](Header& h) { h.cupsBytesPerLine = 4096; }, Check::Print, ""},
      {[](Header& h) { h.cupsBytesPerLine = 4097; }, Check::Refused,
       "cupsBytesPerLine is 4097, must be 100 to 4096"},
      {[](Header& h) { h.cupsBytesPerLine = 99; }, Check::Refused,
       "cupsBytesPerLine is 99, must be 100 to 4096"},
      {[](Header& h) { h.cupsBytesPerLine = 0; }, Check::EndOfPages, ""},
      {[](Header& h) { h.HWResolution[0] = h.HWResolution[1] = 1200; }, Check::Print, ""},
      {[](Header& h) { h.HWResolution[0] = 1201; }, Check::Refused,
       "HWResolution[0] is 1201, must be 1 to 1200"},
      {[](Header& h) { h.HWResolution[1] = 0; }, Check::Refused,
       "HWResolution[1] is 0, must be 1 to 1200"},
      {[](Header& h) { h.cupsBitsPerPixel = 1; }, Check::Refused,
       "Unsupported bits per pixel : 1 ! Requires 8 bits per pixel!"},
      {[](Header& h) { h.cupsBitsPerPixel = 16; }, Check::Refused,
       "Unsupported bits per pixel : 16 ! Requires 8 bits per pixel!"},
  };
  for (const auto& c : cases) {
    Header h{};
    h.cupsWidth = h.cupsBytesPerLine = 100;
    h.cupsHeight = 50;
    h.cupsBitsPerPixel = 8;
    h.HWResolution[0] = h.HWResolution[1] = 203;
    c.change(h);
    std::string why;
    EXPECT_EQ(OstraJob::checkPage(h, &why), c.check) << c.why;
    // Header fields come after "Unsupported page header: ".
    const size_t n = strlen(c.why);
    EXPECT_EQ(why.size() < n ? why : why.substr(why.size() - n), c.why);
    EXPECT_EQ(why.empty(), n == 0) << why;
  }
}

// A job into memory keeps the bytes the same job writes to the page
// directory, and leaves the directory and its stored counter alone.
TEST(Job, MemoryRecordsAreTheFileRecords) {
  const std::string dir = testWorkDir();
  Settings settings{};
  strcpy(settings.PaperType, "LabelGaps");
  settings.PrintSpeed = 4;
  strcpy(settings.PrinterName, "ostra");
  settings.pageWidth = settings.pageHeight = 50.0f;
  settings.maxMediaWidthMm = 215.9f;
  cups_page_header2_t header{};
  header.cupsWidth = 390;
  header.cupsHeight = 300;
  header.cupsBytesPerLine = 390;
  header.cupsBitsPerPixel = header.cupsBitsPerColor = 8;
  header.HWResolution[0] = header.HWResolution[1] = 203;
  for (DitherType halftone : {DITHER_BURKES, DITHER_TATTOO}) {
    settings.halftoneType = halftone;
    auto run = [&](RecordSink* records) {
      PrinterState state;
      OstraJob job(state, PrinterPaths{dir + "/spool", dir, false}, settings, "7", records);
      EXPECT_TRUE(job.allocatePage(header) && job.beginPage());
      for (size_t i = 0; i < job.pageBytes(); ++i)
        job.rows()[i] = static_cast<unsigned char>(i * 29 % 256);
      EXPECT_TRUE(job.printPage(1));
      EXPECT_TRUE(job.finish());
    };
    std::filesystem::remove_all(dir + "/spool");
    captureLog([&] { run(nullptr); });
    const std::string file = readFile(dir + "/spool/page_0001_jobid_000007_0000.dat");
    const std::string counter = readFile(dir + "/spool/ostra.pgc");
    MemoryRecordSink memory;
    captureLog([&] { run(&memory); });
    ASSERT_EQ(memory.records().size(), 1u);
    const MemoryRecordSink::Record& kept = memory.records()[0];
    EXPECT_EQ(std::string(kept.bytes.begin(), kept.bytes.end()), file) << halftone;
    EXPECT_EQ(kept.pageNum, 1);
    EXPECT_EQ(kept.jobId, 7);
    EXPECT_EQ(memory.counter(), 2);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir + "/spool"), {}), 2);
    EXPECT_EQ(readFile(dir + "/spool/ostra.pgc"), counter);
  }
}

}  // namespace
