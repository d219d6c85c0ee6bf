#include "filter/filter_job.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include <cups/raster.h>

#include "common/kiwa_common.h"
#include "common/settings.h"
#include "filter/job_settings.h"

const char* const sVersion = "1.0.0";
OstraPrinter* sPrinter = nullptr;

namespace {

constexpr int kMinArgs = 6;  // program job_id user title copies options
constexpr int kFileArg = 6;  // optional input file
constexpr float kMinPaperMm = 1.0f;

// Set by SIGTERM, which is how CUPS cancels a job.
volatile sig_atomic_t sCancelRequested = 0;

extern "C" void onTerminate(int) {
  sCancelRequested = 1;
}

// A cancelled job finishes the page in hand, keeps no half page and still
// stores its counter; a vanished backend shows as a write error, not a kill.
void installSignalHandlers() {
  struct sigaction action;
  memset(&action, 0, sizeof(action));
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  action.sa_handler = onTerminate;
  sigaction(SIGTERM, &action, nullptr);
  action.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &action, nullptr);
}

struct RasterCloser {
  void operator()(cups_raster_t* ras) const { cupsRasterClose(ras); }
};
struct CFileCloser {
  void operator()(FILE* f) const {
    if (f != nullptr)
      fclose(f);
  }
};

// Clears the global handle before the printer object goes away.
struct PrinterHandleReset {
  ~PrinterHandleReset() { sPrinter = nullptr; }
};

// Closes the input descriptor unless it is standard input.
class InputFd {
 public:
  InputFd() = default;
  InputFd(const InputFd&) = delete;
  InputFd& operator=(const InputFd&) = delete;
  ~InputFd() {
    if (fd_ != 0)
      close(fd_);
  }
  int get() const { return fd_; }
  void reset(int fd) { fd_ = fd; }

 private:
  int fd_ = 0;
};

void writePageGeometry(const char* path, const cups_page_header2_t& h) {
  FILE* f = kiwaOpenForWriting(path);
  if (f == nullptr)
    return;
  fprintf(f, "cupsWidth:%d, cupsHeight:%d, cupsBytesPerLine:%d, cupsBitsPerPixel:%d\n",
          static_cast<int>(h.cupsWidth), static_cast<int>(h.cupsHeight),
          static_cast<int>(h.cupsBytesPerLine), static_cast<int>(h.cupsBitsPerPixel));
  fclose(f);
}

// A hostile stream may hold any value in an enum field; it is read as the
// integer it is, never loaded as an enum it may not fit.
template <typename Enum>
int enumValue(const Enum& field) {
  static_assert(sizeof(Enum) == sizeof(int), "CUPS header enums are 32 bits");
  int value;
  memcpy(&value, &field, sizeof(value));
  return value;
}

void logPageHeader(const cups_page_header2_t& h) {
  kiwaLogCommon(KIWA_LOG_DEBUG, "header.HWResolution[0]:%d\n", static_cast<int>(h.HWResolution[0]));
  kiwaLogCommon(KIWA_LOG_DEBUG, "header.HWResolution[1]:%d", static_cast<int>(h.HWResolution[1]));
  kiwaLogCommon(KIWA_LOG_DEBUG, "header.cupsWidth:%d", static_cast<int>(h.cupsWidth));
  kiwaLogCommon(KIWA_LOG_DEBUG, "header.cupsHeight:%d", static_cast<int>(h.cupsHeight));
  kiwaLogCommon(KIWA_LOG_DEBUG, "header.cupsMediaType:%d", static_cast<int>(h.cupsMediaType));
  kiwaLogCommon(KIWA_LOG_DEBUG, "header.cupsBitsPerColor:%d", static_cast<int>(h.cupsBitsPerColor));
  kiwaLogCommon(KIWA_LOG_DEBUG, "header.cupsBitsPerPixel:%d", static_cast<int>(h.cupsBitsPerPixel));
  kiwaLogCommon(KIWA_LOG_DEBUG, "header.cupsBytesPerLine:%d", static_cast<int>(h.cupsBytesPerLine));
  kiwaLogCommon(KIWA_LOG_DEBUG, "header.cupsColorOrder:%d", enumValue(h.cupsColorOrder));
  kiwaLogCommon(KIWA_LOG_DEBUG, "header.cupsColorSpace:%d", enumValue(h.cupsColorSpace));
  kiwaLogCommon(KIWA_LOG_DEBUG, "header.cupsCompression:%d", enumValue(h.cupsCompression));
  kiwaLogCommon(KIWA_LOG_DEBUG, "header.cupsRowCount:%d", static_cast<int>(h.cupsRowCount));
  kiwaLogCommon(KIWA_LOG_DEBUG, "header.cupsRowFeed:%d", static_cast<int>(h.cupsRowFeed));
  kiwaLogCommon(KIWA_LOG_DEBUG, "header.cupsRowStep:%d", static_cast<int>(h.cupsRowStep));
}

}  // namespace

int runFilterJob(int argc, char* argv[], const FilterPaths& paths) {
  if (argc < kMinArgs) {
    const char* name = argc > 0 ? kiwaPathGetBasename(argv[0]) : "rastertoostra";
    fprintf(stderr, "%s v%s\n\nUsage:\n\n    %s job_id user title copyies options [file]\n\n", name,
            sVersion, name);
    return 1;
  }

  // Released in reverse order: page buffer, raster stream, input descriptor,
  // the global handle, the data-output file, and last the printer.
  PrinterState printerState;
  std::unique_ptr<OstraPrinter> printer;
  std::unique_ptr<FILE, CFileCloser> dataOutput;
  PrinterHandleReset handleReset;
  InputFd input;
  std::unique_ptr<cups_raster_t, RasterCloser> raster;
  std::unique_ptr<unsigned char, KiwaFree> page;

  if (argc > kFileArg) {
    const int fd = open(argv[kFileArg], O_RDONLY);
    if (fd == -1) {
      fputs("ERROR: Unable to open raster file - ", stderr);
      return 1;
    }
    input.reset(fd);
  }

  installSignalHandlers();
  printer = std::make_unique<OstraPrinter>(printerState, paths.printer);
  sPrinter = printer.get();
  printer->setCancelCheck([] { return sCancelRequested != 0; });

  Settings settings;
  memset(&settings, 0, sizeof(settings));
  parseSettings(&settings, argv[5]);
  const float maxMediaWidthMm = settings.MaxMediaWidth;
  printer->setSettings(&settings);

  // A diagnostic copy of the printer's command stream; nothing fills the
  // field today. A file that cannot be opened is left out of the stream list.
  if (settings.DataOutputFile[0] != '\0') {
    dataOutput.reset(fopen(settings.DataOutputFile, "w"));
    kiwaLogCommon(KIWA_LOG_DEBUG, "Filter data output to: %s", settings.DataOutputFile);
    if (dataOutput)
      printer->getOutputStreams().push_back(dataOutput.get());
  }

  // Written as two tests so that a NaN size passes, as it always has.
  if (settings.pageWidth <= kMinPaperMm || settings.pageHeight <= kMinPaperMm) {
    fprintf(stderr, "ERROR: Paper size must not less than 1.0 : (%f, %f)\n", settings.pageWidth,
            settings.pageHeight);
    return 1;
  }

  raster.reset(cupsRasterOpen(input.get(), CUPS_RASTER_READ));

  int pageCount = 0;
  // The counter as the last finished page left it; a page cut short by a
  // cancel must not take back the number an earlier page of the job used.
  bool pageFinished = false;
  bool pageLost = false;
  uint16_t counterAfterPage = 0;
  cups_page_header2_t header;
  while (sCancelRequested == 0 && cupsRasterReadHeader2(raster.get(), &header)) {
    if (header.cupsBitsPerPixel != 8) {
      kiwaLogCommon(KIWA_LOG_ERROR, "Unsupported bits per pixel : %d ! Requires 8 bits per pixel!",
                    static_cast<int>(header.cupsBitsPerPixel));
      return 1;
    }
    if (header.cupsHeight == 0 || header.cupsBytesPerLine == 0)
      break;

    const OstraHeaderField bad = ostraBadHeaderField(header);
    if (bad.name != nullptr) {
      kiwaLogCommon(KIWA_LOG_ERROR, "Unsupported page header: %s is %u, must be %u to %u", bad.name,
                    bad.value, bad.low, bad.high);
      return 1;
    }
    // Within the limits the 32-bit product cannot wrap.
    const uint32_t pageSize = header.cupsBytesPerLine * header.cupsHeight;

    writePageGeometry(paths.pageGeometryLog, header);

    void* grown = realloc(page.get(), pageSize);
    if (grown == nullptr) {
      kiwaLogCommon(KIWA_LOG_ERROR, "No memory for a page of %u bytes", pageSize);
      return 1;
    }
    page.release();
    page.reset(static_cast<unsigned char*>(grown));
    memset(page.get(), 0, pageSize);

    beginPage(printer.get(), &settings, &header, maxMediaWidthMm, argv[1]);
    // A page whose settings did not reach the printer is not printed.
    if (printer->deviceFailed()) {
      pageLost = true;
      break;
    }

    ++pageCount;
    kiwaLogCommon(KIWA_LOG_DEBUG, "PAGE: %d %d\n", pageCount, static_cast<int>(header.NumCopies));
    logPageHeader(header);

    // A page whose pixels cannot be read is skipped without a message.
    if (cupsRasterReadPixels(raster.get(), page.get(), pageSize) >= 1) {
      try {
        printer->printImage(page.get(), header.cupsBytesPerLine, header.cupsHeight,
                            header.cupsWidth);
      } catch (const std::bad_alloc&) {
        kiwaLogCommon(KIWA_LOG_ERROR, "No memory to process page %d, the page is not printed",
                      pageCount);
        pageLost = true;
      }
      pageFinished = true;
      counterAfterPage = printerState.PageNum;
    }
    // Memory or disk ran out: no further page starts, and the job fails.
    pageLost = pageLost || printer->pageFailure() != nullptr || printer->outputFailed();
    if (pageLost)
      break;
  }
  if (sCancelRequested != 0) {
    kiwaLogCommon(KIWA_LOG_DEBUG, "Job canceled after %d page(s)", pageCount);
    if (pageFinished)
      printerState.PageNum = counterAfterPage;
  }

  jobEnd(printer.get(), &settings);
  printer->flushOutput();
  // A lost page would otherwise pass for a printed one.
  return pageLost || printer->outputFailed() ? 1 : 0;
}
