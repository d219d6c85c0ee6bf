// The typed PPD look-ups and the settings read from a PPD, on a small PPD of
// odd choices (tests/data/odd-choices.ppd).
#include <cups/cups.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "common/kiwa_common.h"
#include "common/kiwa_ppd.h"
#include "filter/job_settings.h"
#include "tests/support/filter_runner.h"

namespace {

TEST(KiwaPpd, ChoicesAndAttributesFallBackToDefaults) {
  const std::string path = OSTRA_SOURCE_DIR "/tests/data/odd-choices.ppd";
  const struct {
    const char *options, *option, *str;  // str null: the default comes back
    int asInt, asBool;
  } cases[] = {
      {"", "Missing", nullptr, 77, 55},    {"", "Lost", nullptr, 77, 55},  // "Gone" is no choice
      {"Lost=a", "Lost", "A", 0, 0},       {"", "Value", "YES", 0, 1},
      {"Value=on", "Value", "on", 0, 0},   {"Value=256", "Value", "256", 256, 0},  // low 8 bits
      {"Value=-1", "Value", "-1", -1, -1},
  };
  for (const auto& c : cases) {
    std::unique_ptr<ppd_file_t, decltype(&ppdClose)> ppd(ppdOpenFile(path.c_str()), &ppdClose);
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
    EXPECT_EQ(kiwaPpdGetAttrAsFloatDefault(ppd.get(), "Missing", nullptr, -2.5), -2.5);
  }
  // The settings from it: 144 x 72 pt by the fixed 0.3528 mm, 576 pt = 203.2 mm.
  setenv("PPD", path.c_str(), 1);
  const std::string longName(300, 'p');
  const std::pair<const char*, std::string> printers[] = {
      {nullptr, ""}, {"x\x7f\ny", "x__y"}, {longName.c_str(), longName.substr(0, 259)}};
  for (const auto& [printer, name] : printers) {
    printer ? setenv("PRINTER", printer, 1) : unsetenv("PRINTER");
    Settings s;
    captureLog([&] { parseSettings(&s, ""); });
    EXPECT_EQ(s.PrinterName, name);
    EXPECT_EQ(std::vector<float>({s.pageWidth, s.pageHeight, s.maxMediaWidthMm}),
              std::vector<float>({50.8032f, 25.4016f, 203.2f}));
  }
  unsetenv("PPD");
  unsetenv("PRINTER");
}

}  // namespace
