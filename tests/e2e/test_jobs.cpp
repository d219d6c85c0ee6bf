// Whole paths through real tools: documents rasterised by CUPS's own chain
// with the shipped PPD, printed by the built filter and read back from its
// page records through ostra-preview; and the jobs the filter refuses.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/filter_runner.h"
#include "tests/support/raster_writer.h"
#include "tools/page_record.h"

namespace {

namespace fs = std::filesystem;

const std::string kPpd = OSTRA_SOURCE_DIR "/ppd/ostra.ppd";

// `document` as CUPS rasterises it for the shipped PPD; empty on failure.
std::string rasterise(const std::string& document, const std::string& options = "") {
  const std::string raster = testWorkDir() + "/" + fs::path(document).stem().string() + ".ras";
  const std::string cmd = "cupsfilter -p '" + kPpd + "' -m application/vnd.cups-raster " +
                          (options.empty() ? "" : "-o '" + options + "' ") + "'" + document +
                          "' > '" + raster + "' 2> '" + raster + ".log'";
  return system(cmd.c_str()) == 0 ? raster : std::string();
}

struct Printed {
  FilterRun run;
  std::vector<PageRecord> pages;
};

// Prints `raster` and decodes every page record, which ostra-preview must
// also accept (it checks each row's dot count against its bits).
Printed print(const std::string& raster, const std::string& options) {
  Printed p;
  p.run = runFilter(filterJob(options, raster));
  const std::string dir = p.run.spoolDir + "/otv6data";
  const std::string cmd = "cd '" + dir + "' && '" OSTRA_PREVIEW_PATH "' page_*.dat >/dev/null";
  EXPECT_EQ(system(cmd.c_str()), 0) << options;
  for (int page = 1;
       fs::exists(dir + "/page_000" + std::to_string(page) + "_jobid_000042_0000.dat"); ++page) {
    const std::string file =
        readFile(dir + "/page_000" + std::to_string(page) + "_jobid_000042_0000.dat");
    PageRecord record;
    std::string error;
    EXPECT_TRUE(decodePageRecord({file.begin(), file.end()}, &record, &error)) << error;
    p.pages.push_back(record);
  }
  return p;
}

// Share of dots in a rectangle of a 4 x 6 in label, in PDF points from the
// bottom left; the record's left margin centres 812 dots on the media.
double inkShare(const PageRecord& page, double x0, double y0, double x1, double y1) {
  const double dotsPerPoint = 203.0 / 72.0;
  const size_t margin = page.width - 816;
  size_t dots = 0, all = 0;
  for (int y = static_cast<int>((432 - y1) * dotsPerPoint); y < (432 - y0) * dotsPerPoint; ++y)
    for (int x = static_cast<int>(x0 * dotsPerPoint); x < x1 * dotsPerPoint; ++x, ++all)
      dots += page.dots[static_cast<size_t>(y) * page.width + margin + x];
  return static_cast<double>(dots) / all;
}

// The bundled sample's first page: a solid header bar, blank paper beside the
// address and ten gray steps, lightest (0) to darkest (9).
TEST(RealDocuments, SamplePdfUnderEveryHalftoneName) {
  const std::string raster = rasterise(OSTRA_SOURCE_DIR "/samples/sample.pdf");
  ASSERT_FALSE(raster.empty()) << "cupsfilter failed";
  const struct {
    const char* options;
    double middleStepFrom, middleStepTo;  // share of dots in gray step 4
    bool mirrored;
  } cases[] = {
      {"HalftoneType=None", 0, 0, false},  // about 44 % ink: under the threshold
      {"HalftoneType=FloydSteinberg", 0.3, 0.6, false},
      {"HalftoneType=Ordered", 0.3, 0.6, false},
      {"HalftoneType=Burkes", 0.3, 0.6, false},
      {"HalftoneType=Stucki", 0.3, 0.6, false},
      {"HalftoneType=JarvisJudiceNinke", 0.3, 0.6, false},
      {"HalftoneType=Sierra", 0.3, 0.6, false},
      {"HalftoneType=StevensonArce", 0.3, 0.6, false},
      {"HalftoneType=Tattoo", 0, 1, false},
      {"HalftoneType=Tattoo_Q7", 0, 1, false},
      {"HalftoneType=Ordered MirrorImage=True", 0.3, 0.6, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.options);
    const Printed p = print(raster, c.options);
    ASSERT_EQ(p.run.status, 0) << p.run.err;
    // One print-setting block per page: speed "4" is sent as 2, Middle as 1.
    EXPECT_EQ(p.run.out, std::string("\x1b\x73\x01\x00\x00\x02\x01", 7) +
                             std::string("\x1b\x73\x01\x00\x00\x02\x01", 7));
    EXPECT_EQ(readFile(p.run.tmpDir + "/xxxxx.log"),
              "cupsWidth:812, cupsHeight:1218, cupsBytesPerLine:812, cupsBitsPerPixel:8\n");
    ASSERT_EQ(p.pages.size(), 2u);
    const PageRecord& page = p.pages[0];
    EXPECT_EQ(page.rows, 1218);
    EXPECT_EQ(page.labelWidth, 811);                    // 812 dots through millimetres, truncated
    EXPECT_EQ(inkShare(page, 20, 373, 260, 386), 1.0);  // header bar
    EXPECT_EQ(inkShare(page, c.mirrored ? 18 : 215, 290, c.mirrored ? 73 : 270, 360), 0.0);
    const auto step = [&](int i) {
      const int at = c.mirrored ? 9 - i : i;
      return inkShare(page, 27 + 24 * at, 45, 45 + 24 * at, 95);
    };
    EXPECT_EQ(step(0), 0.0);
    EXPECT_EQ(step(9), 1.0);
    EXPECT_GE(step(4), c.middleStepFrom);
    EXPECT_LE(step(4), c.middleStepTo);
  }
}

// A photograph-like page made here, turned into raster by CUPS's image
// filters: both stencil types print a two-level picture of it, each its own.
TEST(RealDocuments, PhotoPrintsAsAStencil) {
  const TestPage photo = makePhotoPage(600, 800);
  const std::string pgm = testWorkDir() + "/photo.pgm";
  std::ofstream out(pgm, std::ios::binary);
  out << "P5\n600 800\n255\n";
  for (unsigned char ink : photo.pixels)
    out.put(static_cast<char>(255 - ink));  // the file holds light, not ink
  out.close();
  const std::string raster = rasterise(pgm, "PageSize=Tattoo_A6");
  ASSERT_FALSE(raster.empty()) << "cupsfilter failed";
  std::vector<uint64_t> dots;
  for (const char* type : {"Tattoo", "Tattoo_Q7"}) {
    SCOPED_TRACE(type);
    const Printed p = print(raster, std::string("HalftoneType=") + type);
    ASSERT_EQ(p.run.status, 0) << p.run.err;
    ASSERT_EQ(p.pages.size(), 1u);
    const double share = static_cast<double>(p.pages[0].blackDots) / (p.pages[0].rows * 839.0);
    EXPECT_GT(share, 0.2);
    EXPECT_LT(share, 0.8);
    dots.push_back(p.pages[0].blackDots);
  }
  EXPECT_NE(dots[0], dots[1]);
}

// A real Code 128 from Debian's `barcode`: upright on page 1 (bars run down the
// label), turned on page 2 (bars run across it, long enough to be dashed).
TEST(RealDocuments, BarcodeTouchUpsOnlyThinStencilBars) {
  const std::string dir = testWorkDir();
  ASSERT_EQ(system(("barcode -b OSTRA-4021-7734 -e 128 -E -o '" + dir + "/code.eps'").c_str()), 0);
  const std::string eps = readFile(dir + "/code.eps");
  std::ofstream(dir + "/barcode.ps")
      << "%!PS\n<< /PageSize [288 432] >> setpagedevice\ngsave 8 180 translate 1.3 2.5 scale\n"
      << eps << "\ngrestore showpage\n<< /PageSize [288 432] >> setpagedevice\n"
      << "gsave 270 8 translate 90 rotate 1.9 2.5 scale\n"
      << eps << "\ngrestore showpage\n";
  ASSERT_EQ(system(("ps2pdf '" + dir + "/barcode.ps' '" + dir + "/barcode.pdf'").c_str()), 0);
  const std::string raster = rasterise(dir + "/barcode.pdf");
  ASSERT_FALSE(raster.empty()) << "cupsfilter failed";

  std::vector<Printed> modes;
  for (const char* mode : {"0", "1", "2"}) {
    modes.push_back(print(raster, std::string("HalftoneType=Tattoo VBarcodeDensity=") + mode));
    ASSERT_EQ(modes.back().pages.size(), 2u) << modes.back().run.err;
  }
  for (int mode = 1; mode <= 2; ++mode) {
    for (int page = 0; page < 2; ++page) {
      SCOPED_TRACE(testing::Message() << "mode " << mode << " page " << page + 1);
      const PageRecord& plain = modes[0].pages[page];
      const PageRecord& thinned = modes[mode].pages[page];
      ASSERT_EQ(thinned.dots.size(), plain.dots.size());
      size_t added = 0;
      for (size_t i = 0; i < plain.dots.size(); ++i)
        added += thinned.dots[i] > plain.dots[i];
      EXPECT_EQ(added, 0u);
      EXPECT_GT(thinned.blackDots, plain.blackDots * 4 / 10);  // the bars survive
    }
  }
  // Dashing and the row scan act on the turned bars, the column scan on both.
  EXPECT_LT(modes[1].pages[1].blackDots, modes[0].pages[1].blackDots * 8 / 10);
  EXPECT_LT(modes[2].pages[0].blackDots, modes[0].pages[0].blackDots);
  EXPECT_LT(modes[2].pages[1].blackDots, modes[0].pages[1].blackDots);
  // The ordinary halftones leave no full (255) pixels for the touch-ups.
  EXPECT_EQ(print(raster, "VBarcodeDensity=2").pages[1].dots, print(raster, "").pages[1].dots);
}

TEST(FilterRefusals, ArgumentsInputAndPaperSize) {
  std::string raster = testWorkDir() + "/page.ras", error;
  ASSERT_TRUE(writeRasterFile(raster, {makePhotoPage(64, 20)}, &error)) << error;
  const std::string garbage = testWorkDir() + "/garbage.ppd";
  std::ofstream(garbage) << "*PPD-Adobe: \"4.3\"\n*OpenUI *PageSize: PickOne\n\x01\x02 junk";
  const char kPaperSize[] = "ERROR: Paper size must not less than 1.0 : (0.000000, 0.000000)\n";
  const struct {
    const char* what;
    std::vector<std::string> args;  // the standard job's, with the raster file
    std::optional<std::string> ppd;
    int status;
    std::string err;  // the whole log, or its tail after the last page line
  } cases[] = {
      {"five arguments",
       {"1", "u", "t", "1"},
       kPpd,
       1,
       "rastertoostra v1.0.0\n\nUsage:\n\n    rastertoostra job_id user title copyies options "
       "[file]\n\n"},
      {"six read standard input", {"1", "u", "t", "1", ""}, kPpd, 0, "DEBUG:PAGE: 1 1\n"},
      {"unopenable file",
       {"1", "u", "t", "1", "", raster + ".missing"},
       kPpd,
       1,
       "ERROR: Unable to open raster file - "},
      {"PPD unset", {"1", "u", "t", "1", "", raster}, std::nullopt, 1, kPaperSize},
      {"PPD unreadable", {"1", "u", "t", "1", "", raster}, garbage, 1, kPaperSize},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    FilterCall call = filterJob("");
    call.args = c.args;
    call.env["PPD"] = c.ppd;
    call.stdinFile = raster;
    const FilterRun run = runFilter(call);
    ASSERT_TRUE(run.error.empty()) << run.error;
    EXPECT_EQ(run.status, c.status);
    if (c.status == 0) {
      EXPECT_NE(run.err.find(c.err), std::string::npos) << run.err;
    } else {
      ASSERT_GE(run.err.size(), c.err.size()) << run.err;
      EXPECT_EQ(run.err.substr(run.err.size() - c.err.size()), c.err);
      EXPECT_EQ(run.out, "");
      EXPECT_FALSE(fs::exists(run.tmpDir + "/xxxxx.log"));
    }
  }
}

// A real two-page stream cut at many points, and single bits flipped in its
// headers: the filter ends with 0 or 1 and a sanitizer never fires.
TEST(FilterRobustness, TruncatedAndFlippedStreams) {
  std::string path = testWorkDir() + "/source.ras", error;
  ASSERT_TRUE(writeRasterFile(path, {makePhotoPage(96, 40), makePhotoPage(64, 24)}, &error,
                              CUPS_RASTER_WRITE))
      << error;
  const std::string source = readFile(path);
  std::vector<std::string> inputs;
  for (size_t cut : {1, 3, 4, 5, 400, 1799, 1800, 1801, 1800 + 96 * 40 - 1})
    inputs.push_back(source.substr(0, cut));
  for (size_t at = 4; at < 1800; at += 61) {
    inputs.push_back(source);
    inputs.back()[at] = static_cast<char>(inputs.back()[at] ^ 0x01);
  }
  path = testWorkDir() + "/case.ras";
  for (size_t i = 0; i < inputs.size(); ++i) {
    SCOPED_TRACE(i);
    std::ofstream(path, std::ios::binary | std::ios::trunc) << inputs[i];
    const FilterRun run = runFilter(filterJob("", path));
    ASSERT_TRUE(run.error.empty()) << run.error;
    EXPECT_TRUE(run.status == 0 || run.status == 1) << run.status << "\n" << run.err;
  }
}

}  // namespace
