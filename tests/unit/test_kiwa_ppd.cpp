#include "common/kiwa_ppd.h"

#include <cups/cups.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <string>

namespace {

// Every choice keyword of "Value" differs from the others ignoring case, because
// libcups matches job options to choices case-insensitively.
const char kFixturePpd[] = R"PPD(*PPD-Adobe: "4.3"
*MaxMediaWidth: "576"
*EmptyAttr: ""
*Word: "abc"
*Spec Foo: "1.5"
*OpenUI *Value/Value: PickOne
*DefaultValue: tRuE
*Value tRuE/t: ""
*Value YES/y: ""
*Value No/n: ""
*Value FaLsE/f: ""
*Value on/o: ""
*Value 2/2: ""
*Value 256/256: ""
*Value -1/-1: ""
*Value abc/abc: ""
*CloseUI: *Value
*OpenUI *Lost/Lost: PickOne
*DefaultLost: Gone
*Lost A/A: ""
*Lost B/B: ""
*CloseUI: *Lost
)PPD";

using PpdPtr = std::unique_ptr<ppd_file_t, decltype(&ppdClose)>;

class KiwaPpdTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    path_ = testing::TempDir() + "kiwa_ppd_" + std::to_string(getpid()) + ".ppd";
    std::ofstream(path_) << kFixturePpd;
  }
  static void TearDownTestSuite() { unlink(path_.c_str()); }

  // The fixture as the filter sees it: defaults marked, then the job options.
  static PpdPtr open(const char* options, bool markDefaults = true) {
    PpdPtr ppd(ppdOpenFile(path_.c_str()), &ppdClose);
    int line = 0;
    EXPECT_NE(ppd, nullptr) << ppdErrorString(ppdLastError(&line)) << " at line " << line;
    if (ppd == nullptr)
      return ppd;
    if (markDefaults)
      ppdMarkDefaults(ppd.get());
    cups_option_t* list = nullptr;
    const int count = cupsParseOptions(options, 0, &list);
    cupsMarkOptions(ppd.get(), count, list);
    cupsFreeOptions(count, list);
    return ppd;
  }

  static std::string path_;
};
std::string KiwaPpdTest::path_;

constexpr int kIntDef = 77;
constexpr signed char kBoolDef = 55;

TEST_F(KiwaPpdTest, ChoiceHelpers) {
  const struct {
    const char* options;
    const char* option;
    const char* str;  // null: the default comes back
    int asInt;
    int asBool;
  } cases[] = {
      {"", "Missing", nullptr, kIntDef, kBoolDef},
      {"", "Lost", nullptr, kIntDef, kBoolDef},  // default keyword is not a choice
      {"Lost=a", "Lost", "A", 0, 0},             // a job option still marks one
      {"", "Value", "tRuE", 0, 1},
      {"Value=YES", "Value", "YES", 0, 1},
      {"Value=No", "Value", "No", 0, 0},
      {"Value=FaLsE", "Value", "FaLsE", 0, 0},
      {"Value=on", "Value", "on", 0, 0},
      {"Value=2", "Value", "2", 2, 2},
      {"Value=256", "Value", "256", 256, 0},  // kept to the low 8 bits
      {"Value=-1", "Value", "-1", -1, -1},
      {"Value=abc", "Value", "abc", 0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.options) + " / " + c.option);
    PpdPtr ppd = open(c.options);
    ASSERT_NE(ppd, nullptr);
    const char* def = "default";
    EXPECT_STREQ(kiwaPpdGetChoiceAsStrDefault(ppd.get(), c.option, def), c.str ? c.str : def);
    EXPECT_EQ(kiwaPpdGetChoice(ppd.get(), c.option) == nullptr, c.str == nullptr);
    EXPECT_EQ(kiwaPpdGetChoiceAsIntDefault(ppd.get(), c.option, kIntDef), c.asInt);
    EXPECT_EQ(kiwaPpdGetChoiceAsBoolDefault(ppd.get(), c.option, kBoolDef), c.asBool);
  }
}

TEST_F(KiwaPpdTest, UnmarkedOptionFallsBackToItsDefaultChoice) {
  PpdPtr ppd = open("", /*markDefaults=*/false);
  ASSERT_NE(ppd, nullptr);
  EXPECT_STREQ(kiwaPpdGetChoiceAsStrDefault(ppd.get(), "Value", "default"), "tRuE");
  EXPECT_EQ(kiwaPpdGetChoiceAsBoolDefault(ppd.get(), "Value", kBoolDef), 1);
  EXPECT_EQ(kiwaPpdGetChoice(ppd.get(), "Lost"), nullptr);
}

TEST_F(KiwaPpdTest, AttributeHelpers) {
  const struct {
    const char* name;
    const char* spec;
    const char* str;  // null: the default comes back
    double asFloat;
  } cases[] = {
      {"MaxMediaWidth", nullptr, "576", 576.0},
      {"EmptyAttr", nullptr, "", 0.0},
      {"Word", nullptr, "abc", 0.0},
      {"Spec", "Foo", "1.5", 1.5},
      {"Spec", "Bar", nullptr, -2.5},
      {"Missing", nullptr, nullptr, -2.5},
  };
  PpdPtr ppd = open("");
  ASSERT_NE(ppd, nullptr);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const char* def = "default";
    EXPECT_STREQ(kiwaPpdGetAttrAsStrDefault(ppd.get(), c.name, c.spec, def), c.str ? c.str : def);
    EXPECT_DOUBLE_EQ(kiwaPpdGetAttrAsFloatDefault(ppd.get(), c.name, c.spec, -2.5), c.asFloat);
  }
}

TEST(KiwaPpd, NullPpdGivesEveryDefault) {
  EXPECT_EQ(kiwaPpdGetChoice(nullptr, "PageSize"), nullptr);
  const char* def = "default";
  EXPECT_EQ(kiwaPpdGetChoiceAsStrDefault(nullptr, "PageSize", def), def);
  EXPECT_EQ(kiwaPpdGetChoiceAsIntDefault(nullptr, "GapsHeight", -9), -9);
  EXPECT_EQ(kiwaPpdGetChoiceAsBoolDefault(nullptr, "MirrorImage", 3), 3);
  EXPECT_EQ(kiwaPpdGetAttrAsStrDefault(nullptr, "MaxMediaWidth", nullptr, def), def);
  EXPECT_EQ(kiwaPpdGetAttrAsFloatDefault(nullptr, "MaxMediaWidth", nullptr, 4.25), 4.25);
}

}  // namespace
