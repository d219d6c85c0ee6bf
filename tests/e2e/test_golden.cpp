// Every byte a job writes, locked: each row is a job of pages from libcups's
// raster writer; its status and all it wrote (log with heap addresses masked)
// must match tests/golden/jobs.txt, outputs of 32 bytes or less as hex. After a
// deliberate change: cat build/test-work/golden/*.txt > tests/golden/jobs.txt
#include <cups/cups.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/filter_runner.h"
#include "tests/support/raster_writer.h"

namespace {

namespace fs = std::filesystem;

struct GoldenJob {
  const char* name;
  const char* options;
  // Pages: "photo" (412 x 300), "bars" (480 x 240), "photo:WxH[@XDPIxYDPI]",
  // "empty:WxH" (a header alone), "1bit".
  const char* pages;
  // Run in the sandbox before the filter: seeds the spool, changes the PPD,
  // the environment or the arguments.
  const char* prelude = "";
};

const char kSeedCounter[] = R"sh(mkdir -p /var/spool/cups/tmp/otv6data
printf '\047\043' > /var/spool/cups/tmp/otv6data/ostra-test.pgc)sh";
// Both options default to the keyword "2", which reads as the number 2.
const char kOddChoices[] =
    R"sh(sed 's/^\*Default\(NegativeImage\|MirrorImage\): False/*Default\1: 2\n*\1 2\/Two: ""/' \
  "$PPD" > /var/spool/odd.ppd && export PPD=/var/spool/odd.ppd)sh";
// Links planted at the fixed names: the target keeps its bytes, the counter
// file is replaced by a real one and pages number from 1.
const char kPlantedLinks[] = R"sh(mkdir -p /var/spool/cups/tmp/otv6data
printf '\047\043' > /var/spool/cups/tmp/target; ln -s /var/spool/cups/tmp/target /tmp/xxxxx.log
ln -s ../target /var/spool/cups/tmp/otv6data/ostra-test.pgc)sh";
const char kNameAndId[] = R"sh(export PRINTER="$(printf 'Room\t2')"; shift; set -- 1234567 "$@")sh";

// clang-format off
const GoldenJob kJobs[] = {
    {"None", "HalftoneType=None", "photo"},
    {"FloydSteinberg", "HalftoneType=FloydSteinberg", "photo"},
    {"Ordered", "HalftoneType=Ordered", "photo"},
    {"Burkes", "HalftoneType=Burkes", "photo"},
    {"Stucki", "HalftoneType=Stucki", "photo"},
    {"JarvisJudiceNinke", "HalftoneType=JarvisJudiceNinke", "photo"},
    {"Sierra", "HalftoneType=Sierra", "photo"},
    {"StevensonArce", "HalftoneType=StevensonArce", "photo"},
    {"Tattoo", "HalftoneType=Tattoo", "photo"},
    {"Tattoo_Q7", "HalftoneType=Tattoo_Q7", "photo"},
    {"MirrorBurkes", "HalftoneType=Burkes MirrorImage=True", "photo"},
    {"MirrorTattoo", "HalftoneType=Tattoo MirrorImage=True", "photo"},
    {"NegativeNone", "NegativeImage=True", "photo"},
    {"NegativeTattoo", "HalftoneType=Tattoo NegativeImage=True", "photo"},
    {"BrighterOrdered", "HalftoneType=Ordered Brightness=50", "photo"},
    {"DarkerTattooQ7", "HalftoneType=Tattoo_Q7 Brightness=-25", "photo"},
    {"BarsTattoo", "HalftoneType=Tattoo", "bars"},
    {"BarsTattooRows", "HalftoneType=Tattoo VBarcodeDensity=1", "bars"},
    {"BarsTattooColumns", "HalftoneType=Tattoo VBarcodeDensity=2", "bars"},
    {"BarsNoneRows", "VBarcodeDensity=1", "bars"},
    // Rows read from starts that drift when the width is no multiple of 4.
    {"UnalignedSierra", "HalftoneType=Sierra", "photo:402x150"},
    {"UnalignedTattoo", "HalftoneType=Tattoo", "photo:403x120"},
    {"WiderThanMedia", "HalftoneType=FloydSteinberg", "photo:1800x40"},
    // A stored counter: both pages carry it, the second file takes suffix 1,
    // and 9000 is stored as 1.
    {"TwoPagesStoredCounter", "PaperType=LabelMark PrintSpeed=2 Darkness=Light",
     "photo photo:240x160@300x300", kSeedCounter},
    {"MediaSpeedAt300Dpi", "PaperType=Continue GapsHeight=8 PrintSpeed=6 Darkness=Dark "
     "Resolution=300dpi PageSize=w288h144", "photo:600x300@300x300"},
    {"UnequalResolutions", "", "photo:400x600@203x406"},
    {"PrinterNameAndJobId", "", "photo", kNameAndId},
    {"PpdChoicesNotTrueFalse", "HalftoneType=Tattoo", "photo", kOddChoices},
    {"ZeroHeightEndsTheJob", "", "photo empty:64x0 photo"},
    {"OneBitPageAfterAGoodOne", "", "photo 1bit"},
    {"StreamEndsInsideAPage", "", "photo bars", R"sh(truncate -s -99 "$6")sh"},
    {"EmptyStream", "", ""},
    {"PageTooLarge", "", "empty:70000x70000"},
    // Malformed headers from libcups's own writer: refused before any allocation
    // (out-of-range enums are among the fuzz crashers).
    {"WidthZero", "", "photo photo:64x10!w=0"},
    {"BytesPerLineBelowWidth", "", "photo:609x20!bpl=10"},
    {"ResolutionZero", "", "photo:64x10!xres=0"},
    {"StandardInput", "", "photo", R"sh(exec <"$6"; set -- "$1" "$2" "$3" "$4" "$5")sh"},
    {"FiveArguments", "", "photo", "set -- 1 u t 1"},
    {"UnopenableFile", "", "photo", "set -- 1 u t 1 '' /no/such.ras"},
    {"NoPpd", "", "photo", "unset PPD"},
    // A record or counter that cannot be kept fails the job: no further page
    // starts after a lost record, and no temporary file stays behind.
    {"PageDirectoryIsAFile", "", "photo photo", "touch /var/spool/cups/tmp/otv6data"},
    {"CounterPathIsADirectory", "", "photo", "mkdir -p /var/spool/cups/tmp/otv6data/ostra-test.pgc"},
    {"PrinterNameLeavingTheSpool", "", "photo", "export PRINTER=../../../../tmp/escaped"},
    {"FixedNamesNotFollowed", "", "photo", kPlantedLinks},
    {"UnreadablePpd", "", "photo", "printf '*PPD-Adobe: 4\\n\\001' >/var/spool/p; PPD=/var/spool/p"},
    // A device that takes nothing: no page is printed, and the job fails.
    {"StandardOutputFull", "", "photo photo", "exec >/dev/full"},
};
// clang-format on

// Header fields a page spec may overwrite with "!name=value", as a hostile
// stream would hold them.
const std::pair<std::string, size_t> kFields[] = {
    {"w", offsetof(cups_page_header2_t, cupsWidth)},
    {"bpl", offsetof(cups_page_header2_t, cupsBytesPerLine)},
    {"xres", offsetof(cups_page_header2_t, HWResolution)}};

std::vector<TestPage> pagesOf(const std::string& spec) {
  std::vector<TestPage> pages;
  std::istringstream words(spec);
  for (std::string word; words >> word;) {
    unsigned w = 412, h = 300, x = 203, y = 203;
    sscanf(word.c_str(), "%*[a-z0-9]:%ux%u@%ux%u", &w, &h, &x, &y);
    pages.push_back(word == "bars"                ? makeBarsPage(480, 240)
                    : word == "1bit"              ? makePageWithDepth(64, 10, 1)
                    : word.rfind("empty", 0) == 0 ? makeHeaderOnlyPage(w, h)
                                                  : makePhotoPage(w, h, x, y));
    char name[8];
    unsigned value = 0;
    for (size_t at = word.find('!'); at != std::string::npos; at = word.find('!', at + 1)) {
      sscanf(word.c_str() + at, "!%7[a-z]=%u", name, &value);
      for (const auto& [field, offset] : kFields)
        if (field == name)
          memcpy(reinterpret_cast<char*>(&pages.back().header) + offset, &value, sizeof value);
      pages.back().pixels.resize(size_t{pages.back().header.cupsBytesPerLine} * h);
    }
  }
  return pages;
}

std::string digest(const std::string& bytes) {
  unsigned char hash[32];
  char text[65];
  const bool small = bytes.size() <= 32;
  if (bytes.empty())
    return "hex:";
  if (!small)
    cupsHashData("sha2-256", bytes.data(), bytes.size(), hash, sizeof hash);
  return std::string(small ? "hex:" : "sha256:") +
         cupsHashString(small ? reinterpret_cast<const unsigned char*>(bytes.data()) : hash,
                        small ? bytes.size() : sizeof hash, text, sizeof text);
}

// BMP names carry the local time of the run: checked here, then masked.
std::string maskTime(const std::string& name, time_t from, time_t to) {
  char kind[16];
  struct tm tm = {};
  long index = 0;
  if (sscanf(name.c_str(), "%15[a-z]_%d-%d-%d_%d_%d_%d_%ld.bmp", kind, &tm.tm_year, &tm.tm_mon,
             &tm.tm_mday, &tm.tm_hour, &tm.tm_min, &tm.tm_sec, &index) != 8)
    return name;
  tm.tm_year -= 1900;
  tm.tm_mon -= 1;
  tm.tm_isdst = -1;
  const time_t t = mktime(&tm);
  EXPECT_TRUE(t >= from && t <= to) << name << " is not a local time of the run";
  return std::string(kind) + "_<time>_" + std::to_string(index) + ".bmp";
}

class Golden : public testing::TestWithParam<size_t> {};

TEST_P(Golden, JobWritesTheLockedBytes) {
  const GoldenJob& job = kJobs[GetParam()];
  const std::string raster = testWorkDir() + "/job.ras";
  const std::vector<TestPage> pages = pagesOf(job.pages);
  const bool headersOnly = std::string(job.pages).find("empty") != std::string::npos;
  std::string error;
  ASSERT_TRUE(writeRasterFile(raster, pages, &error,
                              headersOnly ? CUPS_RASTER_WRITE : CUPS_RASTER_WRITE_COMPRESSED))
      << error;
  FilterCall call = filterJob(job.options, raster);
  call.prelude = job.prelude;
  const time_t from = time(nullptr);
  const FilterRun run = runFilter(call);
  const time_t to = time(nullptr);
  ASSERT_TRUE(run.error.empty()) << run.error;

  static const std::regex kAddress("(pointer address: |result, address: )(0x)?[0-9a-f]+");
  std::vector<std::string> files;
  for (const std::string& top : {run.tmpDir, run.spoolDir})
    for (const auto& e : fs::recursive_directory_iterator(top))
      if (e.is_regular_file()) {
        fs::path name = fs::relative(e.path(), fs::path(top).parent_path());
        name.replace_filename(maskTime(name.filename(), from, to));
        files.push_back(name.string() + " " + digest(readFile(e.path())));
      }
  std::sort(files.begin(), files.end());
  files.insert(files.begin(),
               {"status " + std::to_string(run.status), "stdout " + digest(run.out),
                "stderr " + digest(std::regex_replace(run.err, kAddress, "$1<address>"))});
  std::string actual, expected;
  for (const std::string& line : files)
    actual += std::string(job.name) + " " + line + "\n";
  std::ifstream golden(OSTRA_SOURCE_DIR "/tests/golden/jobs.txt");
  for (std::string line; std::getline(golden, line);)
    if (line.rfind(std::string(job.name) + " ", 0) == 0)
      expected += line + "\n";
  char name[128];
  snprintf(name, sizeof name, "%s/test-work/golden/%02zu-%s.txt", OSTRA_BINARY_DIR, GetParam(),
           job.name);
  fs::create_directories(fs::path(name).parent_path());
  std::ofstream(name) << actual;
  EXPECT_EQ(expected, actual) << run.err.substr(0, 2000);
}

// Under cupsd every filter of a job shares one status pipe, so each log line
// must leave in one write; the backend gets a page's settings before the
// page's record appears.
TEST(FilterOutput, OneWritePerLogLineAndSettingsBeforeEachRecord) {
  const std::string raster = testWorkDir() + "/job.ras";
  std::string error;
  ASSERT_TRUE(writeRasterFile(raster, pagesOf("photo bars"), &error)) << error;
  FilterCall call = filterJob("HalftoneType=Tattoo", raster);
  // LeakSanitizer cannot run under ptrace.
  call.prelude =
      R"sh(ASAN_OPTIONS=detect_leaks=0 exec strace -qq -e trace=write,link -s 99999 -o /tmp/trace "$0" "$@")sh";
  const FilterRun run = runFilter(call);
  ASSERT_EQ(run.status, 0) << run.err;
  std::ifstream trace(run.tmpDir + "/trace");
  std::string order;  // s settings, r record linked, l a whole log line, x part of one
  for (std::string line; std::getline(trace, line);)
    order += line.rfind("write(1, ", 0) == 0             ? "s"
             : line.rfind("link(", 0) == 0               ? "r"
             : line.rfind("write(2, ", 0) != 0           ? ""
             : line.find("\\n\", ") != std::string::npos ? "l"
                                                         : "x";
  EXPECT_GT(std::count(order.begin(), order.end(), 'l'), 80);
  EXPECT_EQ(std::regex_replace(order, std::regex("l+"), ""), "srsr");

  // The backend goes away after the first page's settings (while that page,
  // a large one, is processed): that page prints, none after it, the job fails.
  ASSERT_TRUE(writeRasterFile(raster, pagesOf("photo:2000x1500 photo photo"), &error)) << error;
  call.prelude = R"sh(mkfifo /tmp/be; head -c 7 </tmp/be >/var/spool/cups/tmp/got &
exec >/tmp/be)sh";
  const FilterRun gone = runFilter(call);
  EXPECT_EQ(gone.status, 1);
  EXPECT_NE(gone.err.find("ERROR:Unable to send the print settings to the printer: Broken pipe"),
            std::string::npos);
  EXPECT_EQ(readFile(gone.spoolDir + "/got").size(), 7u);
  EXPECT_EQ(std::distance(fs::directory_iterator(gone.spoolDir + "/otv6data"), {}), 2);
}

INSTANTIATE_TEST_SUITE_P(, Golden, testing::Range(size_t{0}, std::size(kJobs)),
                         [](const auto& info) { return std::string(kJobs[info.param].name); });

}  // namespace
