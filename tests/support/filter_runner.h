// Runs the built filter in a private mount namespace and collects what it
// wrote; and the small helpers the tests share.
#ifndef OSTRA_TESTS_SUPPORT_FILTER_RUNNER_H
#define OSTRA_TESTS_SUPPORT_FILTER_RUNNER_H

#include <functional>
#include <string>
#include <vector>

struct FilterRun {
  int status = -1;       // exit status of the filter
  std::string out;       // standard output (the printer's command stream)
  std::string err;       // standard error (the log)
  std::string tmpDir;    // what the run left in /tmp
  std::string spoolDir;  // what the run left in /var/spool/cups/tmp
  std::string error;     // set when the sandbox itself failed
};

struct FilterCall {
  std::vector<std::string> args;  // argv[1..]; argv[0] is the filter path
  // Shell commands run inside the sandbox just before the filter: they may
  // seed the spool or change the environment (PPD is the shipped PPD and
  // PRINTER "ostra-test" unless they do) or the arguments.
  std::string prelude;
};

// Job 42 with `options` and, when given, the input file.
FilterCall filterJob(const std::string& options, const std::string& file = "");
FilterRun runFilter(const FilterCall& call);

// A fresh, empty directory under the build tree, named after the running test.
std::string testWorkDir();
std::string readFile(const std::string& path);
// Runs `body` with the log going to memory and returns what it wrote.
std::string captureLog(const std::function<void()>& body);

#endif  // OSTRA_TESTS_SUPPORT_FILTER_RUNNER_H
