// The CUPS filter job: checks the filter arguments, builds the job settings
// and reads every page of the raster stream, in the order CUPS expects.
#ifndef OSTRA_FILTER_FILTER_JOB_H
#define OSTRA_FILTER_FILTER_JOB_H

#include "printer/ostra_printer.h"

extern const char* const sVersion;

// The job's printer, for code with no other way to reach it; valid only while
// a job runs. runFilterJob owns the object.
extern OstraPrinter* sPrinter;

// Where the filter leaves its by-products. The defaults are the paths the
// print server's tools look at; tests run the filter in a private namespace.
struct FilterPaths {
  const char* pageGeometryLog = "/tmp/xxxxx.log";
  PrinterPaths printer;
};

// Runs one job with the standard filter arguments
// (program job_id user title copies options [file]) and returns the exit
// status: 0 when the raster stream was read to its end or the job was
// cancelled (SIGTERM), 1 on any failure, a page record or the page counter
// that could not be written included.
int runFilterJob(int argc, char* argv[], const FilterPaths& paths = FilterPaths());

#endif  // OSTRA_FILTER_FILTER_JOB_H
