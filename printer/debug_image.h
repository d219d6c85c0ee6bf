// Where a page's debug images go: BMP files of the page before and after
// processing, for the print server's tools; the application keeps none.
#ifndef OSTRA_PRINTER_DEBUG_IMAGE_H
#define OSTRA_PRINTER_DEBUG_IMAGE_H

#include <cstdint>
#include <string>
#include <vector>

class ImageSink {
 public:
  virtual ~ImageSink() = default;
  // A new page: the images kept so far are its predecessors'.
  virtual void beginPage() = 0;
  // One image of the page: 8 bits a pixel (`bpp` 8) or two-level, named by
  // `prefix`.
  virtual void saveImage(const char* prefix, const unsigned char* data, unsigned long bytesPerLine,
                         unsigned long height, unsigned long width, unsigned short bpp) = 0;
  // The page was abandoned before its record was kept: its images go too.
  virtual void discardPage() = 0;
};

// "<dir>/<prefix>Y-M-D_h_m_s_<n>.bmp", local time, `n` counting every image
// the process wrote (`pageIndex`, which the caller keeps).
class BmpImageSink : public ImageSink {
 public:
  BmpImageSink(std::string dir, int64_t& pageIndex) : dir_(std::move(dir)), index_(pageIndex) {}
  void beginPage() override { pageImages_.clear(); }
  void saveImage(const char* prefix, const unsigned char* data, unsigned long bytesPerLine,
                 unsigned long height, unsigned long width, unsigned short bpp) override;
  void discardPage() override;

 private:
  std::string dir_;
  int64_t& index_;
  std::vector<std::string> pageImages_;  // of the page in progress
};

#endif  // OSTRA_PRINTER_DEBUG_IMAGE_H
