#include "tests/support/filter_runner.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

namespace fs = std::filesystem;

std::string testWorkDir() {
  const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string name = info ? std::string(info->test_suite_name()) + "." + info->name() : "adhoc";
  for (char& c : name) {
    if (c == '/')
      c = '_';
  }
  const fs::path dir = fs::path(OSTRA_BINARY_DIR) / "test-work" / name;
  // Wiped once per test, so inputs made earlier in the same test survive.
  static std::string preparedFor;
  if (preparedFor != name) {
    fs::remove_all(dir);
    preparedFor = name;
  }
  fs::create_directories(dir);
  return dir.string();
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

bool fileExists(const std::string& path) {
  return fs::exists(path);
}

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::string::size_type start = 0;
  while (start < text.size()) {
    std::string::size_type end = text.find('\n', start);
    if (end == std::string::npos)
      end = text.size();
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

FilterRun runFilter(const FilterCall& call) {
  FilterRun run;
  static int runNumber = 0;
  const std::string dir = testWorkDir() + "/run" + std::to_string(++runNumber);
  fs::create_directories(dir);
  const std::string outDir = dir + "/sandbox";
  const std::string outFile = dir + "/stdout";
  const std::string errFile = dir + "/stderr";
  fs::create_directories(outDir);

  std::vector<std::string> argv = {OSTRA_SANDBOX_SCRIPT, outDir, OSTRA_FILTER_PATH};
  argv.insert(argv.end(), call.args.begin(), call.args.end());

  const pid_t pid = fork();
  if (pid < 0) {
    run.error = std::string("fork: ") + strerror(errno);
    return run;
  }
  if (pid == 0) {
    const int in =
        call.stdinFile ? open(call.stdinFile->c_str(), O_RDONLY) : open("/dev/null", O_RDONLY);
    const int out = open(outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int err = open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (in < 0 || out < 0 || err < 0)
      _exit(126);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    // A sanitizer report must not pass for the filter's own failure status 1.
    setenv("ASAN_OPTIONS", "exitcode=86:detect_leaks=1", 0);
    setenv("UBSAN_OPTIONS", "halt_on_error=1:print_stacktrace=1:exitcode=87", 0);
    for (const auto& [name, value] : call.env) {
      if (value) {
        setenv(name.c_str(), value->c_str(), 1);
      } else {
        unsetenv(name.c_str());
      }
    }
    std::vector<char*> cargv;
    for (const std::string& a : argv)
      cargv.push_back(const_cast<char*>(a.c_str()));
    cargv.push_back(nullptr);
    execv(cargv[0], cargv.data());
    _exit(127);
  }
  int wstatus = 0;
  while (waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
  }
  run.out = readFile(outFile);
  run.err = readFile(errFile);
  run.tmpDir = outDir + "/tmp";
  run.spoolDir = outDir + "/spool";
  const std::string status = readFile(outDir + "/status");
  if (status.empty()) {
    run.error = "the sandbox did not run the filter (needs root for unshare -m): " + run.err;
    return run;
  }
  run.status = atoi(status.c_str());
  return run;
}
