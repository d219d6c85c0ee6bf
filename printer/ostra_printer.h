// The Ostra label printer's command set: the print-setting block on the output
// streams, and one page record file (label size block and raster) per page.
#ifndef OSTRA_PRINTER_OSTRA_PRINTER_H
#define OSTRA_PRINTER_OSTRA_PRINTER_H

#include <cstdint>
#include <functional>
#include <string>

#include "common/settings.h"
#include "printer/kiwa_printer.h"

struct SIZEL {
  long cx;
  long cy;
};

class OstraPrinter : public KiwaPrinter {
 public:
  OstraPrinter(PrinterState& state, const PrinterPaths& paths = PrinterPaths());
  ~OstraPrinter() override;

  void setSettings(Settings* settings) { settings_ = settings; }
  Settings* getSettings() const { return settings_; }

  // Sends ESC 's' 01 00 00 speed darkness, built from the job settings.
  bool SendPrintSetting();
  // Fills the "SIZ" label-size block for the current page.
  bool OTCSendPaperInfo();
  void OTCSendImage(long size, SIZEL extent, unsigned char* bits);
  // Byte count of the row records; fills `out` only when outSize equals it.
  long CalcBlackPoints(unsigned char* bits, long size, SIZEL extent, unsigned char* out,
                       long outSize);
  void OutputImage(long size, int height, unsigned char* records);
  void DumpPageToFile(unsigned short pageNum, int jobId, unsigned char* data, long size);

  // Barcode touch-ups on the processed 8-bit page (255 full, 0 empty), rows
  // (width + 3) / 4 * 4 bytes apart: dashes long solid horizontal runs, then
  // thins bars at their edges by rows (mode 1) or by columns (mode 2).
  void ApplyDashedLine(unsigned char* bits, int width, int height);
  void OptimazeBarcode1(unsigned char* bits, int width, int height);
  void OptimazeBarcode2(unsigned char* bits, int width, int height);
  unsigned char getPix(unsigned char* bits, int x, int y);
  void setPix(unsigned char* bits, int x, int y, unsigned char value);

  // Path of this printer's page counter file.
  std::string pageCounterPath() const;

  // Asked once a page record is complete, before it is moved into place:
  // true abandons the page (the job is being cancelled).
  void setCancelCheck(std::function<bool()> check) { cancelCheck_ = std::move(check); }
  // Logs a page record or counter that could not be kept; the front end ends
  // the job as failed once outputFailed() is set.
  void reportWriteFailure(const char* what, const std::string& path, int error);
  bool outputFailed() const { return outputFailed_; }

 protected:
  void doPrintImage(unsigned char* bits, unsigned long bytesPerLine, unsigned long height,
                    unsigned long width) override;

  int32_t rowStride_ = 0;
  Settings* settings_ = nullptr;
  std::function<bool()> cancelCheck_;
  bool outputFailed_ = false;
};

// Per page, before its pixels are read: reload the page counter and send the
// print-setting block.
void jobSetup(OstraPrinter* printer, Settings* settings);
// Once after the last page: wrap the counter at 9000 and store it. A page
// directory that does not exist yet means no page was kept: nothing is stored.
void jobEnd(OstraPrinter* printer, Settings* settings);

#endif  // OSTRA_PRINTER_OSTRA_PRINTER_H
