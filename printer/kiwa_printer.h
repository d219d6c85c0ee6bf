// The printer device: print settings, output streams, and the page pipeline
// that carries one 8-bit gray page through processing to the printer language.
#ifndef OSTRA_PRINTER_KIWA_PRINTER_H
#define OSTRA_PRINTER_KIWA_PRINTER_H

#include <cups/raster.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "common/kiwa_common.h"
#include "image/cximage.h"
#include "printer/debug_image.h"

// Where the printer leaves its files. The defaults are the paths the
// printer-side program reads; tests and other front ends may point elsewhere.
struct PrinterPaths {
  std::string spoolDir = "/var/spool/cups/tmp/otv6data";  // page records, page counters
  std::string imageDir = "/var/spool/cups/tmp";           // debug BMP files
  bool debugImages = true;  // the BMPs of each page before and after processing
};

// What lives for the whole process rather than per printer object: the page
// counter and the debug image counter. The front end owns it and lends it to
// its printer.
struct PrinterState {
  uint16_t PageNum = 1;
  int64_t page_index = 0;  // debug image files written so far
};

// What PageProcess hands on: the processed page, 8 bits a pixel where 255
// prints a dot, or the step that kept it from being made.
struct ProcessedPage {
  std::unique_ptr<CxImage> image;  // null when a step failed
  const char* failure = nullptr;
  long length = 0;  // rows times row bytes, as logged
};

// Blank-row counters: a row is blank when its first bytesPerLine - skip bytes
// (all of them when skip exceeds bytesPerLine) are 0. Rows lie rowStep apart.
// From the front the rows tested are 1 .. height (one past the page, which
// reads as blank); the result is the index of the first inked one, or height.
size_t kiwaImageCountBlankLinesFromFront(const unsigned char* data, size_t bytesPerLine,
                                         size_t height, size_t skipRightPixels, size_t rowStep);
// From the back: one past the last inked row, or 0.
size_t kiwaImageCountBlankLinesFromBack(const unsigned char* data, size_t bytesPerLine,
                                        size_t height, size_t skipRightPixels, size_t rowStep);

class KiwaPrinter {
 public:
  class UserData;
  static constexpr int kMinAdjust = -100;  // brightness and contrast
  static constexpr int kMaxAdjust = 100;

  KiwaPrinter(PrinterState& state, const PrinterPaths& paths = PrinterPaths());
  virtual ~KiwaPrinter();
  KiwaPrinter(const KiwaPrinter&) = delete;
  KiwaPrinter& operator=(const KiwaPrinter&) = delete;

  // Settings; out-of-range values are clamped, never refused.
  void setBrightness(int value) { brightness_ = std::clamp(value, kMinAdjust, kMaxAdjust); }
  int getBrightness() const { return brightness_; }
  void setContrast(int value) { contrast_ = std::clamp(value, kMinAdjust, kMaxAdjust); }
  int getContrast() const { return contrast_; }
  void setHalftoneType(DitherType type) { halftoneType_ = type; }
  DitherType getHalftoneType() const { return halftoneType_; }
  void setNegativePrint(bool on) { negativePrint_ = on; }
  bool isNegativePrint() const { return negativePrint_; }
  void setRotate180Print(bool on) { rotate180Print_ = on; }
  bool isRotate180Print() const { return rotate180Print_; }
  void setMirrorPrint(bool on) { mirrorPrint_ = on; }
  bool isMirrorPrint() const { return mirrorPrint_; }
  void setAntiWrinkle(int level) { antiWrinkle_ = level; }
  int getAntiWrinkle() const { return antiWrinkle_; }
  void setUseRVDithering(bool on) { useRVDithering_ = on; }
  bool getUseRVDithering() const { return useRVDithering_; }
  void setVBarcodeOpt(int mode) { vBarcodeOpt_ = mode; }
  int getVBarcodeOpt() const { return vBarcodeOpt_; }
  void setRemoveBlankEdges(unsigned char bits) { removeBlankEdges_ = bits; }
  unsigned char getRemoveBlankEdges() const { return removeBlankEdges_; }
  void setSkipRightPixels(unsigned long bytes) { skipRightPixels_ = bytes; }
  unsigned long getSkipRightPixels() const { return skipRightPixels_; }
  void setUserData(UserData* data) { userData_ = data; }
  UserData* getUserData() const { return userData_; }
  void setPageHeader(cups_page_header2_t* header) { pageHdr_ = header; }
  cups_page_header2_t* getPageHeader() const { return pageHdr_; }
  std::vector<FILE*>& getOutputStreams() { return outputStreams_; }
  const char* getCopyRight() const;

  // Every output stream receives the same bytes, in list order. A write or
  // flush that fails is logged once and sets deviceFailed(): the printer did
  // not get the settings, and the front end ends the job as failed.
  void printBytes(const unsigned char* data, unsigned long size);
  // Hands what the streams hold on to their readers.
  void flushOutput();
  bool deviceFailed() const { return deviceFailed_; }
  void printStr(const char* s);
  void printByte(unsigned char c);
  int printFormat(const char* format, ...) __attribute__((format(printf, 2, 3)));

  // The page pipeline: one 8-bit page, row 0 first, a non-zero byte is ink.
  // False when the page was not kept (no memory, a record not written); the
  // reason has been logged.
  bool printImage(const unsigned char* data, unsigned long bytesPerLine, unsigned long height,
                  unsigned long width);
  // `outSize` bounds every write into `out`; an enlarged image never runs past it.
  ProcessedPage PageProcess(DitherType method, const unsigned char* data, int stride, int width,
                            int height, unsigned char* out, size_t outSize = SIZE_MAX);
  void copyPixels(CxImage& image, unsigned char* out, int width, int height, int stride,
                  size_t outSize = SIZE_MAX);
  void copyProcessedPixels(CxImage* image, unsigned char* out, int width, int height, int stride,
                           size_t outSize = SIZE_MAX);
  // Barcode touch-ups on the processed 8-bit page (255 full, 0 empty), rows
  // (width + 3) / 4 * 4 bytes apart: dashes long solid horizontal runs, then
  // thins bars at their edges by rows (mode 1) or by columns (mode 2).
  void ApplyDashedLine(unsigned char* bits, int width, int height);
  void OptimazeBarcode1(unsigned char* bits, int width, int height);
  void OptimazeBarcode2(unsigned char* bits, int width, int height);
  // Pixel (x, y) of rows `stride` bytes apart.
  static unsigned char getPix(const unsigned char* bits, int stride, int x, int y);
  static void setPix(unsigned char* bits, int stride, int x, int y, unsigned char value);
  // An image for the page in progress, the last page's block when there is one.
  std::unique_ptr<CxImage> takeImage();
  // Packs two-level rows to 1 bit per pixel in place; returns the packed bytes.
  int GrayToMono(int rowBytes, int height, unsigned char* buf);
  // Where debug images go: `sink` (not owned) when set, else BMP files in
  // the image directory when PrinterPaths asks for them, else nowhere.
  void setImageSink(ImageSink* sink) { images_ = sink; }
  ImageSink* imageSink();
  // Hands one image of the page to the image sink.
  void saveImage(const char* prefix, const unsigned char* data, unsigned long bytesPerLine,
                 unsigned long height, unsigned long width, unsigned short bpp);
  // Removes the debug images of the page in progress, for a page abandoned
  // before its record was kept.
  void discardPageImages();

  // Centres the page on the canvas of its page size and draws the solid
  // frame whose side bars grow with the anti-wrinkle level.
  void EnableAntiWrink(CxImage& image);

  const PrinterPaths& paths() const { return paths_; }
  PrinterState& state() { return state_; }

 protected:
  // The printer language: called once per page with the processed page
  // packed to 1 bit a pixel, `size` bytes; false when it was not kept.
  virtual bool doPrintImage(unsigned char* bits, long size, unsigned long height,
                            unsigned long width) = 0;

  std::vector<FILE*> outputStreams_;
  cups_page_header2_t* pageHdr_ = nullptr;
  int32_t brightness_ = 0;
  int32_t vBarcodeOpt_ = 0;
  int32_t contrast_ = 0;
  DitherType halftoneType_ = DITHER_NONE;
  bool negativePrint_ = false;
  bool mirrorPrint_ = false;
  bool rotate180Print_ = false;
  int32_t antiWrinkle_ = 0;
  bool useRVDithering_ = false;
  uint8_t removeBlankEdges_ = 0;
  unsigned long skipRightPixels_ = 0;
  UserData* userData_ = nullptr;
  int32_t resolution_ = 300;

  PrinterState& state_;
  PrinterPaths paths_;
  // Page images kept from one page for the next: a job's pages reuse their
  // blocks instead of faulting in fresh memory for each page.
  std::unique_ptr<CxImage> spareImage_;
  ImageSink* images_ = nullptr;
  std::unique_ptr<BmpImageSink> bmpImages_;
  bool deviceFailed_ = false;

 private:
  void noteDeviceFailure(int error);
};

#endif  // OSTRA_PRINTER_KIWA_PRINTER_H
