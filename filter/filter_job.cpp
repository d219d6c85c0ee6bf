#include "filter/filter_job.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <cups/raster.h>

#include "common/kiwa_common.h"
#include "common/settings.h"
#include "filter/job_settings.h"
#include "printer/ostra_job.h"

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

  // Released in reverse order: raster stream, input descriptor, the global
  // handle, the data-output file, and last the job.
  PrinterState printerState;
  std::unique_ptr<OstraJob> job;
  std::unique_ptr<FILE, CFileCloser> dataOutput;
  PrinterHandleReset handleReset;
  InputFd input;
  std::unique_ptr<cups_raster_t, RasterCloser> raster;

  if (argc > kFileArg) {
    const int fd = open(argv[kFileArg], O_RDONLY);
    if (fd == -1) {
      fputs("ERROR: Unable to open raster file - ", stderr);
      return 1;
    }
    input.reset(fd);
  }

  installSignalHandlers();
  Settings settings;
  memset(&settings, 0, sizeof(settings));
  parseSettings(&settings, argv[5]);
  job = std::make_unique<OstraJob>(printerState, paths.printer, settings, argv[1]);
  sPrinter = &job->printer();
  job->addDevice(stdout);
  job->setCancelCheck([] { return sCancelRequested != 0; });

  // A diagnostic copy of the printer's command stream; nothing fills the
  // field today. A file that cannot be opened is left out of the stream list.
  if (settings.DataOutputFile[0] != '\0') {
    dataOutput.reset(fopen(settings.DataOutputFile, "w"));
    kiwaLogCommon(KIWA_LOG_DEBUG, "Filter data output to: %s", settings.DataOutputFile);
    if (dataOutput)
      job->addDevice(dataOutput.get());
  }

  // Written as two tests so that a NaN size passes, as it always has.
  if (settings.pageWidth <= kMinPaperMm || settings.pageHeight <= kMinPaperMm) {
    fprintf(stderr, "ERROR: Paper size must not less than 1.0 : (%f, %f)\n", settings.pageWidth,
            settings.pageHeight);
    return 1;
  }

  raster.reset(cupsRasterOpen(input.get(), CUPS_RASTER_READ));

  int pageCount = 0;
  bool pageLost = false;
  cups_page_header2_t header;
  while (sCancelRequested == 0 && cupsRasterReadHeader2(raster.get(), &header)) {
    std::string why;
    const OstraJob::Check check = OstraJob::checkPage(header, &why);
    if (check == OstraJob::Check::Refused) {
      kiwaLogCommon(KIWA_LOG_ERROR, "%s", why.c_str());
      return 1;
    }
    if (check == OstraJob::Check::EndOfPages)
      break;
    writePageGeometry(paths.pageGeometryLog, header);
    if (!job->allocatePage(header)) {
      // Within the limits the 32-bit product cannot wrap.
      kiwaLogCommon(KIWA_LOG_ERROR, "No memory for a page of %u bytes",
                    header.cupsBytesPerLine * header.cupsHeight);
      return 1;
    }
    // A page whose settings did not reach the printer is not printed.
    if (!job->beginPage()) {
      pageLost = true;
      break;
    }

    ++pageCount;
    kiwaLogCommon(KIWA_LOG_DEBUG, "PAGE: %d %d\n", pageCount, static_cast<int>(header.NumCopies));
    logPageHeader(header);

    // A page whose pixels cannot be read is skipped without a message; one
    // that cannot be kept (memory or disk ran out) ends the job as failed.
    if (cupsRasterReadPixels(raster.get(), job->rows(), static_cast<unsigned>(job->pageBytes())) >=
            1 &&
        !job->printPage(pageCount)) {
      pageLost = true;
      break;
    }
  }
  if (sCancelRequested != 0) {
    kiwaLogCommon(KIWA_LOG_DEBUG, "Job canceled after %d page(s)", pageCount);
    job->cancel();
  }
  // A lost page would otherwise pass for a printed one.
  return job->finish() && !pageLost ? 0 : 1;
}
