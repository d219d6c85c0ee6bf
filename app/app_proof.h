// Proofs: the page records a print of a document would make, worked out by
// the same image filter, driver callbacks and core job as the print, in memory.
#ifndef OSTRA_APP_APP_PROOF_H
#define OSTRA_APP_APP_PROOF_H

#include <pappl/pappl.h>

#include <cstdint>
#include <string>
#include <vector>

#include "printer/kiwa_printer.h"
#include "printer/record_sink.h"
#include "tools/page_record.h"

struct AppProof {
  std::vector<MemoryRecordSink::Record> records;  // as a print would keep them, in order
  std::string error;                              // why there are none
};

// The proof of `file` (a PNG or JPEG image, by its first bytes) on `printer`
// with the job template attributes `attrs` a Print-Job of it would carry.
// Nothing is written to the page directory and the page counter stays; the
// records carry the page numbers the next print would take, as the counter
// in `pageDirectory` says.
AppProof appProofDocument(pappl_printer_t* printer, const std::string& file, ipp_t* attrs,
                          const std::string& pageDirectory);

// "image/png" or "image/jpeg" by the file's first bytes, else null.
const char* appProofFormat(const std::string& file);

// The proof running as `job`, or null when `job` is a print: its records go
// to memory and its counter is its own.
struct AppProofRun;
AppProofRun* appProofRun(pappl_job_t* job);
PrinterState& appProofState(AppProofRun* run);
RecordSink& appProofRecords(AppProofRun* run);

// A decoded page record's dots as a PNG, written by libpng: black dots on
// white, or each `shrink` x `shrink` square of dots as one gray pixel.
bool appRecordPng(const PageRecord& page, std::vector<unsigned char>* png, std::string* error,
                  int shrink = 1);

// Cancels the proofs of `printer` and waits until no proof thread holds it:
// called as the printer is deleted, before its memory goes.
void appEndProofs(pappl_printer_t* printer);

// Notes a page record a print of `printerId` kept, for its last-prints page;
// false, errno set, when the list could not be saved.
bool appNotePrinted(int printerId, int jobId, const std::string& record);
// Where the last prints are saved, so that a restart keeps them: loads them.
void appLoadPrinted(const std::string& file);
// Drops the last prints of a deleted printer.
void appForgetPrinted(int printerId);

// The proof page of `printer` at /<printer>/proof, linked from its pages:
// upload an image, choose the options a job carries, see the dots; proof all
// ten halftones side by side; print what was proofed; save the options as
// the printer's defaults (admins only). Page records are read from
// `pageDirectory` for the counter only. Beside it, /<printer>/prints shows
// the printer's last page records as pictures, to admins, and
// /<printer>/proof-upload takes the page's images.
void appAddProofPage(pappl_system_t* system, pappl_printer_t* printer,
                     const std::string& pageDirectory);

#endif  // OSTRA_APP_APP_PROOF_H
