#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

// Reading a password or signing secret the only two ways the command accepts
// one: typed at a prompt without echo, or piped to standard input. Never from
// arguments or the environment, where other users and logs can see it.
namespace harborkeeper::cli {

// A secret in memory, wiped when destroyed. Move-only so no stray copy exists.
class SecretText final {
 public:
  SecretText() = default;
  // Takes the buffer over without copying it (`text` must not fit the small-
  // string buffer, or the moved-from copy is left behind; readers reserve).
  explicit SecretText(std::string&& text) noexcept;
  SecretText(SecretText&& other) noexcept;
  SecretText& operator=(SecretText&& other) noexcept;
  SecretText(const SecretText&) = delete;
  SecretText& operator=(const SecretText&) = delete;
  ~SecretText();

  [[nodiscard]] std::string_view view() const noexcept { return text_; }
  [[nodiscard]] bool empty() const noexcept { return text_.empty(); }

 private:
  std::string text_;
};

class SecretInputError : public std::runtime_error {
 public:
  enum class Kind {
    noTerminal,  // nobody to ask: no controlling terminal
    tooLong,     // longer than maximumSecretLength
    unreadable,  // the read itself failed
  };
  SecretInputError(Kind kind, const std::string& message) : std::runtime_error(message), kind_(kind) {}
  [[nodiscard]] Kind kind() const noexcept { return kind_; }

 private:
  Kind kind_;
};

inline constexpr std::size_t maximumSecretLength = 4096;

// Reads one line from `fd`: up to the first "\n" (consumed, so a second secret
// may follow on the next line) or the end of input, without the line end
// ("\n" or "\r\n"). Empty input gives an empty secret; callers decide whether
// that is allowed. Throws SecretInputError (tooLong, unreadable). Nothing read
// is left behind unwiped.
SecretText readSecretLine(int fd);

// Writes `prompt` to the controlling terminal, turns echo off, reads one line
// and restores the terminal, also when interrupted by a signal. Throws
// SecretInputError (noTerminal naming `stdinFlag`, the way to pipe it instead;
// tooLong; unreadable).
SecretText promptForSecret(std::string_view prompt, std::string_view stdinFlag);

}  // namespace harborkeeper::cli
