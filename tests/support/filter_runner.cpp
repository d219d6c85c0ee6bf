#include "tests/support/filter_runner.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "common/kiwa_common.h"

namespace fs = std::filesystem;

FilterCall filterJob(const std::string& options, const std::string& file) {
  FilterCall call;
  call.args = {"42", "artist", "stencil", "1", options};
  if (!file.empty())
    call.args.push_back(file);
  return call;
}

FilterRun runFilter(const FilterCall& call) {
  static int runNumber = 0;
  const std::string dir = testWorkDir() + "/run" + std::to_string(++runNumber);
  FilterRun run;
  run.tmpDir = dir + "/sandbox/tmp";
  run.spoolDir = dir + "/sandbox/spool";
  fs::create_directories(dir + "/sandbox");
  std::vector<std::string> argv = {OSTRA_SANDBOX_SCRIPT,
                                   dir + "/sandbox",
                                   "/bin/sh",
                                   "-c",
                                   call.prelude + "\nexec \"$0\" \"$@\"",
                                   OSTRA_FILTER_PATH};
  argv.insert(argv.end(), call.args.begin(), call.args.end());
  const pid_t pid = fork();
  if (pid == 0) {
    const int in = open("/dev/null", O_RDONLY);
    const int out = open((dir + "/stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int err = open((dir + "/stderr").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (in < 0 || out < 0 || err < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0)
      _exit(126);
    setenv("PPD", OSTRA_SOURCE_DIR "/ppd/ostra.ppd", 1);
    setenv("PRINTER", "ostra-test", 1);
    // A sanitizer report must not pass for the filter's own failure status 1.
    setenv("ASAN_OPTIONS", "exitcode=86:detect_leaks=1", 0);
    setenv("UBSAN_OPTIONS", "halt_on_error=1:print_stacktrace=1:exitcode=87", 0);
    std::vector<char*> cargv;
    for (const std::string& a : argv)
      cargv.push_back(const_cast<char*>(a.c_str()));
    cargv.push_back(nullptr);
    execv(cargv[0], cargv.data());
    _exit(127);
  }
  int wstatus = 0;
  while (pid > 0 && waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
  }
  run.out = readFile(dir + "/stdout");
  run.err = readFile(dir + "/stderr");
  const std::string status = readFile(dir + "/sandbox/status");
  if (status.empty())
    run.error = "the sandbox did not run the filter (needs root for unshare -m): " + run.err;
  run.status = status.empty() ? -1 : atoi(status.c_str());
  return run;
}

std::string testWorkDir() {
  const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string name = info ? std::string(info->test_suite_name()) + "." + info->name() : "adhoc";
  std::replace(name.begin(), name.end(), '/', '_');
  const fs::path dir = fs::path(OSTRA_BINARY_DIR) / "test-work" / name;
  // Wiped once per test, so inputs made earlier in the same test survive.
  static std::string preparedFor;
  if (preparedFor != name)
    fs::remove_all(dir);
  preparedFor = name;
  fs::create_directories(dir);
  return dir.string();
}

std::string readFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

std::string captureLog(const std::function<void()>& body) {
  char* data = nullptr;
  size_t size = 0;
  FILE* mem = open_memstream(&data, &size);
  kiwaLogSetStream(mem);
  body();
  kiwaLogSetStream(nullptr);
  fclose(mem);
  std::string text(data, size);
  free(data);
  return text;
}
