// Real documents through CUPS's own chain and the filter: a PDF for every
// ordinary halftone type and a photograph for both stencil types, checked on
// the page records through ostra-preview.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/filter_runner.h"
#include "tools/page_record.h"

namespace {

namespace fs = std::filesystem;

const std::string kPpd = std::string(OSTRA_SOURCE_DIR) + "/ppd/ostra.ppd";
const std::string kSamplePdf = std::string(OSTRA_SOURCE_DIR) + "/samples/sample.pdf";
// A photograph from Debian's imagemagick-6-doc, installed by scripts/setup.sh.
const std::string kPhoto = "/usr/share/doc/imagemagick-6-common/html/images/bluebells_lin.jpg";
constexpr double kDotsPerPoint = 203.0 / 72.0;
constexpr int kPageWidthDots = 812;  // 4 in at 203 dpi
constexpr double kPageHeightPt = 432;

// A document as CUPS rasterises it for the shipped PPD, made in the running
// test's own directory (tests run in parallel processes).
std::string rasterise(const std::string& document, const std::string& options = "") {
  const std::string dir = testWorkDir();
  const std::string raster = dir + "/" + fs::path(document).stem().string() + ".ras";
  if (fileExists(raster))
    return raster;
  const std::string cmd = "cupsfilter -p '" + kPpd + "' -m application/vnd.cups-raster " +
                          (options.empty() ? "" : "-o '" + options + "' ") + "'" + document +
                          "' > '" + raster + "' 2> '" + dir + "/cupsfilter.log'";
  return system(cmd.c_str()) == 0 ? raster : std::string();
}

std::string sampleRaster() {
  return rasterise(kSamplePdf);
}

struct Printed {
  FilterRun run;
  std::vector<PageRecord> pages;
  std::vector<std::string> files;
  std::string previewOut;
};

Printed print(const std::string& options, const std::string& raster = sampleRaster(),
              int pageCount = 2) {
  Printed p;
  FilterCall call;
  call.args = {"42", "artist", "sample", "1", options, raster};
  call.env["PPD"] = kPpd;
  call.env["PRINTER"] = "ostra-test";
  p.run = runFilter(call);
  const std::string dir = p.run.spoolDir + "/otv6data";
  // ostra-preview checks every record (dot counts against bits) and draws it.
  const std::string cmd = "cd '" + dir + "' && '" OSTRA_PREVIEW_PATH "' page_*.dat > preview.txt";
  EXPECT_EQ(system(cmd.c_str()), 0) << readFile(dir + "/preview.txt");
  p.previewOut = readFile(dir + "/preview.txt");
  for (int page = 1; page <= pageCount; ++page) {
    char name[64];
    snprintf(name, sizeof(name), "page_%04d_jobid_000042_0000.dat", page);
    p.files.push_back(readFile(dir + "/" + name));
    PageRecord record;
    std::string error;
    EXPECT_TRUE(decodePageRecord(std::vector<uint8_t>(p.files.back().begin(), p.files.back().end()),
                                 &record, &error))
        << name << ": " << error;
    p.pages.push_back(record);
  }
  return p;
}

// Share of printed dots in a rectangle given in PDF points (origin bottom left).
double inkShare(const PageRecord& page, double x0, double y0, double x1, double y1) {
  const size_t margin = page.width - static_cast<size_t>((kPageWidthDots + 7) / 8 * 8);
  const int left = static_cast<int>(x0 * kDotsPerPoint);
  const int right = static_cast<int>(x1 * kDotsPerPoint);
  const int top = static_cast<int>((kPageHeightPt - y1) * kDotsPerPoint);
  const int bottom = static_cast<int>((kPageHeightPt - y0) * kDotsPerPoint);
  if (page.dots.size() < static_cast<size_t>(bottom) * page.width)
    return -1.0;  // not decoded
  size_t dots = 0, all = 0;
  for (int y = top; y < bottom; ++y) {
    for (int x = left; x < right; ++x) {
      dots += page.dots[static_cast<size_t>(y) * page.width + margin + x];
      ++all;
    }
  }
  return static_cast<double>(dots) / all;
}

// Regions of page 1 of the sample: the solid header bar, blank paper beside
// the address, and the lightest, a middle and the darkest of the gray steps.
double headerBar(const PageRecord& p) {
  return inkShare(p, 20, 373, 260, 386);
}
double blankPaper(const PageRecord& p) {
  return inkShare(p, 215, 290, 270, 360);
}
double grayStep(const PageRecord& p, int i) {
  return inkShare(p, 27 + 24 * i, 45, 45 + 24 * i, 95);
}

const char* const kOrdinaryTypes[] = {"None",   "FloydSteinberg",    "Ordered", "Burkes",
                                      "Stucki", "JarvisJudiceNinke", "Sierra",  "StevensonArce"};

TEST(PrintingSample, EveryOrdinaryHalftonePrintsDarkPartsAsDots) {
  ASSERT_FALSE(sampleRaster().empty()) << "cupsfilter failed";
  for (const char* type : kOrdinaryTypes) {
    SCOPED_TRACE(type);
    const Printed p = print(std::string("HalftoneType=") + type);
    ASSERT_TRUE(p.run.error.empty()) << p.run.error;
    EXPECT_EQ(p.run.status, 0) << p.run.err;
    // One print-setting block per page: speed "4" is sent as 2, Middle as 1.
    EXPECT_EQ(p.run.out,
              std::string("\x1b\x73\x01\x00\x00\x02\x01\x1b\x73\x01\x00\x00\x02\x01", 14));
    ASSERT_EQ(p.pages.size(), 2u);
    EXPECT_EQ(splitLines(p.previewOut).size(), 2u);
    const PageRecord& page = p.pages[0];
    EXPECT_EQ(page.rows, 1218);
    EXPECT_EQ(page.labelWidth, 811);  // 812 dots through millimetres, truncated
    EXPECT_EQ(headerBar(page), 1.0);
    EXPECT_EQ(blankPaper(page), 0.0);
    EXPECT_EQ(grayStep(page, 0), 0.0);
    EXPECT_EQ(grayStep(page, 9), 1.0);
    // About 44% ink: the fixed threshold drops it, every screen renders a share.
    const double middle = grayStep(page, 4);
    if (std::string(type) == "None") {
      EXPECT_EQ(middle, 0.0);
    } else {
      EXPECT_GT(middle, 0.3);
      EXPECT_LT(middle, 0.6);
    }
  }
}

TEST(PrintingSample, MirrorSwapsLeftAndRight) {
  ASSERT_FALSE(sampleRaster().empty());
  for (const char* type : {"None", "Ordered", "StevensonArce"}) {
    SCOPED_TRACE(type);
    const Printed plain = print(std::string("HalftoneType=") + type);
    const Printed mirrored = print(std::string("MirrorImage=True HalftoneType=") + type);
    ASSERT_EQ(mirrored.pages.size(), 2u);
    const PageRecord& page = mirrored.pages[0];
    // The darkest step now lies where the lightest was, and the other way round.
    EXPECT_EQ(grayStep(page, 0), 1.0);
    EXPECT_EQ(grayStep(page, 9), 0.0);
    // Only the threshold keeps the same dots; screens and diffusion are
    // anchored at column 0 and run left to right, so their totals may differ.
    if (std::string(type) == "None") {
      EXPECT_EQ(page.blackDots, plain.pages[0].blackDots);
    }
  }
}

// Negative printing complements the processed indices 0 and 1 into 255 and
// 254, both of which are ink: on the ordinary halftones the page prints solid.
TEST(PrintingSample, NegativeOnOrdinaryHalftonesPrintsEveryDot) {
  ASSERT_FALSE(sampleRaster().empty());
  const Printed p = print("NegativeImage=True HalftoneType=Burkes");
  ASSERT_EQ(p.pages.size(), 2u);
  for (const PageRecord& page : p.pages) {
    EXPECT_EQ(headerBar(page), 1.0);
    EXPECT_EQ(blankPaper(page), 1.0);
    EXPECT_EQ(page.blackDots, static_cast<uint64_t>(kPageWidthDots) * page.rows);
  }
}

TEST(PrintingSample, PageCounterRunsOnAcrossPagesAndIsStored) {
  ASSERT_FALSE(sampleRaster().empty());
  const Printed p = print("");
  ASSERT_EQ(p.pages.size(), 2u);
  // No stored counter yet: the pages are numbered 1 and 2, and 3 is stored.
  EXPECT_EQ(p.pages[0].pageNumber, 1);
  EXPECT_EQ(p.pages[1].pageNumber, 2);
  EXPECT_EQ(readFile(p.run.spoolDir + "/otv6data/ostra-test.pgc"), std::string("\x03\x00", 2));
  EXPECT_EQ(p.pages[0].media, 1);
  EXPECT_EQ(p.pages[0].gapHeight, 23);  // 3 mm at 203 dpi
}

// The stencil chain on a photograph: both types print a two-level picture of
// it, each its own, and the same job always prints the same dots.
TEST(PrintingPhoto, StencilTypesPrintThePhotograph) {
  ASSERT_TRUE(fileExists(kPhoto)) << kPhoto << " is missing: run scripts/setup.sh";
  const std::string raster = rasterise(kPhoto, "PageSize=Tattoo_A6");
  ASSERT_FALSE(raster.empty()) << "cupsfilter failed";
  std::vector<std::string> records;
  for (const char* type : {"Tattoo", "Tattoo_Q7"}) {
    SCOPED_TRACE(type);
    const Printed p = print(std::string("HalftoneType=") + type, raster, 1);
    ASSERT_TRUE(p.run.error.empty()) << p.run.error;
    EXPECT_EQ(p.run.status, 0) << p.run.err;
    EXPECT_NE(p.run.err.find("DEBUG:PageProcess: RV dithering is enabled\n"), std::string::npos);
    EXPECT_NE(p.run.err.find("DEBUG:PageProcess: Successfully created a new CxImage from RV "
                             "dithered data\n"),
              std::string::npos);
    ASSERT_EQ(p.pages.size(), 1u);
    const PageRecord& page = p.pages[0];
    ASSERT_GT(page.rows, 0);
    const double share = static_cast<double>(page.blackDots) / (page.rows * 839.0);
    EXPECT_GT(share, 0.2);
    EXPECT_LT(share, 0.8);
    const Printed again = print(std::string("HalftoneType=") + type, raster, 1);
    EXPECT_EQ(again.files, p.files);
    records.push_back(p.files[0]);
  }
  ASSERT_EQ(records.size(), 2u);
  EXPECT_NE(records[0], records[1]);
}

// A real Code 128 barcode from Debian's `barcode`, upright on page 1 (bars
// run down the label) and turned on page 2 (bars run across it, long enough to
// be dashed), made into a PDF by ghostscript.
std::string barcodePdf() {
  const std::string dir = testWorkDir();
  const std::string eps = dir + "/code128.eps";
  const std::string ps = dir + "/barcode.ps";
  const std::string pdf = dir + "/barcode.pdf";
  if (system(("barcode -b OSTRA-4021-7734 -e 128 -E -o '" + eps + "'").c_str()) != 0)
    return "";
  const std::string body = readFile(eps);
  std::ofstream(ps) << "%!PS\n<< /PageSize [288 432] >> setpagedevice\n"
                    << "gsave 8 180 translate 1.3 2.5 scale\n"
                    << body << "\ngrestore showpage\n"
                    << "<< /PageSize [288 432] >> setpagedevice\n"
                    << "gsave 270 8 translate 90 rotate 1.9 2.5 scale\n"
                    << body << "\ngrestore showpage\n";
  if (system(("ps2pdf '" + ps + "' '" + pdf + "'").c_str()) != 0)
    return "";
  return pdf;
}

// The touch-ups act on full pixels (255), which the stencil chain produces.
// They only ever clear dots: modes 1 and 2 print a subset of mode 0, each
// thins the orientation it is made for, and the bars survive.
TEST(PrintingBarcode, DensityModesThinStencilBars) {
  const std::string pdf = barcodePdf();
  ASSERT_FALSE(pdf.empty()) << "barcode or ps2pdf failed";
  const std::string raster = rasterise(pdf);
  ASSERT_FALSE(raster.empty()) << "cupsfilter failed";
  std::vector<Printed> modes;
  for (const char* mode : {"0", "1", "2"}) {
    modes.push_back(print(std::string("HalftoneType=Tattoo VBarcodeDensity=") + mode, raster, 2));
    ASSERT_EQ(modes.back().run.status, 0) << modes.back().run.err;
    ASSERT_EQ(modes.back().pages.size(), 2u);
  }
  EXPECT_EQ(modes[0].run.err.find("OptimazeBarcode"), std::string::npos);
  EXPECT_NE(modes[1].run.err.find("DEBUG:OptimazeBarcode1 is applied!\n"), std::string::npos);
  EXPECT_NE(modes[2].run.err.find("DEBUG:OptimazeBarcode2 is applied!\n"), std::string::npos);

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
      EXPECT_LE(thinned.blackDots, plain.blackDots);
      EXPECT_GT(thinned.blackDots, plain.blackDots * 4 / 10);
    }
  }
  // Dashing and the row scan act on the turned bars, the column scan on both.
  EXPECT_LT(modes[1].pages[1].blackDots, modes[0].pages[1].blackDots * 8 / 10);
  EXPECT_LT(modes[2].pages[0].blackDots, modes[0].pages[0].blackDots);
  EXPECT_LT(modes[2].pages[1].blackDots, modes[0].pages[1].blackDots);
}

// The ordinary halftones leave indices 0 and 1, never a full 255, so the
// touch-ups find nothing to change there.
TEST(PrintingBarcode, OrdinaryHalftonesGiveTheTouchUpsNothing) {
  const std::string pdf = barcodePdf();
  ASSERT_FALSE(pdf.empty());
  const std::string raster = rasterise(pdf);
  ASSERT_FALSE(raster.empty());
  const Printed plain = print("VBarcodeDensity=0", raster, 2);
  for (const char* mode : {"1", "2"}) {
    const Printed touched = print(std::string("VBarcodeDensity=") + mode, raster, 2);
    EXPECT_EQ(touched.files, plain.files) << mode;
  }
}

}  // namespace
