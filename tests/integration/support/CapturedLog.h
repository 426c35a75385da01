/// The log of the process, kept so that tests can ask for its lines.
#ifndef WENDREL_TESTS_INTEGRATION_CAPTUREDLOG_H
#define WENDREL_TESTS_INTEGRATION_CAPTUREDLOG_H

#include <string>
#include <vector>

namespace integration
{

struct LogLine
{
    int level = 0;
    std::string category;
    std::string message;
};

/// Installs the platform log with a sink that keeps every line. Call once, in main.
void installCapturedLog();

/// Takes the log down again; no server may be left.
void uninstallCapturedLog();

void clearLog();

std::vector<LogLine> logLines();

/// Lines with exactly this message.
std::vector<LogLine> logLines(const std::string& message);

/// Waits until a line with exactly this message has been written; false after the limit.
bool waitForLogLine(const std::string& message);

}  // namespace integration

#endif
