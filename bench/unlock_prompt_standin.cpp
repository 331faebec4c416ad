// Plays the server's side of an unlock prompt for unlock_prompt_benchmark.cpp:
// turns echo off as a password prompt does, prints "Password:", reads one line
// and prints how long that took on the monotonic clock. Arguments are ignored.

#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>

namespace {

long long nanoseconds() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<long long>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

}  // namespace

int main() {
  termios modes{};
  if (::tcgetattr(STDIN_FILENO, &modes) == 0) {
    modes.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    ::tcsetattr(STDIN_FILENO, TCSANOW, &modes);
  }
  const long long start = nanoseconds();
  if (::write(STDOUT_FILENO, "Password:", 9) != 9) return 2;
  // The terminal is in canonical mode: one read returns the whole line.
  char line[512];
  if (::read(STDIN_FILENO, line, sizeof line) <= 0) return 3;
  const long long latency = nanoseconds() - start;
  std::printf("\nlatency_ns=%lld\n", latency);
  return 0;
}
