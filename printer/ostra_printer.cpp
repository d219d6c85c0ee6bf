#include "printer/ostra_printer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

constexpr double kMmPerInch = 25.4;
constexpr uint8_t kRasterCommand[4] = {0x1D, 0x76, 0x30, 0x00};  // GS 'v' '0', mode 0
constexpr size_t kRecordHeaderSize = 22;                         // "SIZ" block + raster header

void putLe16(uint8_t* at, unsigned value) {
  at[0] = static_cast<uint8_t>(value & 0xFF);
  at[1] = static_cast<uint8_t>((value >> 8) & 0xFF);
}

// Set bits of every byte value, so that counting a row needs no library call.
struct DotCounts {
  DotCounts() noexcept {
    for (int i = 0; i < 256; ++i)
      of[i] = static_cast<uint8_t>(__builtin_popcount(static_cast<unsigned>(i)));
  }
  uint8_t of[256];
};
const DotCounts kDotsIn;

}  // namespace

OstraPrinter::OstraPrinter(PrinterState& state, const PrinterPaths& paths)
    : KiwaPrinter(state, paths) {}

OstraPrinter::~OstraPrinter() = default;

RecordSink& OstraPrinter::records() {
  if (records_ != nullptr)
    return *records_;
  if (!fileRecords_) {
    fileRecords_ = std::make_unique<FileRecordSink>(
        paths_.spoolDir, settings_ != nullptr ? settings_->PrinterName : nullptr);
  }
  return *fileRecords_;
}

bool OstraPrinter::SendPrintSetting() {
  uint8_t bPrnSet[7] = {0x1B, 0x73, 0x01, 0x00, 0x00, 0x00, 0x00};
  // The printer counts speeds from 2: "2" is sent as 0, "5" as 3.
  const uint8_t speed = static_cast<uint8_t>(settings_ != nullptr ? settings_->PrintSpeed : 0);
  bPrnSet[5] = speed >= 2 ? static_cast<uint8_t>(speed - 2) : speed;
  bPrnSet[6] = static_cast<uint8_t>(settings_ != nullptr ? settings_->Darkness : 0);
  printBytes(bPrnSet, sizeof(bPrnSet));
  return true;
}

bool OstraPrinter::doPrintImage(unsigned char* bits, long size, unsigned long height,
                                unsigned long width) {
  LabelInfo bLabelInfo{'S', 'I', 'Z'};
  OTCSendPaperInfo(bLabelInfo);
  return OTCSendImage(size, SIZEL{static_cast<long>(width), static_cast<long>(height)}, bits,
                      bLabelInfo);
}

bool OstraPrinter::OTCSendPaperInfo(LabelInfo& bLabelInfo) {
  uint8_t media = 1;
  double pageWidth = 0.0, pageHeight = 0.0, gap = 0.0;
  if (settings_ != nullptr) {
    if (strcmp(settings_->PaperType, "LabelMark") == 0) {
      media = 2;
    } else if (strcmp(settings_->PaperType, "Continue") == 0) {
      media = 0;
    }
    pageWidth = settings_->pageWidth;
    pageHeight = settings_->pageHeight;
    gap = settings_->GapsHeight;
  }
  const double res = pageHdr_ != nullptr ? pageHdr_->HWResolution[0] : 0.0;
  // The height uses the horizontal resolution too; the printer expects it.
  const uint16_t widthDots = static_cast<uint16_t>(kiwaTruncate(pageWidth / kMmPerInch * res));
  const uint16_t heightDots = static_cast<uint16_t>(kiwaTruncate(pageHeight / kMmPerInch * res));
  const uint16_t gapDots = static_cast<uint16_t>(kiwaTruncate(gap / kMmPerInch * res));
  kiwaLogCommon(KIWA_LOG_DEBUG, "OTCSendPaperInfo: settings->pageWidth:%f",
                static_cast<double>(widthDots));
  kiwaLogCommon(KIWA_LOG_DEBUG, "OTCSendPaperInfo: settings->pageHeight:%f",
                static_cast<double>(heightDots));

  uint8_t* info = bLabelInfo.data();
  info[3] = media;
  putLe16(info + 4, widthDots);
  putLe16(info + 6, heightDots);
  putLe16(info + 8, gapDots);
  info[10] = 0;
  info[11] = 0;
  putLe16(info + 12, state_.PageNum);
  return true;
}

bool OstraPrinter::OTCSendImage(long size, SIZEL extent, unsigned char* bits,
                                const LabelInfo& bLabelInfo) {
  const long need = CalcBlackPoints(bits, size, extent, nullptr, 0);
  if (need <= 0)
    return true;
  // Zeroed, so the margin bytes of every row record are 0.
  std::unique_ptr<unsigned char, KiwaFree> records(
      static_cast<unsigned char*>(calloc(1, static_cast<size_t>(need))));
  if (!records) {
    kiwaLogCommon(KIWA_LOG_ERROR, "OTCSendImage: no memory for %ld bytes, the page is not printed",
                  need);
    return false;
  }
  CalcBlackPoints(bits, size, extent, records.get(), need);
  return OutputImage(need, static_cast<int>(extent.cy), records.get(), bLabelInfo);
}

long OstraPrinter::CalcBlackPoints(unsigned char* bits, long size, SIZEL extent, unsigned char* out,
                                   long outSize) {
  if (extent.cy <= 0 || size < 0)
    return 0;
  const long rowBytes = size / extent.cy;
  // Centre the image on the media, rounded up to whole bytes, in single
  // precision; a page wider than the media gets no margin.
  const float maxMedia = settings_ != nullptr ? settings_->MaxMediaWidth : 0.0f;
  const float marginF = ((maxMedia - static_cast<float>(extent.cx)) / 2 + 7) / 8;
  long margin = static_cast<long>(kiwaTruncate(marginF));
  if (margin < 0)
    margin = 0;
  const long stride = rowBytes + 2 + margin;
  const long result = stride * extent.cy;
  if (out == nullptr || outSize != result)
    return result;

  for (long r = 0; r < extent.cy; ++r) {
    const unsigned char* row = bits + r * rowBytes;
    unsigned dots = 0;
    for (long i = 0; i < rowBytes; ++i)
      dots += kDotsIn.of[row[i]];
    unsigned char* record = out + r * stride;
    putLe16(record, dots);
    memset(record + 2, 0, static_cast<size_t>(margin));
    memcpy(record + 2 + margin, row, static_cast<size_t>(rowBytes));
  }
  return result;
}

bool OstraPrinter::OutputImage(long size, int height, unsigned char* records,
                               const LabelInfo& bLabelInfo) {
  if (height <= 0 || size <= 0)
    return true;
  uint8_t rasterHeader[8];
  memcpy(rasterHeader, kRasterCommand, sizeof(kRasterCommand));
  putLe16(rasterHeader + 4, static_cast<unsigned>(size / height));
  putLe16(rasterHeader + 6, static_cast<unsigned>(height));

  const size_t total = static_cast<size_t>(size) + kRecordHeaderSize;
  std::unique_ptr<unsigned char, KiwaFree> page(static_cast<unsigned char*>(malloc(total)));
  if (!page) {
    kiwaLogCommon(KIWA_LOG_ERROR, "OutputImage: no memory for %zu bytes, the page is not printed",
                  total);
    return false;
  }
  memcpy(page.get(), bLabelInfo.data(), bLabelInfo.size());
  memcpy(page.get() + bLabelInfo.size(), rasterHeader, sizeof(rasterHeader));
  memcpy(page.get() + kRecordHeaderSize, records, static_cast<size_t>(size));

  // The job id field is not terminated when the id fills it.
  char jobId[kSettingsJobIdLen + 1] = {0};
  if (settings_ != nullptr)
    memcpy(jobId, settings_->JobId, kSettingsJobIdLen);
  const bool kept =
      DumpPageToFile(state_.PageNum, atoi(jobId), page.get(), static_cast<long>(total));
  ++state_.PageNum;
  return kept;
}

bool OstraPrinter::DumpPageToFile(unsigned short pageNum, int jobId, unsigned char* data,
                                  long size) {
  if (size == 0)
    return true;
  RecordFailure where;
  switch (
      records().keepPage(pageNum, jobId, data, static_cast<size_t>(size), cancelCheck_, &where)) {
    case RecordSink::Kept::Failed:
      reportWriteFailure(where.what, where.path, where.error);
      return false;
    case RecordSink::Kept::Abandoned:
      discardPageImages();
      kiwaLogCommon(KIWA_LOG_DEBUG, "DumpPageToFile: job canceled, page %d not kept", pageNum);
      return true;
    case RecordSink::Kept::Yes:
      break;
  }
  kiwaLogCommon(KIWA_LOG_DEBUG, "DumpPageToFile: dumped the page data to file:%s, size:%d",
                where.path.c_str(), static_cast<int>(size));
  return true;
}

void OstraPrinter::reportWriteFailure(const char* what, const std::string& path, int error) {
  kiwaLogCommon(KIWA_LOG_ERROR, "Unable to write the %s %s: %s", what, path.c_str(),
                strerror(error));
  outputFailed_ = true;
}
