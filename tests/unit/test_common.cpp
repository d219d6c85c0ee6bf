// Logging, names, paths and copies; the typed PPD look-ups and the settings
// the job reads from a PPD, on a small PPD of odd choices.
#include <cups/cups.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>

#include "common/kiwa_common.h"
#include "common/kiwa_ppd.h"
#include "filter/job_settings.h"
#include "tests/support/filter_runner.h"

namespace {

// Keywords differ from each other ignoring case, as libcups matches options so.
const char kOddPpd[] = R"PPD(*PPD-Adobe: "4.3"
*MaxMediaWidth: "576"
*EmptyAttr: ""
*Spec Foo: "1.5"
*OpenUI *PageSize/Media Size: PickOne
*DefaultPageSize: Small
*PageSize Small/Small: ""
*CloseUI: *PageSize
*PaperDimension Small/Small: "144 72"
*OpenUI *Darkness/Darkness: PickOne
*DefaultDarkness: dark
*Darkness dark/Dark: ""
*CloseUI: *Darkness
*OpenUI *Value/Value: PickOne
*DefaultValue: tRuE
*Value tRuE/t: ""
*Value YES/y: ""
*Value FaLsE/f: ""
*Value on/o: ""
*Value 256/256: ""
*Value -1/-1: ""
*CloseUI: *Value
*OpenUI *Lost/Lost: PickOne
*DefaultLost: Gone
*Lost A/A: ""
*CloseUI: *Lost
)PPD";

std::string oddPpd() {
  const std::string path = testWorkDir() + "/odd.ppd";
  std::ofstream(path) << kOddPpd;
  return path;
}

TEST(KiwaCommon, LogNamesPathsAndCopies) {
  EXPECT_EQ(captureLog([] { kiwaLogCommon(1, "x"); }), "DEBUG:x\n");
  EXPECT_EQ(captureLog([] { kiwaLogCommon(5, "%d-%s", 7, "y"); }), "INVALID:7-y\n");
  EXPECT_STREQ(kiwaHalftoneTypeToStr(DITHER_TATTOO_Q7), "Tattoo_Q7");
  EXPECT_STREQ(kiwaHalftoneTypeToStr(static_cast<DitherType>(10)), "None");
  EXPECT_EQ(kiwaHalftoneTypeFromStr("tattoo"), DITHER_NONE);  // case matters
  const char* const paths[][2] = {{"/usr/lib/cups/filter/rastertoostra", "rastertoostra"},
                                  {"C:\\x/y\\z", "z"},
                                  {"a\\b/c", "c"},
                                  {"plain", "plain"},
                                  {"dir/", ""}};
  for (const auto& p : paths)
    EXPECT_STREQ(kiwaPathGetBasename(p[0]), p[1]) << p[0];
  char dst[41];
  memset(dst, 'z', sizeof dst);
  kiwaStrCpy(dst, std::string(60, 'a').c_str(), sizeof dst);
  EXPECT_EQ(std::string(dst), std::string(40, 'a'));
  kiwaStrCpy(dst, "ab", sizeof dst);
  EXPECT_EQ(std::string(dst, dst + 41), std::string("ab") + std::string(39, '\0'));
}

TEST(KiwaPpd, ChoicesAndAttributesFallBackToDefaults) {
  const struct {
    const char* options;
    const char* option;
    const char* str;  // null: the default comes back
    int asInt, asBool;
  } cases[] = {
      {"", "Missing", nullptr, 77, 55},
      {"", "Lost", nullptr, 77, 55},  // default keyword is not a choice
      {"Lost=a", "Lost", "A", 0, 0},  // a job option still marks one
      {"", "Value", "tRuE", 0, 1},
      {"Value=yes", "Value", "YES", 0, 1},
      {"Value=false", "Value", "FaLsE", 0, 0},
      {"Value=on", "Value", "on", 0, 0},
      {"Value=256", "Value", "256", 256, 0},  // kept to the low 8 bits
      {"Value=-1", "Value", "-1", -1, -1},
  };
  for (const auto& c : cases) {
    std::unique_ptr<ppd_file_t, decltype(&ppdClose)> ppd(ppdOpenFile(oddPpd().c_str()), &ppdClose);
    ASSERT_NE(ppd, nullptr);
    ppdMarkDefaults(ppd.get());
    cups_option_t* list = nullptr;
    const int count = cupsParseOptions(c.options, 0, &list);
    cupsMarkOptions(ppd.get(), count, list);
    cupsFreeOptions(count, list);
    EXPECT_STREQ(kiwaPpdGetChoiceAsStrDefault(ppd.get(), c.option, "def"), c.str ? c.str : "def");
    EXPECT_EQ(kiwaPpdGetChoiceAsIntDefault(ppd.get(), c.option, 77), c.asInt) << c.options;
    EXPECT_EQ(kiwaPpdGetChoiceAsBoolDefault(ppd.get(), c.option, 55), c.asBool) << c.options;
    EXPECT_STREQ(kiwaPpdGetAttrAsStrDefault(ppd.get(), "EmptyAttr", nullptr, "def"), "");
    EXPECT_EQ(kiwaPpdGetAttrAsFloatDefault(ppd.get(), "EmptyAttr", nullptr, -2.5), 0.0);
    EXPECT_EQ(kiwaPpdGetAttrAsFloatDefault(ppd.get(), "Spec", "Foo", -2.5), 1.5);
    EXPECT_EQ(kiwaPpdGetAttrAsFloatDefault(ppd.get(), "Spec", "Bar", -2.5), -2.5);
  }
  EXPECT_EQ(kiwaPpdGetChoiceAsBoolDefault(nullptr, "Value", 55), 55);
}

TEST(ParseSettings, SmallPpdSizesDarknessAndPrinterNames) {
  setenv("PPD", oddPpd().c_str(), 1);
  const std::string longName(300, 'p');
  const struct {
    const char* printer;  // null: unset
    std::string expected;
  } printers[] = {{nullptr, ""}, {"x\x7f\ny", "x__y"}, {longName.c_str(), longName.substr(0, 259)}};
  for (const auto& c : printers) {
    c.printer ? setenv("PRINTER", c.printer, 1) : unsetenv("PRINTER");
    Settings s;
    captureLog([&] { parseSettings(&s, "Darkness=Dark"); });
    EXPECT_EQ(s.PrinterName, c.expected);
    // 144 x 72 pt by the fixed 0.3528 mm; 576 pt = 203.2 mm.
    EXPECT_EQ(s.pageWidth, 50.8032f);
    EXPECT_EQ(s.pageHeight, 25.4016f);
    EXPECT_EQ(s.MaxMediaWidth, 203.2f);
    EXPECT_EQ(s.Darkness, 0);  // the PPD's "dark" is not "Dark"
    EXPECT_STREQ(s.PrintSpeed, "");
  }
  unsetenv("PPD");
  unsetenv("PRINTER");
}

}  // namespace
