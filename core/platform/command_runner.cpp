#include "core/platform/command_runner.h"

#include <poll.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "core/foundation/bytes.h"
#include "core/foundation/text.h"
#include "core/platform/internal/process_spawn.h"
#include "core/platform/internal/tool_pipes.h"
#include "core/platform/internal/tool_process.h"

namespace harborkeeper {
namespace {

using internal::InputFeeder;
using internal::OutputStream;
using internal::ToolProcess;
using Steady = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr char kRelativePathMessage[] = "CommandRunner requires an absolute executable path.";
constexpr char kOutOfMemoryMessage[] = "Could not run the command: out of memory.";
// How long a tool gets between SIGTERM and SIGKILL once its limit has passed.
constexpr auto kTerminateGrace = 1s;
// How long leftover output may take to arrive once the tool's group is dead.
constexpr auto kDrainGrace = 50ms;
// Keeps the deadline arithmetic far from overflow; about 31 years.
constexpr double kLongestLimitSeconds = 1e9;
// Without a pidfd the child's exit is noticed by polling at this period.
constexpr int kExitPollMilliseconds = 5;

struct Session {
  ToolProcess& child;
  InputFeeder& input;
  OutputStream& out;
  OutputStream& err;
};

int millisecondsUntil(Steady::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Steady::now()).count();
  return static_cast<int>(std::clamp<long long>(left, 0, 60'000));
}

// One wait for any of the tool's pipes or its exit, then the work they allow.
void pollOnce(Session& session, Steady::time_point deadline) {
  std::array<pollfd, 4> fds{{{session.out.fd(), POLLIN, 0},
                             {session.err.fd(), POLLIN, 0},
                             {session.input.fd(), POLLOUT, 0},
                             {session.child.pidfd(), POLLIN, 0}}};
  int timeout = millisecondsUntil(deadline);
  const bool watchExitByPolling = !session.child.exited() && !session.child.hasPidfd();
  if (watchExitByPolling) timeout = std::min(timeout, kExitPollMilliseconds);
  if (::poll(fds.data(), fds.size(), timeout) < 0) {
    if (errno == EINTR) return;
    throw std::runtime_error(std::string("poll failed: ") + ::strerrordesc_np(errno) + ".");
  }
  if (fds[0].revents != 0) session.out.readAvailable();
  if (fds[1].revents != 0) session.err.readAvailable();
  if (fds[2].revents != 0) session.input.writeMore();
  if (fds[3].revents != 0) session.child.markExited();
  if (watchExitByPolling) session.child.checkExited();
}

template <class Done>
bool pumpUntil(Session& session, Steady::time_point deadline, Done done) {
  while (!done()) {
    if (Steady::now() >= deadline) return false;
    pollOnce(session, deadline);
  }
  return true;
}

// The tool has gone (or is being killed): keep what it left in the pipes, but
// do not wait on stragglers of its group that still hold them open.
void finish(Session& session, Steady::time_point drainDeadline) {
  session.input.close();
  session.out.readAvailable();
  session.err.readAvailable();
  if (!session.out.atEnd() || !session.err.atEnd()) session.child.signalGroup(SIGKILL);
  session.child.reap();
  pumpUntil(session, drainDeadline, [&] { return session.out.atEnd() && session.err.atEnd(); });
}

// A limit that is negative, NaN or infinite counts as 0: the tool is started
// and stopped at once, as if it had run out of time immediately.
double sanitizedLimit(double seconds) { return std::isfinite(seconds) && seconds > 0 ? seconds : 0.0; }

Steady::duration asDuration(double seconds) {
  return std::chrono::duration_cast<Steady::duration>(
      std::chrono::duration<double>(std::min(seconds, kLongestLimitSeconds)));
}

// The output may be a secret: the intermediate copy is wiped, not just freed.
std::string outputText(const OutputStream& stream) {
  std::string repaired = text::repairedUtf8(stream.bytes());
  std::string result = text::trimmed(repaired);
  secureWipe(repaired);
  return result;
}

CommandResult launchFailure(const std::string& executable, int error) {
  const char* cause = ::strerrordesc_np(error);
  return {"", "Could not launch " + executable + ": " + (cause ? cause : "Unknown error") + ".", -1, false};
}

CommandResult runTool(const std::string& executable, const std::vector<std::string>& arguments,
                      std::optional<std::string_view> standardInput, double limit) {
  const auto start = Steady::now();
  internal::LaunchedTool launched = internal::launchTool(executable, arguments, standardInput.has_value());
  ToolProcess child(launched.pid);
  InputFeeder input(std::move(launched.input), standardInput.value_or(""));
  OutputStream stdoutStream(std::move(launched.output));
  OutputStream stderrStream(std::move(launched.error));
  Session session{child, input, stdoutStream, stderrStream};

  const auto deadline = start + asDuration(limit);
  if (pumpUntil(session, deadline, [&] { return child.exited(); })) {
    finish(session, Steady::now() + kDrainGrace);
    const auto code = child.exitCode();
    if (!code) {
      return {outputText(stdoutStream), "The exit status of " + executable + " is unknown.", -1, false};
    }
    return {outputText(stdoutStream), outputText(stderrStream), *code, false};
  }

  child.signalGroup(SIGTERM);
  input.close();
  pumpUntil(session, deadline + kTerminateGrace, [&] { return child.exited(); });
  child.signalGroup(SIGKILL);
  finish(session, Steady::now() + kDrainGrace);
  return {outputText(stdoutStream),
          "Command timed out after " + CommandRunner::timeoutDescription(limit) + " seconds.", -2, true};
}

}  // namespace

CommandResult CommandRunner::run(const std::string& executable, const std::vector<std::string>& arguments,
                                 std::optional<std::string_view> standardInput,
                                 std::optional<double> timeout) const noexcept {
  try {
    if (executable.empty() || executable.front() != '/') return {"", kRelativePathMessage, -1, false};
    try {
      return runTool(executable, arguments, standardInput, sanitizedLimit(timeout.value_or(defaultTimeout_)));
    } catch (const std::bad_alloc&) {
      throw;
    } catch (const std::system_error& error) {
      // Only the set-up before the launch reports system errors this way.
      return launchFailure(executable, error.code().value());
    } catch (const std::exception& error) {
      return {"", "Could not run " + executable + ": " + error.what(), -1, false};
    }
  } catch (...) {
    // Out of memory, possibly while building a message: keep this path allocation-light.
    CommandResult result{"", "", -1, false};
    try {
      result.standardError = kOutOfMemoryMessage;
    } catch (...) {
    }
    return result;
  }
}

std::string CommandRunner::timeoutDescription(double seconds) {
  if (seconds == 0) return "0";  // also for -0.0
  const bool whole = std::isfinite(seconds) && std::floor(seconds) == seconds;
  const char* format = whole ? "%.0f" : "%.1f";
  // A whole number can have hundreds of digits.
  std::string description(static_cast<std::size_t>(std::snprintf(nullptr, 0, format, seconds)), '\0');
  // Cannot fail or be cut short: the length was just measured.
  static_cast<void>(std::snprintf(description.data(), description.size() + 1, format, seconds));
  return description;
}

}  // namespace harborkeeper
