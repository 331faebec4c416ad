#include "cli/secret_input.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "core/foundation/bytes.h"
#include "core/platform/unique_fd.h"

namespace harborkeeper::cli {

namespace {

using Kind = SecretInputError::Kind;

constexpr std::array kRestoringSignals = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

// The terminal whose echo is off, for the signal handler; -1 when none.
volatile sig_atomic_t gEchoOffFd = -1;
termios gSavedTerminal{};

void restoreTerminalAndReraise(int signal) {
  if (gEchoOffFd >= 0) ::tcsetattr(gEchoOffFd, TCSAFLUSH, &gSavedTerminal);
  (void)::signal(signal, SIG_DFL);
  (void)::raise(signal);
}

void writeAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(fd, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;  // the prompt is a courtesy; the read decides
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

// Turns echo off for its lifetime. A signal that would end the process while
// echo is off restores it first, so the user's shell is not left blind.
class EchoOff final {
 public:
  explicit EchoOff(int fd) : fd_(fd) {
    if (::tcgetattr(fd, &gSavedTerminal) != 0) {
      throw SecretInputError(Kind::unreadable, "The terminal's settings could not be read.");
    }
    struct sigaction action {};
    action.sa_handler = restoreTerminalAndReraise;
    for (std::size_t i = 0; i < kRestoringSignals.size(); ++i) {
      ::sigaction(kRestoringSignals[i], &action, &previous_[i]);
    }
    gEchoOffFd = fd;
    termios quiet = gSavedTerminal;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    quiet.c_lflag |= ECHONL;
    ::tcsetattr(fd, TCSAFLUSH, &quiet);
  }
  EchoOff(const EchoOff&) = delete;
  EchoOff& operator=(const EchoOff&) = delete;
  ~EchoOff() {
    ::tcsetattr(fd_, TCSAFLUSH, &gSavedTerminal);
    gEchoOffFd = -1;
    for (std::size_t i = 0; i < kRestoringSignals.size(); ++i) {
      ::sigaction(kRestoringSignals[i], &previous_[i], nullptr);
    }
  }

 private:
  int fd_;
  std::array<struct sigaction, kRestoringSignals.size()> previous_{};
};

}  // namespace

SecretText::SecretText(std::string&& text) noexcept : text_(std::move(text)) {}
SecretText::SecretText(SecretText&& other) noexcept : text_(std::move(other.text_)) {}
SecretText& SecretText::operator=(SecretText&& other) noexcept {
  if (this != &other) {
    secureWipe(text_);
    text_ = std::move(other.text_);
  }
  return *this;
}
SecretText::~SecretText() { secureWipe(text_); }

SecretText readSecretLine(int fd) {
  // Reserved once and filled in place: a growing string would leave copies of
  // the secret in buffers it freed.
  std::string text;
  text.reserve(maximumSecretLength + 1);
  for (;;) {
    const std::size_t length = text.size();
    if (length > maximumSecretLength) {
      secureWipe(text);
      throw SecretInputError(Kind::tooLong,
                             "The secret is longer than " + std::to_string(maximumSecretLength) + " bytes.");
    }
    text.resize(length + 1);
    const ssize_t got = ::read(fd, &text[length], 1);
    if (got < 0 && errno == EINTR) {
      text.resize(length);
      continue;
    }
    if (got < 0) {
      secureWipe(text);
      throw SecretInputError(Kind::unreadable, "The secret could not be read.");
    }
    if (got == 0 || text[length] == '\n') {
      text.resize(length);
      break;
    }
  }
  if (!text.empty() && text.back() == '\r') text.pop_back();
  return SecretText(std::move(text));
}

SecretText promptForSecret(std::string_view prompt, std::string_view stdinFlag) {
  const UniqueFd terminal(::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
  if (!terminal) {
    throw SecretInputError(Kind::noTerminal,
                           "There is no terminal to ask on; pipe the secret to standard input with " +
                               std::string(stdinFlag) + " instead.");
  }
  writeAll(terminal.get(), prompt);
  const EchoOff echoOff(terminal.get());
  return readSecretLine(terminal.get());
}

}  // namespace harborkeeper::cli
