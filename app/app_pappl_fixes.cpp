#include "app/app_pappl_fixes.h"

#include <dlfcn.h>

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <set>

// Each fix defines a function of PAPPL or libcups again; the executable's
// definitions come first in the dynamic link, and each calls the original.

namespace {

template <typename Fn>
Fn original(const char* name) {
  static_assert(sizeof(Fn) == sizeof(void*), "a function pointer");
  return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

#define ORIGINAL(type, name)                      \
  type original_##name() {                        \
    static const type fn = original<type>(#name); \
    return fn;                                    \
  }

using ProcessFn = void* (*)(pappl_job_t*);
using RasterFn = void (*)(pappl_job_t*, pappl_client_t*);
using CopyFn = void (*)(pappl_client_t*, pappl_job_t*);
using CancelFn = void (*)(pappl_job_t*);
using CancelAllFn = void (*)(pappl_printer_t*);
using CheckFn = void (*)(pappl_printer_t*);
using ReadHeaderFn = unsigned (*)(cups_raster_t*, cups_page_header2_t*);
using FindFn = ipp_attribute_t* (*)(ipp_t*, const char*, ipp_tag_t);
using AddStringsFn = ipp_attribute_t* (*)(ipp_t*, ipp_tag_t, ipp_tag_t, const char*, int,
                                          const char*, const char* const*);
ORIGINAL(ProcessFn, _papplJobProcess)
ORIGINAL(RasterFn, _papplJobProcessRaster)
ORIGINAL(CopyFn, _papplJobCopyDocumentData)
ORIGINAL(CancelFn, papplJobCancel)
ORIGINAL(CancelAllFn, papplPrinterCancelAllJobs)
ORIGINAL(CheckFn, _papplPrinterCheckJobs)
ORIGINAL(ReadHeaderFn, cupsRasterReadHeader2)
ORIGINAL(AddStringsFn, ippAddStrings)
ORIGINAL(FindFn, ippFindAttribute)
ORIGINAL(FindFn, ippFindNextAttribute)

// PAPPL 1.3.1 (no upstream fix as of 1.4.11) looks up a printer's attributes
// from several threads at once under a shared lock, but libcups keeps the
// state of a lookup in the attribute list itself: a Print-Job checked while
// the state is saved can find its media "unsupported". Lookups take turns.
std::recursive_mutex gFindLock;

// PAPPL 1.3.1 (no upstream fix as of 1.4.11) starts a job's thread before
// marking the job processing, and reads "processing" unlocked; a streamed PWG
// job starts on its client's thread after the same unlocked look. A check for
// work in that gap (another client's Print-Job, the end of a cancelled job)
// starts the same job again, or the next one beside it; the job that ends
// first closes the device under the other; a Cancel-Job in the gap frees the
// document under a thread about to print it. The server then crashes. Here:
//   - one job per printer runs at a time: another job thread leaves at once,
//     a streamed job waits its turn; the one that ran looks for work again
//     when it has quite finished;
//   - gStartLock is held until PAPPL announces the job processing, so a
//     cancel sees the job either pending (and takes it off the queue before
//     any thread looks at it) or processing (and stops it at the next page);
//   - a streamed job's turn is taken before PAPPL looks whether the printer
//     is busy: PAPPL's own way out when it is (aborting the job) takes the
//     printer's lock, then the system's, the reverse of saving the state, and
//     the server hangs when the two meet.
std::mutex gStartLock;
std::condition_variable gIdle;
// Under gStartLock: printers running a job, printers deleted.
std::set<pappl_printer_t*> gBusy;
std::set<pappl_printer_t*> gDeleted;
// The job this thread is starting while it holds gStartLock.
thread_local pappl_job_t* tStarting = nullptr;
// The application's own event callback.
pappl_event_cb_t gEvents = nullptr;

// The printer whose turn this (client) thread holds for a streamed job.
thread_local pappl_printer_t* tTurn = nullptr;
// A streamed job's client header, read on its client's thread.
thread_local bool tStreaming = false;
thread_local bool tHaveHeader = false;
thread_local cups_page_header2_t tHeader;

void releaseStart() {
  tStarting = nullptr;
  gStartLock.unlock();
}

// PAPPL sends the job's state change right after it marks the job processing.
void onEvent(pappl_system_t* system, pappl_printer_t* printer, pappl_job_t* job,
             pappl_event_t event, void* data) {
  if (tStarting != nullptr && job == tStarting && (event & PAPPL_EVENT_JOB_STATE_CHANGED) != 0)
    releaseStart();
  if ((event & PAPPL_EVENT_PRINTER_DELETED) != 0 && printer != nullptr) {
    std::lock_guard<std::mutex> hold(gStartLock);
    gDeleted.insert(printer);
  }
  if (gEvents != nullptr)
    gEvents(system, printer, job, event, data);
}

// Runs a job claimed under gStartLock (held on entry, released on return),
// then starts the jobs whose threads left meanwhile.
void endTurn(pappl_printer_t* printer) {
  bool deleted;
  {
    std::lock_guard<std::mutex> hold(gStartLock);
    gBusy.erase(printer);
    deleted = gDeleted.count(printer) != 0;
  }
  gIdle.notify_all();
  if (!deleted && papplSystemIsRunning(papplPrinterGetSystem(printer)))
    original__papplPrinterCheckJobs()(printer);
}

template <typename Run>
void runClaimed(pappl_job_t* job, pappl_printer_t* printer, Run run) {
  gBusy.insert(printer);
  gDeleted.erase(printer);  // a new printer where a deleted one was
  tStarting = job;
  run();
  if (tStarting != nullptr)
    releaseStart();
  endTurn(printer);
}

}  // namespace

extern "C" {

void* _papplJobProcess(pappl_job_t* job) {
  gStartLock.lock();
  pappl_printer_t* printer = papplJobGetPrinter(job);
  if (papplJobGetState(job) != IPP_JSTATE_PENDING || gBusy.count(printer)) {
    gStartLock.unlock();
    return nullptr;
  }
  void* result = nullptr;
  runClaimed(job, printer, [&] { result = original__papplJobProcess()(job); });
  return result;
}

void _papplJobCopyDocumentData(pappl_client_t* client, pappl_job_t* job) {
  const char* format = papplJobGetFormat(job);
  if (format == nullptr ||
      (strcmp(format, "image/pwg-raster") != 0 && strcmp(format, "image/urf") != 0)) {
    original__papplJobCopyDocumentData()(client, job);
    return;
  }
  pappl_printer_t* printer = papplJobGetPrinter(job);
  {
    std::unique_lock<std::mutex> hold(gStartLock);
    gIdle.wait(hold, [&] { return !gBusy.count(printer) || gDeleted.count(printer); });
    if (gDeleted.count(printer) || papplJobGetState(job) != IPP_JSTATE_HELD) {
      // Cancelled while it waited: the client's pages are read and dropped.
      hold.unlock();
      httpFlush(papplClientGetHTTP(client));
      papplClientRespondIPP(client, IPP_STATUS_ERROR_JOB_CANCELED, "Job #%d was canceled.",
                            papplJobGetID(job));
      return;
    }
    gBusy.insert(printer);
  }
  tTurn = printer;
  original__papplJobCopyDocumentData()(client, job);
  tTurn = nullptr;
  endTurn(printer);
}

void _papplJobProcessRaster(pappl_job_t* job, pappl_client_t* client) {
  gStartLock.lock();
  if (tTurn != papplJobGetPrinter(job) || papplJobGetState(job) != IPP_JSTATE_PENDING) {
    gStartLock.unlock();
    httpFlush(papplClientGetHTTP(client));
    return;
  }
  tStarting = job;
  tStreaming = true;
  tHaveHeader = false;
  original__papplJobProcessRaster()(job, client);
  tStreaming = false;
  if (tStarting != nullptr)
    releaseStart();
}

void papplJobCancel(pappl_job_t* job) {
  std::lock_guard<std::mutex> hold(gStartLock);
  original_papplJobCancel()(job);
}

void papplPrinterCancelAllJobs(pappl_printer_t* printer) {
  std::lock_guard<std::mutex> hold(gStartLock);
  original_papplPrinterCancelAllJobs()(printer);
}

unsigned cupsRasterReadHeader2(cups_raster_t* r, cups_page_header2_t* h) {
  const unsigned ok = original_cupsRasterReadHeader2()(r, h);
  if (tStreaming && ok != 0) {
    tHeader = *h;
    tHaveHeader = true;
  }
  return ok;
}

// PAPPL 1.3.1 adds printer-strings-languages-supported to the printer's own
// attributes on every Get-Printer-Attributes, so the answer and the memory
// grow without end (fixed in 1.4.6): once there, it stays as it is (the
// languages do not change while the server runs).
ipp_attribute_t* ippAddStrings(ipp_t* ipp, ipp_tag_t group, ipp_tag_t value_tag, const char* name,
                               int num_values, const char* language, const char* const* values) {
  if (ipp != nullptr && name != nullptr &&
      strcmp(name, "printer-strings-languages-supported") == 0) {
    if (ipp_attribute_t* present = ippFindAttribute(ipp, name, IPP_TAG_ZERO))
      return present;
  }
  // PAPPL 1.3.1 (no upstream fix as of 1.4.11) lists a job's reasons only up
  // to warnings-detected; a held job's one reason comes out as no value and
  // the attribute is lost.
  static const char* const kHeld[] = {"job-hold-until-specified"};
  if (num_values == 0 && values != nullptr && name != nullptr &&
      strcmp(name, "job-state-reasons") == 0) {
    num_values = 1;
    values = kHeld;
  }
  return original_ippAddStrings()(ipp, group, value_tag, name, num_values, language, values);
}

ipp_attribute_t* ippFindAttribute(ipp_t* ipp, const char* name, ipp_tag_t type) {
  std::lock_guard<std::recursive_mutex> hold(gFindLock);
  return original_ippFindAttribute()(ipp, name, type);
}

ipp_attribute_t* ippFindNextAttribute(ipp_t* ipp, const char* name, ipp_tag_t type) {
  std::lock_guard<std::recursive_mutex> hold(gFindLock);
  return original_ippFindNextAttribute()(ipp, name, type);
}

}  // extern "C"

const cups_page_header2_t* appClientPageHeader() {
  return tStreaming && tHaveHeader ? &tHeader : nullptr;
}

bool appFixPappl(pappl_system_t* system, pappl_event_cb_t events, void* data) {
  if (original__papplJobProcess() == nullptr || original__papplJobProcessRaster() == nullptr ||
      original__papplJobCopyDocumentData() == nullptr || original_papplJobCancel() == nullptr ||
      original_papplPrinterCancelAllJobs() == nullptr ||
      original__papplPrinterCheckJobs() == nullptr || original_cupsRasterReadHeader2() == nullptr ||
      original_ippAddStrings() == nullptr || original_ippFindAttribute() == nullptr ||
      original_ippFindNextAttribute() == nullptr) {
    papplLog(system, PAPPL_LOGLEVEL_FATAL,
             "This PAPPL or CUPS library lacks a function the application mends.");
    return false;
  }
  gEvents = events;
  papplSystemSetEventCallback(system, onEvent, data);
  return true;
}
