// One print job on one printer, whichever front end feeds it: its settings,
// then each page (header checked, rows in, printed), then its end.
#ifndef OSTRA_PRINTER_OSTRA_JOB_H
#define OSTRA_PRINTER_OSTRA_JOB_H

#include <cups/raster.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "common/settings.h"
#include "printer/ostra_printer.h"

// The largest page header accepted, checked before anything is allocated.
// The widest media the head covers is 8.5 in (MaxMediaWidth 612 pt), 2550
// dots at 300 dpi, the highest resolution offered; the longest page is a
// continuous label. Each limit leaves room to spare, and the height keeps
// every count of the page record within its 16 bits.
constexpr uint32_t kOstraMaxPageWidthDots = 4096;    // 13.6 in at 300 dpi
constexpr uint32_t kOstraMaxPageHeightDots = 32767;  // 2.77 m at 300 dpi
constexpr uint32_t kOstraMaxResolutionDpi = 1200;    // four times the highest offered

// The page's own settings from its raster header: the real page size in
// millimetres, the media width in dots at this page's resolution, and the
// job id.
void updatePageSettings(Settings* settings, const cups_page_header2_t& header, const char* jobId);

// Per page, before its pixels are read: reload the page counter and send the
// print-setting block.
void jobSetup(OstraPrinter* printer, const Settings* settings);
// Once after the last page: wrap the counter at 9000 and store it. A page
// directory that does not exist yet means no page was kept: nothing is stored.
void jobEnd(OstraPrinter* printer, const Settings* settings);

// The page counter's policy lives here: every page reloads the stored
// counter, each record moves it on, the end of the job stores it (wrapped at
// kPageNumWrap), and a cancel takes back what a page cut short moved.
class OstraJob {
 public:
  // `settings` as built for the job. `jobId` names the page records, which
  // go with the counter to `records` (not owned), or when null to files in
  // the page directory.
  OstraJob(PrinterState& state, const PrinterPaths& paths, const Settings& settings,
           std::string jobId, RecordSink* records = nullptr);
  OstraJob(const OstraJob&) = delete;
  OstraJob& operator=(const OstraJob&) = delete;

  // Where each page's setting block goes, in order; every write is checked.
  void addDevice(FILE* stream) { printer_.getOutputStreams().push_back(stream); }
  // Asked before a finished record is kept: true abandons the page.
  void setCancelCheck(std::function<bool()> check) { printer_.setCancelCheck(std::move(check)); }

  enum class Check { Print, EndOfPages, Refused };
  // Whether a page with this header can be printed; `why` says why not.
  static Check checkPage(const cups_page_header2_t& header, std::string* why);
  // A zeroed page for `header` (already checked); false when there is no memory.
  bool allocatePage(const cups_page_header2_t& header);
  // The page's settings to the printer and its setting block to the device;
  // false when the device did not take it.
  bool beginPage();
  // The page's rows, cupsBytesPerLine apart, non-zero bytes ink.
  unsigned char* rows() { return page_.data(); }
  size_t pageBytes() const { return page_.size(); }
  // Prints the page in hand (the job's `pageCount`-th); false when it could
  // not be kept (no memory, a full disk, a device that failed).
  bool printPage(int pageCount);
  // The job stops on a cancel: the counter goes back to what the last whole
  // page left, when there was one.
  void cancel();
  // Stores the counter and hands the device its bytes; false when anything
  // the job wrote failed.
  bool finish();

  const cups_page_header2_t& header() const { return header_; }
  OstraPrinter& printer() { return printer_; }

 private:
  Settings settings_;
  const std::string jobId_;
  OstraPrinter printer_;
  cups_page_header2_t header_{};
  std::vector<unsigned char> page_;
  bool pageFinished_ = false;
  uint16_t counterAfterPage_ = 0;
};

#endif  // OSTRA_PRINTER_OSTRA_JOB_H
