// The application's side of the core: IPP values to settings, its tables
// against the shipped PPD, and the same ink rows giving the filter's bytes.
#include <cups/ppd.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "app/ostra_app.h"
#include "filter/job_settings.h"
#include "tests/support/filter_runner.h"
#include "tests/support/raster_writer.h"

namespace {

// What a job's values make, in one line: media tracking, gap, brightness,
// barcode mode, halftone, mirror, negative, speed and darkness (which the
// setting block carries; SameRowsGiveTheFiltersBytes compares the blocks),
// and the printer name the counter file takes.
std::string summary(const AppJobValues& values) {
  const Settings s = appJobSettings(values, "Shop\tLabels");
  char line[512];
  snprintf(line, sizeof line, "%s %d %d %d %s %d %d | %d %d %s", s.PaperType, s.GapsHeight,
           s.Brightness, s.VBarcodeOpt, kiwaHalftoneTypeToStr(s.halftoneType), s.MirrorImage,
           s.NegativeImage, s.PrintSpeed, s.Darkness, s.PrinterName);
  return line;
}

// Job values first, then the printer's defaults (filled in by the caller
// before this point), then the PPD's own defaults for whatever is missing.
TEST(AppOptions, IppValuesBecomeTheFiltersSettings) {
  const auto with = [](auto change) {
    AppJobValues v;
    change(v);
    return summary(v);
  };
  EXPECT_EQ(summary(AppJobValues()), "LabelGaps 3 0 0 None 0 0 | 4 1 Shop_Labels");
  EXPECT_EQ(with([](AppJobValues& v) {  // lighter, slowest
              v.tracking = "mark";
              v.printDarkness = -30;
              v.printSpeed = 2 * 2540;
            }),
            "LabelMark 3 0 0 None 0 0 | 2 0 Shop_Labels");
  EXPECT_EQ(with([](AppJobValues& v) {  // darkest, fastest past the range
              v.tracking = "continuous";
              v.darknessConfigured = 90;
              v.printDarkness = 40;
              v.printSpeed = 9 * 2540;
            }),
            "Continue 3 0 0 None 0 0 | 6 2 Shop_Labels");
  EXPECT_EQ(with([](AppJobValues& v) {
              v.vendor = {{"halftone-type", "tattoo-q7"},
                          {"mirror-image", "true"},
                          {"negative-image", "true"},
                          {"brightness", "-75"},
                          {"gap-height", "8"},
                          {"barcode-thinning", "columns"}};
            }),
            "LabelGaps 8 -75 2 Tattoo_Q7 1 1 | 4 1 Shop_Labels");
  // The keyword takes the name, whatever method that name runs; an unknown
  // one falls back as the filter's unknown choice does.
  EXPECT_EQ(with([](AppJobValues& v) {
              v.vendor = {{"halftone-type", "ordered"}};
            }),
            "LabelGaps 3 0 0 Ordered 0 0 | 4 1 Shop_Labels");
  EXPECT_EQ(with([](AppJobValues& v) {
              v.vendor = {{"halftone-type", "floyd"}, {"barcode-thinning", "rows"}};
            }),
            "LabelGaps 3 0 1 None 0 0 | 4 1 Shop_Labels");
}

// Each end of the two IPP ranges that become a level: at the edge, one past
// it, and whatever integers a client may send.
TEST(AppOptions, DarknessAndSpeedAtTheirEdges) {
  const struct {
    int configured, adjustment, level;
  } darkness[] = {{33, 0, 0},
                  {34, 0, 1},
                  {0, 66, 1},
                  {0, 67, 2},
                  {100, -67, 0},
                  {100, -66, 1},
                  {INT32_MIN, INT32_MIN, 0},
                  {INT32_MAX, INT32_MAX, 2}};
  for (const auto& d : darkness)
    EXPECT_EQ(appDarknessLevel(d.configured, d.adjustment), d.level)
        << d.configured << " " << d.adjustment;
  // Hundredths of a millimetre a second, rounded to inches, 2 to 6.
  const int speed[][2] = {{6349, 2},  {6350, 3},  {13969, 5},     {13970, 6},
                          {16510, 6}, {-1271, 2}, {INT32_MIN, 2}, {INT32_MAX, 6}};
  for (const auto& s : speed)
    EXPECT_EQ(appSpeedInches(s[0]), s[1]) << s[0];
}

// A custom roll on the proof page: each end of each side, and one past it.
TEST(AppOptions, CustomRollsAtTheirEdges) {
  EXPECT_EQ(appCustomRoll(kRollMinMm, kRollMinMm), "custom_7x7mm_7x7mm");
  EXPECT_EQ(appCustomRoll(kRollWidthMaxMm, kRollLengthMaxMm), "custom_215x2540mm_215x2540mm");
  for (const auto& size :
       {std::make_pair(kRollMinMm - 1, 30), std::make_pair(50, kRollMinMm - 1),
        std::make_pair(kRollWidthMaxMm + 1, 30), std::make_pair(50, kRollLengthMaxMm + 1)})
    EXPECT_EQ(appCustomRoll(size.first, size.second), "") << size.first << " x " << size.second;
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

// Each option the application offers is the PPD's: its values, in the PPD's
// order (booleans aside), make the settings the filter makes of each choice, and its default
// is the PPD's; so are the head's width and the range of speeds.
TEST(AppOptions, OptionsAreThePpds) {
  setenv("PPD", OSTRA_SOURCE_DIR "/ppd/ostra.ppd", 1);
  ppd_file_t* ppd = ppdOpenFile(OSTRA_SOURCE_DIR "/ppd/ostra.ppd");
  ASSERT_NE(ppd, nullptr);
  auto fields = [](const Settings& s) {
    char line[128];
    snprintf(line, sizeof line, "%d %d %d %d %d %d", s.halftoneType, s.MirrorImage, s.NegativeImage,
             s.Brightness, s.GapsHeight, s.VBarcodeOpt);
    return std::string(line);
  };
  auto filter = [&](const std::string& options) {
    Settings s;
    captureLog([&] { parseSettings(&s, options.c_str()); });
    return s;
  };
  const char* const names[] = {"HalftoneType", "MirrorImage", "NegativeImage",
                               "Brightness",   "GapsHeight",  "VBarcodeDensity"};
  const std::vector<AppVendorOption>& options = appVendorOptions();
  ASSERT_EQ(options.size(), sizeof names / sizeof names[0]);
  for (size_t o = 0; o < options.size(); ++o) {
    const ppd_option_t* option = ppdFindOption(ppd, names[o]);
    ASSERT_NE(option, nullptr) << names[o];
    ASSERT_EQ(static_cast<size_t>(option->num_choices), options[o].values.size()) << names[o];
    for (int c = 0; c < option->num_choices; ++c) {
      const char* choice = option->choices[c].choice;
      // PPD booleans come True first.
      const std::string value = !options[o].isBoolean         ? options[o].values[c]
                                : strcmp(choice, "True") == 0 ? "true"
                                                              : "false";
      AppJobValues values;
      values.vendor[options[o].ipp] = value;
      EXPECT_EQ(fields(appJobSettings(values, "")),
                fields(filter(std::string(names[o]) + "=" + choice)))
          << names[o] << " " << choice;
      EXPECT_EQ(strcmp(choice, option->defchoice) == 0, value == options[o].defaultValue)
          << names[o] << " " << choice;
    }
  }
  EXPECT_EQ(filter("").maxMediaWidthMm, appMaxMediaWidthMm());
  const ppd_option_t* speed = ppdFindOption(ppd, "PrintSpeed");
  ASSERT_NE(speed, nullptr);
  EXPECT_EQ(atoi(speed->choices[0].choice), appSpeedInches(0));
  EXPECT_EQ(atoi(speed->choices[speed->num_choices - 1].choice), appSpeedInches(INT32_MAX));
  ppdClose(ppd);
  unsetenv("PPD");
}

// The filter on a raster of the page, and the application fed its rows (as
// black, or as gray where 0 is black), must leave the same setting block,
// page record and page counter, for every halftone type.
TEST(AppJob, SameRowsGiveTheFiltersBytes) {
  const std::vector<std::string>& keywords = appVendorOptions()[0].values;  // halftone-type
  const TestPage page = makePhotoPage(212, 160);
  const std::string dir = testWorkDir();
  std::string error;
  ASSERT_TRUE(writeRasterFile(dir + "/page.ras", {page}, &error)) << error;
  const std::string record = "/otv6data/page_0001_jobid_000042_0000.dat";
  for (int t = 0; t < 10; ++t) {
    const char* name = kiwaHalftoneTypeToStr(static_cast<DitherType>(t));
    const std::string options = std::string("HalftoneType=") + name + " Darkness=Dark";
    const FilterRun run = runFilter(filterJob(options, dir + "/page.ras"));
    ASSERT_EQ(run.status, 0) << run.err;
    const std::string filterRecord = readFile(run.spoolDir + record);
    ASSERT_FALSE(filterRecord.empty()) << name;

    for (const bool gray : {false, true}) {
      const std::string pages = dir + "/app" + std::to_string(t) + (gray ? "g" : "k");
      AppJobValues values;
      values.darknessConfigured = 90;
      values.vendor["halftone-type"] = keywords[t];
      PrinterState state;
      FILE* device = fopen((pages + ".device").c_str(), "w");
      AppJob job(state, PrinterPaths{pages, pages, false}, appJobSettings(values, "ostra-test"), 42,
                 device);
      cups_page_header2_t header = page.header;
      header.cupsColorSpace = gray ? CUPS_CSPACE_SW : CUPS_CSPACE_K;
      std::vector<unsigned char> rows = page.pixels;
      for (unsigned char& ink : rows)
        ink = gray ? static_cast<unsigned char>(255 - ink) : ink;
      bool printed = false;
      captureLog([&] {
        if (job.startPage(header, "w288h432") != nullptr)
          return;
        for (unsigned y = 0; y < header.cupsHeight; ++y)
          job.writeRow(y, rows.data() + y * header.cupsBytesPerLine);
        printed = job.endPage(false) && job.end();
      });
      fclose(device);
      ASSERT_TRUE(printed) << name;
      EXPECT_EQ(readFile(pages + ".device"), run.out) << name << (gray ? ", gray" : "");
      EXPECT_TRUE(readFile(pages + "/page_0001_jobid_000042_0000.dat") == filterRecord)
          << name << (gray ? ", gray" : "");
      EXPECT_EQ(readFile(pages + "/ostra-test.pgc"),
                readFile(run.spoolDir + "/otv6data/ostra-test.pgc"))
          << name;
    }
  }
}

}  // namespace
