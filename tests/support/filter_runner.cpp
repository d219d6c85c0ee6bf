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

#include "common/kiwa_common.h"

namespace fs = std::filesystem;

FilterCall filterJob(const std::string& options, const std::string& file) {
  FilterCall call;
  call.args = {"42", "artist", "stencil", "1", options};
  if (!file.empty())
    call.args.push_back(file);
  call.env["PPD"] = OSTRA_SOURCE_DIR "/ppd/ostra.ppd";
  call.env["PRINTER"] = "ostra-test";
  return call;
}

std::string testWorkDir() {
  const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
  std::string name = info ? std::string(info->test_suite_name()) + "." + info->name() : "adhoc";
  for (char& c : name)
    c = c == '/' ? '_' : c;
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

FilterRun runFilter(const FilterCall& call) {
  FilterRun run;
  static int runNumber = 0;
  const std::string dir = testWorkDir() + "/run" + std::to_string(++runNumber);
  const std::string outDir = dir + "/sandbox";
  fs::create_directories(outDir);

  std::vector<std::string> argv = {
      OSTRA_SANDBOX_SCRIPT, outDir, "/bin/sh", "-c", call.prelude + "\nexec \"$0\" \"$@\"",
      OSTRA_FILTER_PATH};
  argv.insert(argv.end(), call.args.begin(), call.args.end());
  const pid_t pid = fork();
  if (pid == 0) {
    const int in = open(call.stdinFile ? call.stdinFile->c_str() : "/dev/null", O_RDONLY);
    const int out = open((dir + "/stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int err = open((dir + "/stderr").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (in < 0 || out < 0 || err < 0)
      _exit(126);
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    // A sanitizer report must not pass for the filter's own failure status 1.
    setenv("ASAN_OPTIONS", "exitcode=86:detect_leaks=1", 0);
    setenv("UBSAN_OPTIONS", "halt_on_error=1:print_stacktrace=1:exitcode=87", 0);
    for (const auto& [name, value] : call.env)
      value ? setenv(name.c_str(), value->c_str(), 1) : unsetenv(name.c_str());
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
  run.tmpDir = outDir + "/tmp";
  run.spoolDir = outDir + "/spool";
  const std::string status = readFile(outDir + "/status");
  if (pid < 0 || status.empty()) {
    run.error = "the sandbox did not run the filter (needs root for unshare -m): " + run.err;
    return run;
  }
  run.status = atoi(status.c_str());
  return run;
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
