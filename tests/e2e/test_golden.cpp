// Every byte a job writes, locked by digest: each row is a job of pages made
// by libcups's own raster writer, run through the built filter; its exit
// status and everything it wrote (standard output, the log with addresses
// masked, /tmp/xxxxx.log, the BMPs, page records and counter) must match
// tests/golden/jobs.txt. Outputs of 32 bytes or less are kept as hex.
//
// After a deliberate change of output, the rows as now printed are in
// build/test-work/golden/; `cat build/test-work/golden/*.txt > tests/golden/jobs.txt`.
#include <gtest/gtest.h>

#include <cups/cups.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/filter_runner.h"
#include "tests/support/raster_writer.h"

namespace {

namespace fs = std::filesystem;
using Pages = std::vector<TestPage>;

struct GoldenJob {
  const char* name;
  const char* options;
  std::function<Pages()> pages;
  const char* prelude = "";  // shell run in the sandbox first, to seed the spool
  const char* printer = "ostra-test";
  const char* jobId = "42";
  bool oddChoices = false;  // PPD defaults NegativeImage "2" and MirrorImage "yes"
};

TestPage photo() {
  return makePhotoPage(400, 300);
}
TestPage bars() {
  return makeBarsPage(480, 240);
}
const char kCounter4660[] =
    "mkdir -p /var/spool/cups/tmp/otv6data && printf '\\064\\022' "
    "> /var/spool/cups/tmp/otv6data/ostra-test.pgc";

const GoldenJob kJobs[] = {
    {"None", "HalftoneType=None", [] { return Pages{photo()}; }},
    {"FloydSteinberg", "HalftoneType=FloydSteinberg", [] { return Pages{photo()}; }},
    {"Ordered", "HalftoneType=Ordered", [] { return Pages{photo()}; }},
    {"Burkes", "HalftoneType=Burkes", [] { return Pages{photo()}; }},
    {"Stucki", "HalftoneType=Stucki", [] { return Pages{photo()}; }},
    {"JarvisJudiceNinke", "HalftoneType=JarvisJudiceNinke", [] { return Pages{photo()}; }},
    {"Sierra", "HalftoneType=Sierra", [] { return Pages{photo()}; }},
    {"StevensonArce", "HalftoneType=StevensonArce", [] { return Pages{photo()}; }},
    {"Tattoo", "HalftoneType=Tattoo", [] { return Pages{photo()}; }},
    {"Tattoo_Q7", "HalftoneType=Tattoo_Q7", [] { return Pages{photo()}; }},
    {"MirrorBurkes", "HalftoneType=Burkes MirrorImage=True", [] { return Pages{photo()}; }},
    {"MirrorTattoo", "HalftoneType=Tattoo MirrorImage=True", [] { return Pages{photo()}; }},
    {"NegativeNone", "NegativeImage=True", [] { return Pages{photo()}; }},
    {"NegativeTattoo", "HalftoneType=Tattoo NegativeImage=True", [] { return Pages{photo()}; }},
    {"BrighterOrdered", "HalftoneType=Ordered Brightness=50", [] { return Pages{photo()}; }},
    {"DarkerTattooQ7", "HalftoneType=Tattoo_Q7 Brightness=-25", [] { return Pages{photo()}; }},
    {"BarsTattoo", "HalftoneType=Tattoo", [] { return Pages{bars()}; }},
    {"BarsTattooRows", "HalftoneType=Tattoo VBarcodeDensity=1", [] { return Pages{bars()}; }},
    {"BarsTattooColumns", "HalftoneType=Tattoo VBarcodeDensity=2", [] { return Pages{bars()}; }},
    {"BarsNoneRows", "VBarcodeDensity=1", [] { return Pages{bars()}; }},
    // Rows read from starts that drift when the width is no multiple of 4.
    {"UnalignedSierra", "HalftoneType=Sierra", [] { return Pages{makePhotoPage(402, 150)}; }},
    {"UnalignedTattoo", "HalftoneType=Tattoo", [] { return Pages{makePhotoPage(403, 120)}; }},
    {"WiderThanMedia", "HalftoneType=FloydSteinberg",
     [] { return Pages{makePhotoPage(1800, 40)}; }},
    // A stored counter: both pages carry it, the second file takes suffix 1.
    {"TwoPagesStoredCounter", "PaperType=LabelMark PrintSpeed=2 Darkness=Light",
     [] {
       return Pages{photo(), makePhotoPage(240, 160, 300, 300)};
     },
     kCounter4660},
    {"MediaSpeedAt300Dpi",
     "PaperType=Continue GapsHeight=8 PrintSpeed=6 Darkness=Dark Resolution=300dpi "
     "PageSize=w288h144",
     [] { return Pages{makePhotoPage(600, 300, 300, 300, "w288h144")}; }},
    {"UnequalResolutions", "", [] { return Pages{makePhotoPage(400, 600, 203, 406)}; }},
    {"PrinterNameAndJobId", "", [] { return Pages{photo()}; }, "", "Room\t2", "1234567"},
    {"PpdChoicesNotTrueFalse", "HalftoneType=Tattoo", [] { return Pages{photo()}; }, "",
     "ostra-test", "42", true},
    {"ZeroHeightEndsTheJob", "",
     [] {
       return Pages{photo(), makeHeaderOnlyPage(64, 0), photo()};
     }},
    {"OneBitPageAfterAGoodOne", "",
     [] {
       return Pages{photo(), makePageWithDepth(64, 10, 1)};
     }},
    {"EmptyStream", "", [] { return Pages{}; }},
    {"PageTooLarge", "", [] { return Pages{makeHeaderOnlyPage(70000, 70000)}; }},
};

std::string hashOf(const std::string& bytes) {
  if (bytes.size() <= 32) {
    std::string hex;
    char two[3];
    for (unsigned char c : bytes) {
      snprintf(two, sizeof two, "%02x", c);
      hex += two;
    }
    return "hex:" + hex;
  }
  unsigned char hash[32];
  char text[65];
  cupsHashData("sha2-256", bytes.data(), bytes.size(), hash, sizeof hash);
  return std::string("sha256:") + cupsHashString(hash, sizeof hash, text, sizeof text);
}

// The BMP names carry the local time of the run; it is checked here and masked.
std::string maskTime(const std::string& name, time_t from, time_t to) {
  std::smatch m;
  static const std::regex kName("([a-z]+)_(\\d+)-(\\d+)-(\\d+)_(\\d+)_(\\d+)_(\\d+)_(\\d+)\\.bmp");
  if (!std::regex_match(name, m, kName))
    return name;
  struct tm tm = {};
  tm.tm_year = std::stoi(m[2]) - 1900;
  tm.tm_mon = std::stoi(m[3]) - 1;
  tm.tm_mday = std::stoi(m[4]);
  tm.tm_hour = std::stoi(m[5]);
  tm.tm_min = std::stoi(m[6]);
  tm.tm_sec = std::stoi(m[7]);
  tm.tm_isdst = -1;
  const time_t t = mktime(&tm);
  EXPECT_TRUE(t >= from && t <= to) << name << " is not a local time of the run";
  return m[1].str() + "_<time>_" + m[8].str() + ".bmp";
}

std::vector<std::string> manifest(const GoldenJob& job, const FilterRun& run, time_t from,
                                  time_t to) {
  // Heap addresses differ from run to run.
  static const std::regex kAddress("(pointer address: |result, address: )(0x)?[0-9a-f]+");
  std::vector<std::string> lines = {
      "status " + std::to_string(run.status), "stdout " + hashOf(run.out),
      "stderr " + hashOf(std::regex_replace(run.err, kAddress, "$1<address>"))};
  std::vector<std::string> files;
  for (const std::string& top : {run.tmpDir, run.spoolDir}) {
    for (const auto& e : fs::recursive_directory_iterator(top)) {
      if (!e.is_regular_file())
        continue;
      const std::string name = fs::path(top).filename().string() + "/" +
                               fs::relative(e.path(), top).parent_path().string();
      files.push_back((fs::path(name) / maskTime(e.path().filename().string(), from, to))
                          .lexically_normal()
                          .string() +
                      " " + hashOf(readFile(e.path().string())));
    }
  }
  std::sort(files.begin(), files.end());
  lines.insert(lines.end(), files.begin(), files.end());
  for (std::string& line : lines)
    line = std::string(job.name) + " " + line;
  return lines;
}

std::string joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines)
    text += line + "\n";
  return text;
}

class Golden : public testing::TestWithParam<size_t> {};

TEST_P(Golden, JobWritesTheLockedBytes) {
  const GoldenJob& job = kJobs[GetParam()];
  const std::string dir = testWorkDir();
  const Pages pages = job.pages();
  const bool headerOnly =
      std::any_of(pages.begin(), pages.end(), [](const TestPage& p) { return p.pixels.empty(); });
  std::string error;
  ASSERT_TRUE(writeRasterFile(dir + "/job.ras", pages, &error,
                              headerOnly ? CUPS_RASTER_WRITE : CUPS_RASTER_WRITE_COMPRESSED))
      << error;
  FilterCall call = filterJob(job.options, dir + "/job.ras");
  call.args[0] = job.jobId;
  call.env["PRINTER"] = job.printer;
  call.prelude = job.prelude;
  if (job.oddChoices) {
    std::string ppd = readFile(OSTRA_SOURCE_DIR "/ppd/ostra.ppd");
    for (const char* option : {"NegativeImage: False", "MirrorImage: False"}) {
      const std::string name = std::string(option).substr(0, std::string(option).find(':'));
      const std::string choice = name == "NegativeImage" ? "2" : "yes";
      ppd.replace(ppd.find(option), strlen(option),
                  name + ": " + choice + "\n*" + name + " " + choice + "/Odd: \"\"");
    }
    std::ofstream(dir + "/odd.ppd") << ppd;
    call.env["PPD"] = dir + "/odd.ppd";
  }
  const time_t from = time(nullptr);
  const FilterRun run = runFilter(call);
  const time_t to = time(nullptr);
  ASSERT_TRUE(run.error.empty()) << run.error;

  const std::string actual = joined(manifest(job, run, from, to));
  std::vector<std::string> expected;
  std::ifstream golden(OSTRA_SOURCE_DIR "/tests/golden/jobs.txt");
  for (std::string line; std::getline(golden, line);)
    if (line.rfind(std::string(job.name) + " ", 0) == 0)
      expected.push_back(line);
  char index[8];
  snprintf(index, sizeof index, "%02zu-", GetParam());
  fs::create_directories(OSTRA_BINARY_DIR "/test-work/golden");
  std::ofstream(OSTRA_BINARY_DIR "/test-work/golden/" + std::string(index) + job.name + ".txt")
      << actual;
  EXPECT_EQ(joined(expected), actual) << run.err.substr(0, 2000);
}

INSTANTIATE_TEST_SUITE_P(, Golden, testing::Range(size_t{0}, std::size(kJobs)),
                         [](const auto& info) { return std::string(kJobs[info.param].name); });

}  // namespace
