// Redacts arbitrary bytes and checks what must hold for any input: the result
// is valid UTF-8, redacting it again changes nothing, and it agrees with the
// three passes written the plain way (one lazy key-block pattern, bare "\s",
// ICU's replaceAll), which is affordable at fuzzing sizes.
#include <unicode/regex.h>
#include <unicode/unistr.h>
#include <unicode/utf8.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "core/status/sensitive_text_redactor.h"

namespace {

bool isValidUtf8(std::string_view text) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
  const auto length = static_cast<int32_t>(text.size());
  for (int32_t i = 0; i < length;) {
    UChar32 c;
    U8_NEXT(bytes, i, length, c);
    if (c < 0) {
      return false;
    }
  }
  return true;
}

std::unique_ptr<icu::RegexPattern> compiled(const std::string& pattern) {
  UErrorCode status = U_ZERO_ERROR;
  UParseError parseError;
  std::unique_ptr<icu::RegexPattern> result(icu::RegexPattern::compile(
      icu::UnicodeString::fromUTF8(pattern), UREGEX_CASE_INSENSITIVE, parseError, status));
  if (U_FAILURE(status)) {
    std::abort();
  }
  return result;
}

std::string plainIcuRedaction(std::string_view text) {
  static const std::string label =
      "\\b((?:filevault\\s+)?recovery\\s+key|ssh\\s+private\\s+key|private\\s+key|network\\s+secret|api\\s+"
      "key|token|secret)";
  static const std::pair<std::unique_ptr<icu::RegexPattern>, icu::UnicodeString> passes[] = {
      {compiled("-----BEGIN [A-Z ]*PRIVATE KEY-----[\\s\\S]*?-----END [A-Z ]*PRIVATE KEY-----"),
       icu::UnicodeString(u"[redacted]")},
      {compiled(label + "(\\s*[:=]\\s*)([^.;,\\n\\r]+)"), icu::UnicodeString(u"$1$2[redacted]")},
      {compiled(label + "(\\s+)([^\\s,;.:=][^\\s,;.]*)"), icu::UnicodeString(u"$1$2[redacted]")},
  };
  icu::UnicodeString current =
      icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
  for (const auto& [pattern, replacement] : passes) {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::RegexMatcher> matcher(pattern->matcher(current, status));
    icu::UnicodeString next = matcher->replaceAll(replacement, status);
    if (U_FAILURE(status)) {
      std::abort();
    }
    current = next;
  }
  std::string result;
  return current.toUTF8String(result);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::string once = harborkeeper::SensitiveTextRedactor::redactGeneralSecrets(input);
  if (!isValidUtf8(once)) {
    std::abort();
  }
  if (harborkeeper::SensitiveTextRedactor::redactGeneralSecrets(once) != once) {
    std::abort();
  }
  if (size <= 4096 && once != plainIcuRedaction(input)) {
    std::abort();
  }
  return 0;
}
