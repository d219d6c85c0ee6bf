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
  const std::string cmd = "cupsfilter -p '" + kPpd + "' -m application/vnd.cups-raster -o '" +
                          options + "' '" + document + "' >'" + raster + "' 2>/dev/null";
  return system(cmd.c_str()) == 0 ? raster : std::string();
}

// Prints `raster` and decodes its page records, which ostra-preview must also
// accept (it checks each row's dot count against its bits).
std::vector<PageRecord> print(const std::string& raster, const std::string& options,
                              FilterRun* run = nullptr) {
  FilterRun local = runFilter(filterJob(options, raster));
  EXPECT_EQ(local.status, 0) << local.err;
  const std::string dir = local.spoolDir + "/otv6data";
  EXPECT_EQ(system(("cd '" + dir + "' && '" OSTRA_PREVIEW_PATH "' page_*.dat >/dev/null").c_str()),
            0);
  std::vector<PageRecord> pages;
  for (int n = 1;; ++n) {
    char name[40];
    snprintf(name, sizeof name, "/page_%04d_jobid_000042_0000.dat", n);
    if (!fs::exists(dir + name))
      break;
    const std::string file = readFile(dir + name);
    std::string error;
    pages.emplace_back();
    EXPECT_TRUE(decodePageRecord({file.begin(), file.end()}, &pages.back(), &error)) << error;
  }
  if (run != nullptr)
    *run = local;
  return pages;
}

// Share of dots in a rectangle of a 4 x 6 in label, in points from the bottom
// left; the record's left margin centres the 812 dots on the media.
double inkShare(const PageRecord& page, double x0, double y0, double x1, double y1) {
  const double dotsPerPoint = 203.0 / 72.0;
  size_t dots = 0, all = 0;
  for (int y = int((432 - y1) * dotsPerPoint); y < (432 - y0) * dotsPerPoint; ++y)
    for (int x = int(x0 * dotsPerPoint); x < x1 * dotsPerPoint; ++x, ++all)
      dots += page.dots[y * page.width + page.width - 816 + x];
  return static_cast<double>(dots) / all;
}

// The bundled sample's first page: a solid header bar, blank paper beside the
// address and ten gray steps, lightest (0) to darkest (9).
TEST(RealDocuments, SamplePdfUnderEveryHalftoneName) {
  const std::string raster = rasterise(OSTRA_SOURCE_DIR "/samples/sample.pdf");
  ASSERT_FALSE(raster.empty()) << "cupsfilter failed";
  const struct {
    const char* options;
    double stepFrom, stepTo;  // share of dots in the middle gray step (4)
    bool mirrored;
  } cases[] = {
      // clang-format off
      {"HalftoneType=None", 0, 0, false},  // about 44 % ink: under the threshold
      {"HalftoneType=FloydSteinberg", 0.3, 0.6, false}, {"HalftoneType=Ordered", 0.3, 0.6, false},
      {"HalftoneType=Burkes", 0.3, 0.6, false},         {"HalftoneType=Stucki", 0.3, 0.6, false},
      {"HalftoneType=JarvisJudiceNinke", 0.3, 0.6, false}, {"HalftoneType=Sierra", 0.3, 0.6, false},
      {"HalftoneType=StevensonArce", 0.3, 0.6, false},  {"HalftoneType=Tattoo", 0, 1, false},
      {"HalftoneType=Tattoo_Q7", 0, 1, false},          {"HalftoneType=Ordered MirrorImage=True", 0.3, 0.6, true},
      // clang-format on
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.options);
    FilterRun run;
    const std::vector<PageRecord> pages = print(raster, c.options, &run);
    // One print-setting block per page: speed "4" is sent as 2, Middle as 1.
    EXPECT_EQ(run.out, std::string("\x1b\x73\x01\x00\x00\x02\x01\x1b\x73\x01\x00\x00\x02\x01", 14));
    EXPECT_EQ(readFile(run.tmpDir + "/xxxxx.log"),
              "cupsWidth:812, cupsHeight:1218, cupsBytesPerLine:812, cupsBitsPerPixel:8\n");
    ASSERT_EQ(pages.size(), 2u);
    EXPECT_EQ(pages[0].rows, 1218);
    EXPECT_EQ(pages[0].labelWidth, 811);  // 812 dots through millimetres, truncated
    EXPECT_EQ(inkShare(pages[0], 20, 373, 260, 386), 1.0);  // header bar
    EXPECT_EQ(inkShare(pages[0], c.mirrored ? 18 : 215, 290, c.mirrored ? 73 : 270, 360), 0.0);
    const auto step = [&](int i) {
      const int at = c.mirrored ? 9 - i : i;
      return inkShare(pages[0], 27 + 24 * at, 45, 45 + 24 * at, 95);
    };
    EXPECT_EQ(step(0), 0.0);
    EXPECT_EQ(step(9), 1.0);
    EXPECT_GE(step(4), c.stepFrom);
    EXPECT_LE(step(4), c.stepTo);
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
  const std::vector<PageRecord> plain = print(raster, "HalftoneType=Tattoo");
  const std::vector<PageRecord> q7 = print(raster, "HalftoneType=Tattoo_Q7");
  ASSERT_EQ(plain.size() + q7.size(), 2u);
  for (const PageRecord& page : {plain[0], q7[0]}) {
    EXPECT_GT(page.blackDots, page.rows * 839 / 5);  // A6 is 839 dots wide
    EXPECT_LT(page.blackDots, page.rows * 839 * 4 / 5);
  }
  EXPECT_NE(plain[0].dots, q7[0].dots);
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
  std::vector<std::vector<PageRecord>> modes;
  for (const char* mode : {"0", "1", "2"}) {
    modes.push_back(print(raster, std::string("HalftoneType=Tattoo VBarcodeDensity=") + mode));
    ASSERT_EQ(modes.back().size(), 2u);
  }
  for (size_t mode = 1; mode <= 2; ++mode)
    for (size_t page = 0; page < 2; ++page) {
      const PageRecord &plain = modes[0][page], &thinned = modes[mode][page];
      size_t added = 0;
      for (size_t i = 0; i < plain.dots.size(); ++i)
        added += thinned.dots[i] > plain.dots[i];
      EXPECT_EQ(added, 0u) << "mode " << mode << " page " << page;
      EXPECT_GT(thinned.blackDots, plain.blackDots * 4 / 10);  // the bars survive
    }
  // Dashing and the row scan act on the turned bars, the column scan on both.
  EXPECT_LT(modes[1][1].blackDots, modes[0][1].blackDots * 8 / 10);
  EXPECT_LT(modes[2][0].blackDots, modes[0][0].blackDots);
  EXPECT_LT(modes[2][1].blackDots, modes[0][1].blackDots);
  // The ordinary halftones leave no full (255) pixels for the touch-ups.
  EXPECT_EQ(print(raster, "VBarcodeDensity=2")[1].dots, print(raster, "")[1].dots);
}

TEST(FilterRefusals, ArgumentsInputAndPaperSize) {
  std::string raster = testWorkDir() + "/page.ras", error;
  ASSERT_TRUE(writeRasterFile(raster, {makePhotoPage(64, 20)}, &error)) << error;
  const char kPaperSize[] = "ERROR: Paper size must not less than 1.0 : (0.000000, 0.000000)\n";
  const struct {
    std::vector<std::string> args;
    const char* prelude;
    int status;
    std::string err;  // the log's tail, or for status 0 a line in it
  } cases[] = {
      {{"1", "u", "t", "1"},
       "",
       1,
       "rastertoostra v1.0.0\n\nUsage:\n\n    rastertoostra job_id user title copyies options "
       "[file]\n\n"},
      {{"1", "u", "t", "1", ""}, "", 0, "DEBUG:PAGE: 1 1\n"},  // standard input
      {{"1", "u", "t", "1", "", raster + ".missing"},
       "",
       1,
       "ERROR: Unable to open raster file - "},
      {{"1", "u", "t", "1", "", raster}, "unset PPD", 1, kPaperSize},
      {{"1", "u", "t", "1", "", raster},
       "printf '*PPD-Adobe: \"4.3\"\\n\\001junk' >/tmp/p; PPD=/tmp/p",
       1,
       kPaperSize},
  };
  for (const auto& c : cases) {
    FilterCall call{c.args, raster, c.prelude};
    const FilterRun run = runFilter(call);
    ASSERT_TRUE(run.error.empty()) << run.error;
    EXPECT_EQ(run.status, c.status) << c.err;
    if (c.status == 0) {
      EXPECT_NE(run.err.find(c.err), std::string::npos) << run.err;
    } else {
      EXPECT_EQ(run.err.substr(run.err.size() - std::min(run.err.size(), c.err.size())), c.err);
      EXPECT_EQ(run.out + readFile(run.tmpDir + "/xxxxx.log"), "");
    }
  }
}

}  // namespace
