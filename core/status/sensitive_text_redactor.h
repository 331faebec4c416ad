#pragma once

#include <string>
#include <string_view>

namespace harborkeeper {

// Scrubs private key blocks and labelled secrets ("token: abc", "api key 123")
// from free text before it reaches a reply, a log line or a report.
class SensitiveTextRedactor {
 public:
  SensitiveTextRedactor() = delete;

  // Three case-insensitive passes, each over the result of the previous one:
  //  1. every "-----BEGIN ... PRIVATE KEY-----" up to the nearest following
  //     "-----END ... PRIVATE KEY-----" becomes "[redacted]";
  //  2. a label, a ":" or "=" separator and the value up to the next ".", ";",
  //     ",", CR or LF: the value becomes "[redacted]";
  //  3. a label, white space and the next word: the word becomes "[redacted]".
  // Invalid UTF-8 is read as U+FFFD; the result is always valid UTF-8. A pass
  // that the regex engine gives up on (time or backtracking limit) leaves its
  // input unchanged and the next pass still runs.
  static std::string redactGeneralSecrets(std::string_view text) noexcept;
};

}  // namespace harborkeeper
