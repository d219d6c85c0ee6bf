#include <malloc.h>

#include "filter/filter_job.h"

int main(int argc, char* argv[]) {
  // Page-sized blocks are mapped fresh and handed back after each page. Left
  // to itself, glibc raises its mapping threshold after the first page and
  // serves later pages from the heap, where calloc must clear blocks nothing
  // else writes: the job's memory would grow by a page or two after page one.
  mallopt(M_MMAP_THRESHOLD, 1 << 20);
  return runFilterJob(argc, argv);
}
