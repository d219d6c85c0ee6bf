// The built filter run as CUPS runs it, inside a private mount namespace.
#include <cups/raster.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/filter_runner.h"
#include "tests/support/raster_writer.h"

namespace {

const std::string kPpd = std::string(OSTRA_SOURCE_DIR) + "/ppd/ostra.ppd";
const std::string kSamplePdf = std::string(OSTRA_SOURCE_DIR) + "/samples/sample.pdf";

FilterCall job(const std::string& options = "", std::optional<std::string> file = std::nullopt) {
  FilterCall call;
  call.args = {"42", "artist", "stencil", "1", options};
  if (file)
    call.args.push_back(*file);
  call.env["PPD"] = kPpd;
  call.env["PRINTER"] = "ostra-test";
  return call;
}

std::string writeRaster(const std::vector<TestPage>& pages,
                        cups_mode_t mode = CUPS_RASTER_WRITE_COMPRESSED) {
  static int n = 0;
  const std::string path = testWorkDir() + "/in" + std::to_string(++n) + ".ras";
  std::string error;
  EXPECT_TRUE(writeRasterFile(path, pages, &error, mode)) << error;
  return path;
}

int countLinesStartingWith(const std::string& text, const std::string& prefix) {
  int n = 0;
  for (const std::string& line : splitLines(text))
    n += line.rfind(prefix, 0) == 0 ? 1 : 0;
  return n;
}

// What a sanitizer or a crash leaves behind; none of it may ever appear.
void expectNoCrash(const FilterRun& run) {
  ASSERT_TRUE(run.error.empty()) << run.error;
  EXPECT_TRUE(run.status == 0 || run.status == 1) << "status " << run.status << "\n" << run.err;
  EXPECT_EQ(run.err.find("Sanitizer"), std::string::npos) << run.err;
  EXPECT_EQ(run.err.find("runtime error"), std::string::npos) << run.err;
}

std::string geometryLine(unsigned w, unsigned h) {
  return "cupsWidth:" + std::to_string(w) + ", cupsHeight:" + std::to_string(h) +
         ", cupsBytesPerLine:" + std::to_string(w) + ", cupsBitsPerPixel:8\n";
}

TEST(FilterArguments, FiveArgumentsPrintUsage) {
  FilterCall call = job();
  call.args.pop_back();
  const FilterRun run = runFilter(call);
  ASSERT_TRUE(run.error.empty()) << run.error;
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "rastertoostra v1.0.0\n\nUsage:\n\n    rastertoostra job_id user title copyies "
            "options [file]\n\n");
  EXPECT_EQ(run.out, "");
}

TEST(FilterArguments, SixArgumentsReadStandardInput) {
  FilterCall call = job();
  call.stdinFile = writeRaster({makeGrayPage(64, 20), makeGrayPage(48, 30)});
  const FilterRun run = runFilter(call);
  expectNoCrash(run);
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(countLinesStartingWith(run.err, "DEBUG:PAGE: "), 2);
  EXPECT_EQ(readFile(run.tmpDir + "/xxxxx.log"), geometryLine(48, 30));
}

TEST(FilterArguments, SeventhArgumentIsTheInputFile) {
  const FilterRun run = runFilter(job("", writeRaster({makeGrayPage(64, 20)})));
  expectNoCrash(run);
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(countLinesStartingWith(run.err, "DEBUG:PAGE: "), 1);
}

TEST(FilterArguments, UnopenableFileFails) {
  const FilterRun run = runFilter(job("", testWorkDir() + "/no-such-file.ras"));
  ASSERT_TRUE(run.error.empty()) << run.error;
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "ERROR: Unable to open raster file - ");
}

// Every page logs its size, its number and its header, byte for byte.
TEST(FilterPages, PageLogLinesAreExact) {
  const FilterRun run = runFilter(job("", writeRaster({makeGrayPage(576, 400)})));
  expectNoCrash(run);
  ASSERT_EQ(run.status, 0);
  const std::string expected =
      "DEBUG:pageWidth: 72.070938,pageHeight: 50.049259\n"
      "DEBUG:PAGE: 1 1\n\n"
      "DEBUG:header.HWResolution[0]:203\n\n"
      "DEBUG:header.HWResolution[1]:203\n"
      "DEBUG:header.cupsWidth:576\n"
      "DEBUG:header.cupsHeight:400\n"
      "DEBUG:header.cupsMediaType:0\n"
      "DEBUG:header.cupsBitsPerColor:8\n"
      "DEBUG:header.cupsBitsPerPixel:8\n"
      "DEBUG:header.cupsBytesPerLine:576\n"
      "DEBUG:header.cupsColorOrder:0\n"
      "DEBUG:header.cupsColorSpace:3\n"
      "DEBUG:header.cupsCompression:0\n"
      "DEBUG:header.cupsRowCount:0\n"
      "DEBUG:header.cupsRowFeed:0\n"
      "DEBUG:header.cupsRowStep:0\n"
      "DEBUG:printImage: Start processing image, input width: 576, height: 400, bytes per line: "
      "576\n";
  const std::string::size_type at = run.err.find("DEBUG:pageWidth:");
  ASSERT_NE(at, std::string::npos) << run.err;
  EXPECT_EQ(run.err.substr(at, expected.size()), expected);
  // The settings come first, ending with the media width of the shipped PPD.
  EXPECT_NE(run.err.find("DEBUG:settings->MaxMediaWidth:215.899994\n"
                         "DEBUG:settings->VBarcodeOpt:0.000000\n"),
            std::string::npos);
}

TEST(FilterPages, EmptyStreamEndsNormally) {
  struct Case {
    const char* name;
    bool syncWordOnly;
  };
  for (const Case& c : {Case{"no bytes", false}, Case{"sync word only", true}}) {
    SCOPED_TRACE(c.name);
    std::string path = testWorkDir() + "/empty.ras";
    if (c.syncWordOnly) {
      path = writeRaster({});
      ASSERT_GT(std::filesystem::file_size(path), 0u);
    } else {
      std::ofstream(path, std::ios::binary).close();
    }
    const FilterRun run = runFilter(job("", path));
    expectNoCrash(run);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(countLinesStartingWith(run.err, "DEBUG:PAGE: "), 0);
    EXPECT_FALSE(fileExists(run.tmpDir + "/xxxxx.log"));
  }
}

TEST(FilterPages, ZeroHeightHeaderEndsTheJobEvenWithMoreData) {
  const FilterRun run = runFilter(
      job("", writeRaster({makeGrayPage(64, 10), makeHeaderOnlyPage(64, 0), makeGrayPage(32, 10)},
                          CUPS_RASTER_WRITE)));
  expectNoCrash(run);
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(countLinesStartingWith(run.err, "DEBUG:PAGE: "), 1);
  EXPECT_EQ(readFile(run.tmpDir + "/xxxxx.log"), geometryLine(64, 10));
}

TEST(FilterPages, SecondPageOfAnotherSizeIsRead) {
  const FilterRun run =
      runFilter(job("", writeRaster({makeGrayPage(100, 50), makeGrayPage(300, 700, 300)})));
  expectNoCrash(run);
  EXPECT_EQ(run.status, 0);
  EXPECT_NE(run.err.find("DEBUG:PAGE: 1 1\n"), std::string::npos);
  EXPECT_NE(run.err.find("DEBUG:PAGE: 2 1\n"), std::string::npos);
  EXPECT_NE(run.err.find("DEBUG:header.cupsWidth:300\nDEBUG:header.cupsHeight:700\n"),
            std::string::npos);
  // 300 dots at 300 dpi is one inch.
  EXPECT_NE(run.err.find("DEBUG:pageWidth: 25.400000,pageHeight: 59.266666\n"), std::string::npos);
  EXPECT_EQ(readFile(run.tmpDir + "/xxxxx.log"), geometryLine(300, 700));
}

TEST(FilterPages, OtherDepthAfterAnEightBitPageFails) {
  for (unsigned bits : {1u, 24u}) {
    SCOPED_TRACE(bits);
    const FilterRun run =
        runFilter(job("", writeRaster({makeGrayPage(64, 10), makePageWithDepth(64, 10, bits)})));
    expectNoCrash(run);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(countLinesStartingWith(run.err, "DEBUG:PAGE: "), 1);
    const std::string tail = "ERROR:Unsupported bits per pixel : " + std::to_string(bits) +
                             " ! Requires 8 bits per pixel!\n";
    ASSERT_GE(run.err.size(), tail.size());
    EXPECT_EQ(run.err.substr(run.err.size() - tail.size()), tail);
  }
}

// A header whose page would not fit a 32-bit byte count is refused before any
// buffer is sized from it.
TEST(FilterPages, PageTooLargeForItsByteCountIsRefused) {
  const FilterRun run =
      runFilter(job("", writeRaster({makeHeaderOnlyPage(70000, 70000)}, CUPS_RASTER_WRITE)));
  expectNoCrash(run);
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("ERROR:Page of 70000 bytes per line by 70000 lines is too large!"),
            std::string::npos)
      << run.err;
}

TEST(FilterSettings, MissingOrBadPpdStopsAtThePaperSize) {
  const std::string dir = testWorkDir();
  const std::string garbage = dir + "/garbage.ppd";
  std::ofstream(garbage) << "*PPD-Adobe: \"4.3\"\n*OpenUI *PageSize: PickOne\n\x01\x02 junk";
  const std::string empty = dir + "/empty.ppd";
  std::ofstream(empty).close();
  const std::string noSize = dir + "/nosize.ppd";
  {
    std::ifstream in(kPpd);
    std::ofstream out(noSize);
    for (std::string line; std::getline(in, line);) {
      if (line.find("PageSize") == std::string::npos &&
          line.find("PageRegion") == std::string::npos)
        out << line << "\n";
    }
  }
  const std::string raster = writeRaster({makeGrayPage(64, 10)});
  for (const std::optional<std::string>& ppd :
       {std::optional<std::string>(), std::optional<std::string>(dir + "/absent.ppd"),
        std::optional<std::string>(garbage), std::optional<std::string>(empty),
        std::optional<std::string>(noSize)}) {
    SCOPED_TRACE(ppd ? *ppd : "PPD unset");
    FilterCall call = job("", raster);
    call.env["PPD"] = ppd;
    const FilterRun run = runFilter(call);
    expectNoCrash(run);
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("ERROR: Paper size must not less than 1.0 : (0.000000, 0.000000)\n"),
              std::string::npos)
        << run.err;
    EXPECT_EQ(countLinesStartingWith(run.err, "DEBUG:PAGE: "), 0);
    EXPECT_FALSE(fileExists(run.tmpDir + "/xxxxx.log"));
  }
}

TEST(FilterSettings, OddOptionsAndPrinterNamesNeverCrash) {
  const std::string raster = writeRaster({makeGrayPage(64, 10)});
  const std::string longValue(5000, 'x');
  const std::vector<std::string> options = {"",
                                            "====",
                                            "PageSize=",
                                            "PageSize=\"A4",
                                            "'unbalanced",
                                            "a=b=c d=",
                                            "Darkness={}",
                                            "HalftoneType=Tattoo_Q7 MirrorImage=maybe",
                                            "GapsHeight=" + longValue,
                                            "PageSize=NoSuchSize",
                                            "\t \n "};
  for (const std::string& opt : options) {
    SCOPED_TRACE(opt.substr(0, 40));
    const FilterRun run = runFilter(job(opt, raster));
    expectNoCrash(run);
  }
  for (const std::optional<std::string>& printer :
       {std::optional<std::string>(), std::optional<std::string>(""),
        std::optional<std::string>("tab\there/../\x7f" + longValue)}) {
    FilterCall call = job("", raster);
    call.env["PRINTER"] = printer;
    const FilterRun run = runFilter(call);
    expectNoCrash(run);
    EXPECT_EQ(run.status, 0);
  }
}

// Cut a real two-page stream at many points, and flip single bits in its
// headers: the filter ends with 0 or 1 and a sanitizer never fires.
TEST(FilterRobustness, TruncatedAndFlippedStreams) {
  const std::string source =
      readFile(writeRaster({makeGrayPage(96, 40), makeGrayPage(64, 24)}, CUPS_RASTER_WRITE));
  ASSERT_GT(source.size(), 3000u);
  std::vector<std::string> inputs;
  for (size_t cut : {size_t{1}, size_t{3}, size_t{4}, size_t{5}, size_t{400}, size_t{1799},
                     size_t{1800}, size_t{1801}, size_t{1800 + 96 * 40 - 1}, source.size() - 1}) {
    inputs.push_back(source.substr(0, std::min(cut, source.size())));
  }
  for (size_t at = 4; at < 1800; at += 61) {
    std::string flipped = source;
    flipped[at] = static_cast<char>(flipped[at] ^ 0x01);
    inputs.push_back(flipped);
  }
  const std::string path = testWorkDir() + "/case.ras";
  for (size_t i = 0; i < inputs.size(); ++i) {
    SCOPED_TRACE(i);
    std::ofstream(path, std::ios::binary | std::ios::trunc) << inputs[i];
    expectNoCrash(runFilter(job("", path)));
  }
}

// CUPS's own chain turns the bundled PDF into 8-bit ink-positive raster with
// the shipped PPD, and the filter reads every page of it.
TEST(FilterCupsChain, PdfThroughCupsfilter) {
  const std::string dir = testWorkDir();
  const std::string raster = dir + "/sample.ras";
  const std::string cmd = "cupsfilter -p '" + kPpd + "' -m application/vnd.cups-raster '" +
                          kSamplePdf + "' > '" + raster + "' 2> '" + dir + "/cupsfilter.log'";
  ASSERT_EQ(system(cmd.c_str()), 0) << readFile(dir + "/cupsfilter.log");

  const int fd = open(raster.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  cups_raster_t* ras = cupsRasterOpen(fd, CUPS_RASTER_READ);
  cups_page_header2_t h;
  int pages = 0;
  while (cupsRasterReadHeader2(ras, &h)) {
    ++pages;
    EXPECT_EQ(h.cupsBitsPerPixel, 8u);
    EXPECT_EQ(h.cupsColorSpace, static_cast<unsigned>(CUPS_CSPACE_K));
    EXPECT_EQ(h.HWResolution[0], 203u);
    ASSERT_EQ(h.cupsWidth, 812u);  // 4 in at 203 dpi
    std::vector<unsigned char> pixels(static_cast<size_t>(h.cupsBytesPerLine) * h.cupsHeight);
    ASSERT_EQ(cupsRasterReadPixels(ras, pixels.data(), pixels.size()), pixels.size());
    const auto at = [&](unsigned x, unsigned y) { return pixels[y * h.cupsBytesPerLine + x]; };
    EXPECT_EQ(at(2, 2), 0) << "paper outside the drawing must carry no ink";
    if (pages == 1) {
      // The solid header block of the label (10..278 x 372..422 pt) is full ink.
      EXPECT_EQ(at(400, 60), 255);
    }
  }
  cupsRasterClose(ras);
  close(fd);
  EXPECT_EQ(pages, 2);

  const FilterRun run = runFilter(job("", raster));
  expectNoCrash(run);
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(countLinesStartingWith(run.err, "DEBUG:PAGE: "), 2);
  EXPECT_EQ(readFile(run.tmpDir + "/xxxxx.log"),
            "cupsWidth:812, cupsHeight:1218, cupsBytesPerLine:812, cupsBitsPerPixel:8\n");
}

}  // namespace
