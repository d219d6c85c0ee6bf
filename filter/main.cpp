#include "filter/filter_job.h"

int main(int argc, char* argv[]) {
  return runFilterJob(argc, argv);
}
