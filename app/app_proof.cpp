#include "app/app_proof.h"

#include <png.h>
#include <pthread.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>

#include "app/app_image.h"
#include "tools/page_record.h"

// PAPPL 1.3.1's job object, field for field (job-private.h): a proof is a job
// that no printer lists, so that PAPPL's own image layout and the driver's
// callbacks run on it as on a print. appProofDocument checks the layout
// through PAPPL's accessors before each use.
struct AppProofJob {
  pthread_rwlock_t rwlock;
  pappl_system_t* system;
  pappl_printer_t* printer;
  int job_id;
  const char *name, *username, *format;
  ipp_jstate_t state;
  pappl_jreason_t state_reasons;
  bool is_canceled;
  char* message;
  pappl_loglevel_t msglevel;
  time_t created, processing, completed, hold_until;
  int impressions, impcompleted;
  ipp_t* attrs;
  char* filename;
  int fd;
  bool streaming;
  void* data;
};

struct AppProofRun {
  AppProofJob job{};
  PrinterState state;
  MemoryRecordSink records;
  explicit AppProofRun(uint16_t counter) : records(counter) {}
};

namespace {

std::mutex gRunsLock;
std::map<const void*, AppProofRun*> gRuns;

const char* formatOf(const std::string& file) {
  unsigned char magic[8] = {0};
  FILE* in = fopen(file.c_str(), "rb");
  const size_t n = in != nullptr ? fread(magic, 1, sizeof magic, in) : 0;
  if (in != nullptr)
    fclose(in);
  static const unsigned char kPng[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  if (n == sizeof magic && memcmp(magic, kPng, sizeof kPng) == 0)
    return "image/png";
  if (n >= 3 && magic[0] == 0xFF && magic[1] == 0xD8 && magic[2] == 0xFF)
    return "image/jpeg";
  return nullptr;
}

// Why the image filter refused the document, as the job's reasons say.
std::string refusal(const AppProofJob& job) {
  if (job.state_reasons & PAPPL_JREASON_DOCUMENT_UNPRINTABLE_ERROR)
    return "the image is larger than the printer can print, or its pixels are not square";
  if (job.state_reasons & PAPPL_JREASON_DOCUMENT_FORMAT_ERROR)
    return "the image is damaged or not a PNG or JPEG image";
  return "the printer could not make the page; the server's log says why";
}

}  // namespace

AppProofRun* appProofRun(pappl_job_t* job) {
  std::lock_guard<std::mutex> hold(gRunsLock);
  const auto found = gRuns.find(job);
  return found != gRuns.end() ? found->second : nullptr;
}

PrinterState& appProofState(AppProofRun* run) {
  return run->state;
}

RecordSink& appProofRecords(AppProofRun* run) {
  return run->records;
}

AppProof appProofDocument(pappl_printer_t* printer, const std::string& file, ipp_t* attrs,
                          const std::string& pageDirectory) {
  AppProof proof;
  const char* format = formatOf(file);
  if (format == nullptr) {
    proof.error = "only PNG and JPEG images can be proofed";
    return proof;
  }
  // The records carry the numbers the next print would take.
  uint16_t counter = 1;
  FileRecordSink(pageDirectory, papplPrinterGetName(printer)).loadCounter(&counter);

  AppProofRun run(counter);
  AppProofJob& job = run.job;
  pthread_rwlock_init(&job.rwlock, nullptr);
  job.system = papplPrinterGetSystem(printer);
  job.printer = printer;
  job.name = "proof";
  job.username = "proof";
  job.format = format;
  job.state = IPP_JSTATE_PROCESSING;
  job.created = job.processing = time(nullptr);
  job.attrs = attrs;
  job.filename = const_cast<char*>(file.c_str());
  job.fd = -1;
  auto* handle = reinterpret_cast<pappl_job_t*>(&job);
  // The layout is PAPPL 1.3.1's as long as its accessors read back what was set.
  if (papplJobGetPrinter(handle) != printer || papplJobGetFormat(handle) != format ||
      papplJobGetFilename(handle) != file.c_str() ||
      papplJobGetState(handle) != IPP_JSTATE_PROCESSING || papplJobGetData(handle) != nullptr) {
    pthread_rwlock_destroy(&job.rwlock);
    proof.error = "proofs need PAPPL 1.3.1, which this server is not running with";
    return proof;
  }
  {
    std::lock_guard<std::mutex> hold(gRunsLock);
    gRuns[handle] = &run;
  }
  const bool made = strcmp(format, "image/png") == 0 ? appFilterPng(handle, nullptr, nullptr)
                                                     : appFilterJpeg(handle, nullptr, nullptr);
  {
    std::lock_guard<std::mutex> hold(gRunsLock);
    gRuns.erase(handle);
  }
  pthread_rwlock_destroy(&job.rwlock);
  if (made)
    proof.records = run.records.records();
  else
    proof.error = refusal(job);
  return proof;
}

bool appRecordPng(const std::vector<unsigned char>& record, std::vector<unsigned char>* png,
                  std::string* error) {
  PageRecord page;
  if (!decodePageRecord(std::vector<uint8_t>(record.begin(), record.end()), &page, error))
    return false;
  if (page.width == 0) {
    *error = "the record holds no pixels";
    return false;
  }
  for (uint8_t& dot : page.dots)
    dot = dot != 0 ? 0 : 255;
  png_image image;
  memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(page.width);
  image.height = page.rows;
  image.format = PNG_FORMAT_GRAY;
  png_alloc_size_t size = 0;
  bool ok = png_image_write_to_memory(&image, nullptr, &size, 0, page.dots.data(),
                                      static_cast<png_int_32>(page.width), nullptr) != 0;
  if (ok) {
    png->resize(size);
    ok = png_image_write_to_memory(&image, png->data(), &size, 0, page.dots.data(),
                                   static_cast<png_int_32>(page.width), nullptr) != 0;
    png->resize(size);
  }
  if (!ok)
    *error = image.message;
  png_image_free(&image);
  return ok;
}
