// Collects what a piece of code logs through kiwaLogCommon, for tests that
// check log lines byte for byte.
#ifndef OSTRA_TESTS_SUPPORT_LOG_CAPTURE_H
#define OSTRA_TESTS_SUPPORT_LOG_CAPTURE_H

#include <functional>
#include <string>

// Runs `body` with the log going to memory, then hands the log back to
// standard error and returns what was written.
std::string captureLog(const std::function<void()>& body);

#endif  // OSTRA_TESTS_SUPPORT_LOG_CAPTURE_H
