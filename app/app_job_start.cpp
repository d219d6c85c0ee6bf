#include "app/app_job_start.h"

#include <dlfcn.h>

#include <mutex>
#include <set>

// PAPPL 1.3.1 (no upstream fix as of 1.4.11) starts a job's thread before
// marking the job processing, and reads "processing" unlocked. A check for
// work in that gap (another client's Print-Job, the end of a cancelled job)
// starts the same job again, or the next one beside it; the job that ends
// first closes the device under the other; a Cancel-Job in the gap frees the
// document under a thread about to print it. The server then crashes. The
// library's thread entry and its two cancel functions are defined again here
// (the executable's definitions come first in the dynamic link) and call the
// originals under one lock:
//   - one job thread per printer runs at a time; any other leaves at once,
//     and the one that ran looks for work again when it has quite finished;
//   - the lock is held until PAPPL announces the job processing, so a cancel
//     sees the job either pending (and takes it off the queue before any
//     thread looks at it) or processing (and stops it at the next page).

namespace {

using ProcessFn = void* (*)(pappl_job_t*);
using CancelFn = void (*)(pappl_job_t*);
using CancelAllFn = void (*)(pappl_printer_t*);
using CheckFn = void (*)(pappl_printer_t*);

std::mutex gStartLock;
// Under gStartLock: printers with a job thread running, printers deleted.
std::set<pappl_printer_t*> gBusy;
std::set<pappl_printer_t*> gDeleted;
// The job this thread is starting while it holds gStartLock.
thread_local pappl_job_t* tStarting = nullptr;

template <typename Fn>
Fn original(const char* name) {
  static_assert(sizeof(Fn) == sizeof(void*), "a function pointer");
  return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

ProcessFn originalProcess() {
  static const ProcessFn fn = original<ProcessFn>("_papplJobProcess");
  return fn;
}
CancelFn originalCancel() {
  static const CancelFn fn = original<CancelFn>("papplJobCancel");
  return fn;
}
CancelAllFn originalCancelAll() {
  static const CancelAllFn fn = original<CancelAllFn>("papplPrinterCancelAllJobs");
  return fn;
}
CheckFn checkJobs() {
  static const CheckFn fn = original<CheckFn>("_papplPrinterCheckJobs");
  return fn;
}

void releaseStart() {
  tStarting = nullptr;
  gStartLock.unlock();
}

// PAPPL sends the job's state change right after it marks the job processing.
void onEvent(pappl_system_t*, pappl_printer_t* printer, pappl_job_t* job, pappl_event_t event,
             void*) {
  if (tStarting != nullptr && job == tStarting && (event & PAPPL_EVENT_JOB_STATE_CHANGED) != 0)
    releaseStart();
  if ((event & PAPPL_EVENT_PRINTER_DELETED) != 0 && printer != nullptr) {
    std::lock_guard<std::mutex> hold(gStartLock);
    gDeleted.insert(printer);
  }
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
  gBusy.insert(printer);
  gDeleted.erase(printer);  // a new printer where a deleted one was
  tStarting = job;
  void* result = originalProcess()(job);
  if (tStarting != nullptr)
    releaseStart();
  bool deleted;
  {
    std::lock_guard<std::mutex> hold(gStartLock);
    gBusy.erase(printer);
    deleted = gDeleted.count(printer) != 0;
  }
  // Jobs whose threads left while this one ran.
  if (!deleted && papplSystemIsRunning(papplPrinterGetSystem(printer)))
    checkJobs()(printer);
  return result;
}

void papplJobCancel(pappl_job_t* job) {
  std::lock_guard<std::mutex> hold(gStartLock);
  originalCancel()(job);
}

void papplPrinterCancelAllJobs(pappl_printer_t* printer) {
  std::lock_guard<std::mutex> hold(gStartLock);
  originalCancelAll()(printer);
}

}  // extern "C"

bool appGuardJobStarts(pappl_system_t* system) {
  if (originalProcess() == nullptr || originalCancel() == nullptr ||
      originalCancelAll() == nullptr || checkJobs() == nullptr) {
    papplLog(system, PAPPL_LOGLEVEL_FATAL,
             "This PAPPL library lacks a job function the application guards.");
    return false;
  }
  papplSystemSetEventCallback(system, onEvent, nullptr);
  return true;
}
