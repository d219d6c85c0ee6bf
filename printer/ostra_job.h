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
