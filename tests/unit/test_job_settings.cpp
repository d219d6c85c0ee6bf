#include "filter/job_settings.h"

#include <cups/ppd.h>
#include <gtest/gtest.h>
#include <strings.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

const std::string kShippedPpd = std::string(OSTRA_SOURCE_DIR) + "/ppd/ostra.ppd";

// One 2 x 1 in label size, and a Darkness keyword in the "wrong" case.
const char kSmallPpd[] = R"PPD(*PPD-Adobe: "4.3"
*MaxMediaWidth: "576"
*OpenUI *PageSize/Media Size: PickOne
*DefaultPageSize: Small
*PageSize Small/Small: ""
*CloseUI: *PageSize
*PaperDimension Small/Small: "144 72"
*OpenUI *Darkness/Darkness: PickOne
*DefaultDarkness: dark
*Darkness dark/Dark: ""
*CloseUI: *Darkness
)PPD";

// A file under the test temp dir, removed again with the object.
struct TempFile {
  TempFile(const char* name, const char* text)
      : path(testing::TempDir() + name + std::to_string(getpid())) {
    if (text != nullptr)
      std::ofstream(path) << text;
  }
  ~TempFile() { unlink(path.c_str()); }
  std::string path;
};

struct Parsed {
  Settings s;
  std::string log;
};

// parseSettings on a record full of junk, with its log collected and PPD and
// PRINTER (null: unset) in the environment only for the call.
Parsed parse(const char* ppd, const char* printer, const char* options) {
  const char* names[] = {"PPD", "PRINTER"};
  const char* values[] = {ppd, printer};
  std::optional<std::string> saved[2];
  for (int i = 0; i < 2; ++i) {
    if (getenv(names[i]) != nullptr)
      saved[i] = getenv(names[i]);
    values[i] ? setenv(names[i], values[i], 1) : unsetenv(names[i]);
  }
  Parsed out;
  memset(&out.s, 0xA5, sizeof out.s);
  char* data = nullptr;
  size_t size = 0;
  FILE* mem = open_memstream(&data, &size);
  kiwaLogSetStream(mem);
  parseSettings(&out.s, options);
  kiwaLogSetStream(nullptr);
  fclose(mem);
  out.log.assign(data, size);
  free(data);
  for (int i = 0; i < 2; ++i)
    saved[i] ? setenv(names[i], saved[i]->c_str(), 1) : unsetenv(names[i]);
  return out;
}

TEST(ParseSettings, ShippedPpdWithoutOptionsGivesItsDefaults) {
  const Settings s = parse(kShippedPpd.c_str(), "ostra", "").s;
  EXPECT_STREQ(s.PageSize, "w288h432");
  EXPECT_EQ(s.pageWidth, static_cast<float>(288 * 0.3528));
  EXPECT_EQ(s.pageHeight, static_cast<float>(432 * 0.3528));
  EXPECT_STREQ(s.Resolution, "203dpi");
  EXPECT_STREQ(s.MediaMethod, "DirectThermal");
  EXPECT_STREQ(s.PaperType, "LabelGaps");
  EXPECT_EQ(s.GapsHeight, 3);
  EXPECT_STREQ(s.Origin, "Top");
  EXPECT_EQ(s.MirrorImage, 0);
  EXPECT_EQ(s.NegativeImage, 0);
  EXPECT_EQ(s.halftoneType, DITHER_NONE);
  EXPECT_STREQ(s.PrintSpeed, "4");
  EXPECT_EQ(s.Darkness, 1);
  EXPECT_EQ(s.Brightness, 0);
  EXPECT_EQ(s.VBarcodeOpt, 0);
  EXPECT_STREQ(s.PrinterName, "ostra");
  EXPECT_EQ(s.MaxMediaWidth, static_cast<float>(612 / 72.0 * 25.4));
  // Never filled, so they come out of the zeroing rather than the caller's junk.
  EXPECT_STREQ(s.PostAction, "");
  EXPECT_STREQ(s.DataOutputFile, "");
}

TEST(ParseSettings, LogsPageSizeAndEverySettingInOrder) {
  const Parsed p = parse(kShippedPpd.c_str(), "ostra",
                         "PageSize=w288h144 Resolution=300dpi PaperType=Continue GapsHeight=5 "
                         "Origin=Bottom MirrorImage=True NegativeImage=True PrintSpeed=6 "
                         "Darkness=Light HalftoneType=Tattoo_Q7 Brightness=-25 VBarcodeDensity=2");
  // 288 pt * 0.3528 = 101.6064 mm, 144 pt = 50.8032 mm; 612 pt = 215.9 mm as a float.
  EXPECT_EQ(p.log,
            "DEBUG:PageSizeName: w288h144\n"
            "DEBUG:Custom Size: (288.000000,144.000000,0.000000,0.000000,288.000000,144.000000)\n"
            "DEBUG:Set page size: width 101.606400 mm, height 50.803200 mm\n"
            "DEBUG:settings->Resolution:300dpi\n"
            "DEBUG:settings->MediaMethod:DirectThermal\n"
            "DEBUG:settings->PaperType:Continue\n"
            "DEBUG:settings->GapsHeight:5\n"
            "DEBUG:settings->PostAction:\n"
            "DEBUG:settings->Occurrence:\n"
            "DEBUG:settings->Origin:Bottom\n"
            "DEBUG:settings->MirrorImage:1\n"
            "DEBUG:settings->NegativeImage:1\n"
            "DEBUG:settings->PrintSpeed:6\n"
            "DEBUG:settings->Darkness:0\n"
            "DEBUG:settings->halftoneType:9\n"
            "DEBUG:settings->PageSize:w288h144\n"
            "DEBUG:settings->pageWidth:101.606400\n"
            "DEBUG:settings->pageHeight:50.803200\n"
            "DEBUG:settings->MaxMediaWidth:215.899994\n"
            "DEBUG:settings->VBarcodeOpt:2.000000\n");
  EXPECT_EQ(p.s.Brightness, -25);  // read but not logged
}

TEST(ParseSettings, JobOptionsOverridePpdDefaults) {
  const struct {
    const char* options;
    int darkness;
    int mirror;
    int halftone;
  } cases[] = {
      // libcups marks only offered choices; the shipped PPD offers True/False, not "yes".
      {"Darkness=Dark MirrorImage=yes HalftoneType=Tattoo", 2, 0, 8},
      {"Darkness=Dark MirrorImage=true HalftoneType=Tattoo", 2, 1, 8},
      {"MirrorImage", 1, 1, 0},  // a bare name means "true"
      {"Darkness=Light", 0, 0, 0},
      // libcups matches choices ignoring case and marks the PPD's own "Dark"/"Tattoo".
      {"Darkness=dark HalftoneType=tattoo", 2, 0, 8},
  };
  for (const auto& c : cases) {
    const Settings s = parse(kShippedPpd.c_str(), "p", c.options).s;
    EXPECT_EQ(s.Darkness, c.darkness) << c.options;
    EXPECT_EQ(s.MirrorImage, c.mirror) << c.options;
    EXPECT_EQ(s.halftoneType, c.halftone) << c.options;
  }
}

TEST(ParseSettings, PrinterNameKeepsOnlyPrintableCharacters) {
  const std::string longName(300, 'p');
  const struct {
    const char* value;  // null: PRINTER unset
    std::string expected;
  } cases[] = {
      {"ostra", "ostra"},
      {"Tattoo Room #1", "Tattoo Room #1"},
      {"a\tb", "a_b"},
      {"x\x7f\ny", "x__y"},
      {"", ""},
      {nullptr, ""},
      {longName.c_str(), longName.substr(0, 259)},
  };
  for (const auto& c : cases) {
    const Settings s = parse(kShippedPpd.c_str(), c.value, "").s;
    EXPECT_EQ(s.PrinterName, c.expected) << (c.value ? c.value : "(unset)");
  }
}

TEST(ParseSettings, SmallPpdSizesInMillimetresAndLowerCaseDarkness) {
  TempFile small("small_", kSmallPpd);
  const Settings s = parse(small.path.c_str(), "p", "").s;
  EXPECT_STREQ(s.PageSize, "Small");
  EXPECT_EQ(s.pageWidth, static_cast<float>(144 * 0.3528));
  EXPECT_EQ(s.pageHeight, static_cast<float>(72 * 0.3528));
  EXPECT_EQ(s.MaxMediaWidth, static_cast<float>(576 / 72.0 * 25.4));
  EXPECT_EQ(s.Darkness, 0);  // "dark" is not "Dark"
  // The job option marks the PPD's own lower-case keyword.
  EXPECT_EQ(parse(small.path.c_str(), "p", "Darkness=Dark").s.Darkness, 0);
  // Options the PPD lacks come out empty or zero.
  EXPECT_STREQ(s.PaperType, "");
  EXPECT_STREQ(s.PrintSpeed, "");
  EXPECT_EQ(s.GapsHeight, 0);
}

TEST(ParseSettings, WithoutUsablePpdLeavesEverythingZero) {
  TempFile empty("empty_", ""), garbage("garbage_", "not a PPD\n\x01\x02");
  Settings zero;
  memset(&zero, 0, sizeof zero);
  for (const char* ppd : {static_cast<const char*>(nullptr), "/nonexistent/ostra.ppd",
                          empty.path.c_str(), garbage.path.c_str()}) {
    const Parsed p = parse(ppd, nullptr, "Darkness=Dark");
    EXPECT_EQ(memcmp(&p.s, &zero, sizeof zero), 0) << (ppd ? ppd : "(unset)");
    EXPECT_EQ(p.log.rfind("DEBUG:PageSizeName: \nDEBUG:settings->Resolution:\n", 0), 0u) << p.log;
  }
}

struct OddOptionsCase {
  const char* label;
  std::string options;
  int darkness;
  const char* printSpeed;
};
void PrintTo(const OddOptionsCase& c, std::ostream* os) {
  *os << c.label;
}

class ParseSettingsOddOptions : public testing::TestWithParam<OddOptionsCase> {};

TEST_P(ParseSettingsOddOptions, KeepsDefaultsForWhatItCannotUse) {
  const Settings s = parse(kShippedPpd.c_str(), "p", GetParam().options.c_str()).s;
  EXPECT_EQ(s.Darkness, GetParam().darkness);
  EXPECT_STREQ(s.PrintSpeed, GetParam().printSpeed);
  EXPECT_STREQ(s.PageSize, "w288h432");
  EXPECT_EQ(s.pageWidth, static_cast<float>(288 * 0.3528));
  EXPECT_EQ(s.GapsHeight, 3);
}

INSTANTIATE_TEST_SUITE_P(
    , ParseSettingsOddOptions,
    testing::Values(OddOptionsCase{"Empty", "", 1, "4"},
                    OddOptionsCase{"OnlyEquals", "====", 1, "4"},
                    OddOptionsCase{"NoValue", "Darkness=", 1, "4"},
                    OddOptionsCase{"UnknownNames", "Foo=Bar Baz=1 Darkness=Dark", 2, "4"},
                    OddOptionsCase{"QuotedValue", "PrintSpeed=\"2\" Darkness=Light", 0, "2"},
                    // An unterminated quote runs to the end of the string.
                    OddOptionsCase{"OpenQuote", "Darkness=\"Dark", 2, "4"},
                    OddOptionsCase{"OpenBrace", "Darkness={Dark", 1, "4"},
                    OddOptionsCase{"LongValue", "PrintSpeed=" + std::string(5000, '6'), 1, "4"},
                    OddOptionsCase{"LongName", std::string(5000, 'A') + "=1 Darkness=Dark", 2,
                                   "4"}),
    [](const auto& info) { return std::string(info.param.label); });

TEST(ShippedPpd, OffersTheChoicesTheFilterReads) {
  std::unique_ptr<ppd_file_t, decltype(&ppdClose)> ppd(ppdOpenFile(kShippedPpd.c_str()), &ppdClose);
  ASSERT_NE(ppd, nullptr);
  const auto option = [&](const char* name) { return ppdFindOption(ppd.get(), name); };
  // The filter compares these keywords case-sensitively.
  const std::pair<const char*, std::vector<const char*>> compared[] = {
      {"HalftoneType",
       {"None", "FloydSteinberg", "Ordered", "Burkes", "Stucki", "JarvisJudiceNinke", "Sierra",
        "StevensonArce", "Tattoo", "Tattoo_Q7"}},
      {"PaperType", {"LabelGaps", "LabelMark", "Continue"}},
      {"Darkness", {"Light", "Middle", "Dark"}},
      {"PageSize", {"A4", "Letter", "Tattoo_A5", "Tattoo_A6"}},
      {"Resolution", {"203dpi", "300dpi"}},
  };
  for (const auto& [name, keywords] : compared) {
    ASSERT_NE(option(name), nullptr) << name;
    for (const char* keyword : keywords) {
      const ppd_choice_t* choice = ppdFindChoice(option(name), keyword);
      ASSERT_NE(choice, nullptr) << name << " " << keyword;
      EXPECT_STREQ(choice->choice, keyword);
    }
  }
  EXPECT_EQ(option("HalftoneType")->num_choices, 10);
  // A default that is no choice would silently give the filter's fallback.
  for (const char* name : {"PageSize", "Resolution", "MediaMethod", "PaperType", "GapsHeight",
                           "Origin", "HalftoneType", "MirrorImage", "NegativeImage", "PrintSpeed",
                           "Darkness", "Brightness", "VBarcodeDensity"}) {
    ASSERT_NE(option(name), nullptr) << name;
    EXPECT_NE(ppdFindChoice(option(name), option(name)->defchoice), nullptr) << name;
  }
  for (const char* name : {"GapsHeight", "PrintSpeed", "Brightness", "VBarcodeDensity"}) {
    for (int i = 0; i < option(name)->num_choices; ++i) {
      const char* keyword = option(name)->choices[i].choice;
      char* end = nullptr;
      strtol(keyword, &end, 10);
      EXPECT_TRUE(end != keyword && *end == '\0') << name << " " << keyword;
    }
  }
  for (const char* name : {"MirrorImage", "NegativeImage"}) {
    for (int i = 0; i < option(name)->num_choices; ++i) {
      const char* keyword = option(name)->choices[i].choice;
      EXPECT_TRUE(strcasecmp(keyword, "true") == 0 || strcasecmp(keyword, "false") == 0 ||
                  strcasecmp(keyword, "yes") == 0 || strcasecmp(keyword, "no") == 0)
          << name << " " << keyword;
    }
  }
  for (int i = 0; i < option("PageSize")->num_choices; ++i) {
    const ppd_size_t* size = ppdPageSize(ppd.get(), option("PageSize")->choices[i].choice);
    EXPECT_TRUE(size != nullptr && size->width > 0 && size->length > 0) << i;
  }
  const ppd_attr_t* maxWidth = ppdFindAttr(ppd.get(), "MaxMediaWidth", nullptr);
  ASSERT_NE(maxWidth, nullptr);
  char* end = nullptr;
  EXPECT_GT(strtod(maxWidth->value, &end), 0.0);
  EXPECT_EQ(*end, '\0') << maxWidth->value;
}

}  // namespace
