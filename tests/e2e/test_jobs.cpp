// Whole paths through real tools: documents rasterised by CUPS's own chain
// with the shipped PPD, printed by the built filter and read back from its
// page records, which ostra-preview must accept too. (The sample PDF goes
// through a real cupsd in cupsd_job.sh.)
#include <cups/raster.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "tests/support/filter_runner.h"
#include "tools/page_record.h"

namespace {

// `document` as CUPS rasterises it for the shipped PPD; empty on failure.
std::string rasterise(const std::string& document, const std::string& options = "") {
  const std::string raster = testWorkDir() + "/document.ras";
  const std::string cmd = "cupsfilter -p '" OSTRA_SOURCE_DIR
                          "/ppd/ostra.ppd' -m application/vnd.cups-raster -o '" +
                          options + "' '" + document + "' >'" + raster + "' 2>/dev/null";
  return system(cmd.c_str()) == 0 ? raster : std::string();
}

// The page records of a job; ostra-preview checks every row's dot count.
std::vector<PageRecord> print(const std::string& raster, const std::string& options) {
  const FilterRun run = runFilter(filterJob(options, raster));
  EXPECT_EQ(run.status, 0) << run.err;
  const std::string dir = run.spoolDir + "/otv6data/";
  EXPECT_EQ(system(("cd '" + dir + "' && '" OSTRA_PREVIEW_PATH "' page_*.dat >/dev/null").c_str()),
            0);
  std::vector<PageRecord> pages;
  for (int n = 1;; ++n) {
    char name[40];
    snprintf(name, sizeof name, "page_%04d_jobid_000042_0000.dat", n);
    const std::string file = readFile(dir + name);
    std::string error;
    if (file.empty())
      return pages;
    pages.emplace_back();
    EXPECT_TRUE(decodePageRecord({file.begin(), file.end()}, &pages.back(), &error)) << error;
  }
}

// Rows are packed at the raster's width, so every size the PPD offers must
// give a multiple of 4 dots at both resolutions, or an upright line shears.
TEST(RealDocuments, LineStaysUprightOnEverySize) {
  for (const char* size : {"w288h432", "w288h288", "w288h216", "w288h144", "w144h72", "w283h425",
                           "w170h113", "w142h85", "Tattoo_A5", "Tattoo_A6", "A4", "Letter"})
    for (const std::string dpi : {"203", "300"}) {
      if (dpi == "300" && std::string(size) == "w142h85")
        continue;  // constrained away in the PPD: 591 dots
      const std::string options = "PageSize=" + std::string(size) + " Resolution=" + dpi + "dpi";
      const std::string raster = rasterise(OSTRA_SOURCE_DIR "/tests/data/line.ps", options);
      unsigned width = 0;  // after the sync word, in this machine's byte order
      readFile(raster).copy(reinterpret_cast<char*>(&width), 4,
                            4 + offsetof(cups_page_header2_t, cupsWidth));
      EXPECT_EQ(width % 4, 0u) << options;
      const std::vector<PageRecord> pages = print(raster, "HalftoneType=None");
      ASSERT_EQ(pages.size(), 1u) << options;
      std::set<std::vector<uint8_t>> rows;
      for (auto row = pages[0].dots.begin(); row != pages[0].dots.end(); row += pages[0].width)
        rows.emplace(row, row + pages[0].width);
      rows.erase(std::vector<uint8_t>(pages[0].width));  // blank paper
      ASSERT_EQ(rows.size(), 1u) << options;
      // Ink only on the 2 pt line, 101 pt in; the page's rows end the record's.
      const double centre = pages[0].width - (width + 7) / 8 * 8 + 101 * std::stod(dpi) / 72;
      for (size_t x = 0; x < pages[0].width; ++x)
        EXPECT_TRUE(!rows.begin()->at(x) || std::abs(x - centre) < std::stod(dpi) / 36)
            << options << " at " << x;
    }
}

}  // namespace
