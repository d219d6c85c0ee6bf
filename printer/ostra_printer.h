// The Ostra label printer's command set: the print-setting block on the output
// streams, and one page record file (label size block and raster) per page.
#ifndef OSTRA_PRINTER_OSTRA_PRINTER_H
#define OSTRA_PRINTER_OSTRA_PRINTER_H

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <cups/raster.h>

#include "common/settings.h"
#include "printer/kiwa_printer.h"
#include "printer/record_sink.h"

struct SIZEL {
  long cx;
  long cy;
};

// The label-size block that opens every page record: "SIZ", the media kind,
// the label's width, height and gap in dots, two zero bytes, the page number.
using LabelInfo = std::array<uint8_t, 14>;

class OstraPrinter : public KiwaPrinter {
 public:
  OstraPrinter(PrinterState& state, const PrinterPaths& paths = PrinterPaths());
  ~OstraPrinter() override;

  // The settings of the job and its page (not owned), read as each page's
  // setting block and record are encoded.
  void setSettings(const Settings* settings) { settings_ = settings; }
  const Settings* getSettings() const { return settings_; }

  // Sends ESC 's' 01 00 00 speed darkness, built from the job settings; always
  // true (a device that did not take it shows in deviceFailed()).
  bool SendPrintSetting();
  // Fills the label-size block for the current page; always true.
  bool OTCSendPaperInfo(LabelInfo& bLabelInfo);
  // The page record from the packed page and its label block, handed to the
  // record sink; false when it was not kept (no memory, a failed write).
  bool OTCSendImage(long size, SIZEL extent, unsigned char* bits, const LabelInfo& bLabelInfo);
  // Byte count of the row records; fills `out` only when outSize equals it.
  long CalcBlackPoints(unsigned char* bits, long size, SIZEL extent, unsigned char* out,
                       long outSize);
  bool OutputImage(long size, int height, unsigned char* records, const LabelInfo& bLabelInfo);
  bool DumpPageToFile(unsigned short pageNum, int jobId, unsigned char* data, long size);

  // Where page records and the counter go: `sink` (not owned) when set,
  // else files in the page directory.
  void setRecordSink(RecordSink* sink) { records_ = sink; }
  RecordSink& records();

  // Asked once a page record is complete, before it is moved into place:
  // true abandons the page (the job is being cancelled).
  void setCancelCheck(std::function<bool()> check) { cancelCheck_ = std::move(check); }
  // Logs a page record or counter that could not be kept; the front end ends
  // the job as failed once outputFailed() is set, as it does when the printer
  // did not take the settings.
  void reportWriteFailure(const char* what, const std::string& path, int error);
  bool outputFailed() const { return outputFailed_ || deviceFailed_; }

 protected:
  bool doPrintImage(unsigned char* bits, long size, unsigned long height,
                    unsigned long width) override;
  const Settings* settings_ = nullptr;
  std::function<bool()> cancelCheck_;
  bool outputFailed_ = false;
  RecordSink* records_ = nullptr;
  std::unique_ptr<FileRecordSink> fileRecords_;
};

#endif  // OSTRA_PRINTER_OSTRA_PRINTER_H
