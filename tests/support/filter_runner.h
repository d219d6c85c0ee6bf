// Runs the built filter binary inside a private mount namespace and collects
// its exit status, output streams and the files it left in /tmp and the spool.
#ifndef OSTRA_TESTS_SUPPORT_FILTER_RUNNER_H
#define OSTRA_TESTS_SUPPORT_FILTER_RUNNER_H

#include <map>
#include <optional>
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
  std::optional<std::string> stdinFile;
  // Environment of the filter: PPD and PRINTER, or anything else. A value of
  // std::nullopt leaves the variable unset.
  std::map<std::string, std::optional<std::string>> env;
};

// A fresh, empty directory under the build tree (never under /tmp, which the
// sandbox hides), named after the running test.
std::string testWorkDir();

std::string readFile(const std::string& path);
bool fileExists(const std::string& path);

FilterRun runFilter(const FilterCall& call);

// Splits the log into lines (without their newlines).
std::vector<std::string> splitLines(const std::string& text);

#endif  // OSTRA_TESTS_SUPPORT_FILTER_RUNNER_H
