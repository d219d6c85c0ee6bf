// The printer application's side of the page core: IPP values to settings
// and setting blocks, its media against the shipped PPD, and the same ink rows
// giving the filter's bytes through the application's path.
#include <cups/ppd.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "app/ostra_app.h"
#include "tests/support/filter_runner.h"
#include "tests/support/raster_writer.h"

namespace {

// The setting block a job's settings send, as the printer's device gets it.
std::string settingBlock(const Settings& settings) {
  PrinterState state;
  FILE* device = tmpfile();
  OstraPrinter printer(state, PrinterPaths{testWorkDir(), testWorkDir()});
  Settings s = settings;
  printer.getOutputStreams() = {device};
  printer.setSettings(&s);
  printer.SendPrintSetting();
  fflush(device);
  rewind(device);
  char bytes[16];
  const size_t n = fread(bytes, 1, sizeof bytes, device);
  fclose(device);
  return std::string(bytes, n);
}

struct Mapping {
  const char* what;
  AppJobValues values;
  const char* paperType;
  int darkness, speedByte, gaps, brightness, barcode;
  DitherType halftone;
  bool mirror, negative;
};

// Job values first, then the printer's defaults (filled in by the caller
// before this point), then the PPD's own defaults for whatever is missing.
TEST(AppOptions, IppValuesBecomeTheFiltersSettings) {
  const auto with = [](auto change) {
    AppJobValues v;
    change(v);
    return v;
  };
  const Mapping cases[] = {
      {"PPD defaults", AppJobValues(), "LabelGaps", 1, 2, 3, 0, 0, DITHER_NONE, false, false},
      {"marks, lighter, slowest", with([](AppJobValues& v) {
         v.tracking = "mark";
         v.printDarkness = -30;
         v.printSpeed = 2 * 2540;
       }),
       "LabelMark", 0, 0, 3, 0, 0, DITHER_NONE, false, false},
      {"continuous, darkest, fastest past the range", with([](AppJobValues& v) {
         v.tracking = "continuous";
         v.darknessConfigured = 90;
         v.printDarkness = 40;
         v.printSpeed = 9 * 2540;
       }),
       "Continue", 2, 4, 3, 0, 0, DITHER_NONE, false, false},
      {"every vendor option", with([](AppJobValues& v) {
         v.vendor = {{"halftone-type", "tattoo-q7"},
                     {"mirror-image", "true"},
                     {"negative-image", "true"},
                     {"brightness", "-75"},
                     {"gap-height", "8"},
                     {"barcode-thinning", "columns"}};
       }),
       "LabelGaps", 1, 2, 8, -75, 2, DITHER_TATTOO_Q7, true, true},
      {"a name one place ahead of its method", with([](AppJobValues& v) {
         v.vendor = {{"halftone-type", "ordered"}};
       }),
       "LabelGaps", 1, 2, 3, 0, 0, DITHER_ORDERED, false, false},
      {"an unknown halftone falls back as the filter's does", with([](AppJobValues& v) {
         v.vendor = {{"halftone-type", "floyd"}, {"barcode-thinning", "rows"}};
       }),
       "LabelGaps", 1, 2, 3, 0, 1, DITHER_NONE, false, false},
  };
  for (const Mapping& c : cases) {
    const Settings s = appJobSettings(c.values, "Shop\tLabels");
    EXPECT_STREQ(s.PaperType, c.paperType) << c.what;
    EXPECT_EQ(s.GapsHeight, c.gaps) << c.what;
    EXPECT_EQ(s.Brightness, c.brightness) << c.what;
    EXPECT_EQ(s.VBarcodeOpt, c.barcode) << c.what;
    EXPECT_EQ(s.halftoneType, c.halftone) << c.what;
    EXPECT_EQ(s.MirrorImage != 0, c.mirror) << c.what;
    EXPECT_EQ(s.NegativeImage != 0, c.negative) << c.what;
    EXPECT_STREQ(s.PrinterName, "Shop_Labels") << c.what;
    const std::string block = settingBlock(s);
    EXPECT_EQ(block, std::string("\x1bs\x01\x00\x00", 5) + char(c.speedByte) + char(c.darkness))
        << c.what;
  }
}

// Every size of the shipped PPD, by name and size, in its order.
TEST(AppOptions, MediaAreThePpdSizes) {
  ppd_file_t* ppd = ppdOpenFile(OSTRA_SOURCE_DIR "/ppd/ostra.ppd");
  ASSERT_NE(ppd, nullptr);
  ASSERT_EQ(static_cast<size_t>(ppd->num_sizes), kAppMediaCount);
  for (int i = 0; i < ppd->num_sizes; ++i) {
    const AppMedia& m = kAppMedia[i];
    EXPECT_STREQ(ppd->sizes[i].name, m.ppd);
    EXPECT_FLOAT_EQ(ppd->sizes[i].width, static_cast<float>(m.widthPt)) << m.ppd;
    EXPECT_FLOAT_EQ(ppd->sizes[i].length, static_cast<float>(m.lengthPt)) << m.ppd;
    pwg_media_t* pwg = pwgMediaForPWG(m.pwg);
    ASSERT_NE(pwg, nullptr) << m.pwg;
    // Within a millimetre of the PPD's size: the PWG name describes it.
    EXPECT_NEAR(pwg->width, m.widthPt * 2540 / 72, 100) << m.pwg;
    EXPECT_NEAR(pwg->length, m.lengthPt * 2540 / 72, 100) << m.pwg;
  }
  ppdClose(ppd);
}

// The filter on a raster of the page, and the application fed its rows (as
// black, or as gray where 0 is black), must leave the same setting block,
// page record and page counter, for every halftone type.
TEST(AppJob, SameRowsGiveTheFiltersBytes) {
  static const char* const kNames[] = {"None",   "FloydSteinberg",    "Ordered", "Burkes",
                                       "Stucki", "JarvisJudiceNinke", "Sierra",  "StevensonArce",
                                       "Tattoo", "Tattoo_Q7"};
  static const char* const kKeywords[] = {
      "none",   "floyd-steinberg", "ordered", "burkes",   "stucki", "jarvis-judice-ninke",
      "sierra", "stevenson-arce",  "tattoo",  "tattoo-q7"};
  const TestPage page = makePhotoPage(212, 160);
  const std::string dir = testWorkDir();
  std::string error;
  ASSERT_TRUE(writeRasterFile(dir + "/page.ras", {page}, &error)) << error;
  const std::string record = "/otv6data/page_0001_jobid_000042_0000.dat";
  for (int t = 0; t < 10; ++t) {
    const std::string options = std::string("HalftoneType=") + kNames[t] + " Darkness=Dark";
    const FilterRun run = runFilter(filterJob(options, dir + "/page.ras"));
    ASSERT_EQ(run.status, 0) << run.err;
    const std::string filterRecord = readFile(run.spoolDir + record);
    ASSERT_FALSE(filterRecord.empty()) << kNames[t];

    for (const bool gray : {false, true}) {
      const std::string pages = dir + "/app" + std::to_string(t) + (gray ? "g" : "k");
      AppJobValues values;
      values.darknessConfigured = 90;
      values.vendor["halftone-type"] = kKeywords[t];
      PrinterState state;
      FILE* device = tmpfile();
      AppJob job(state, PrinterPaths{pages, pages, false}, appJobSettings(values, "ostra-test"), 42,
                 device);
      cups_page_header2_t header = page.header;
      header.cupsColorSpace = gray ? CUPS_CSPACE_SW : CUPS_CSPACE_K;
      bool printed = false;
      captureLog([&] {
        if (job.startPage(header, "w288h432") != nullptr)
          return;
        std::vector<unsigned char> row(header.cupsBytesPerLine);
        for (unsigned y = 0; y < header.cupsHeight; ++y) {
          for (unsigned x = 0; x < row.size(); ++x) {
            const unsigned char ink = page.pixels[y * row.size() + x];
            row[x] = gray ? static_cast<unsigned char>(255 - ink) : ink;
          }
          job.writeRow(y, row.data());
        }
        printed = job.endPage(false) && job.end();
      });
      ASSERT_TRUE(printed) << kNames[t];
      rewind(device);
      std::string block(64, '\0');
      block.resize(fread(&block[0], 1, block.size(), device));
      fclose(device);
      EXPECT_EQ(block, run.out) << kNames[t] << (gray ? ", gray" : "");
      EXPECT_TRUE(readFile(pages + "/page_0001_jobid_000042_0000.dat") == filterRecord)
          << kNames[t] << (gray ? ", gray" : "");
      EXPECT_EQ(readFile(pages + "/ostra-test.pgc"),
                readFile(run.spoolDir + "/otv6data/ostra-test.pgc"))
          << kNames[t];
    }
  }
}

}  // namespace
