// Redacts arbitrary bytes and checks what must hold for any input: the result
// is valid UTF-8, redacting it again changes nothing, and it agrees with the
// three passes written the plain way (one lazy key-block pattern, bare "\s",
// ICU's replaceAll), which is affordable at fuzzing sizes.
#include <unicode/regex.h>
#include <unicode/unistr.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "core/foundation/text.h"
#include "core/status/sensitive_text_redactor.h"

namespace {

// Compiled once: a case-insensitive compile costs milliseconds.
std::unique_ptr<icu::RegexPattern> regex(const std::string& pattern) {
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::RegexPattern> result(
      icu::RegexPattern::compile(icu::UnicodeString::fromUTF8(pattern), UREGEX_CASE_INSENSITIVE, status));
  if (U_FAILURE(status)) std::abort();
  return result;
}

std::string plainIcuRedaction(std::string_view text) {
  static const std::string label =
      R"(\b((?:filevault\s+)?recovery\s+key|ssh\s+private\s+key|private\s+key|network\s+secret|)"
      R"(api\s+key|token|secret))";
  static const std::pair<std::unique_ptr<icu::RegexPattern>, icu::UnicodeString> passes[] = {
      {regex(R"(-----BEGIN [A-Z ]*PRIVATE KEY-----[\s\S]*?-----END [A-Z ]*PRIVATE KEY-----)"), u"[redacted]"},
      {regex(label + R"((\s*[:=]\s*)([^.;,\n\r]+))"), u"$1$2[redacted]"},
      {regex(label + R"((\s+)([^\s,;.:=][^\s,;.]*))"), u"$1$2[redacted]"},
  };
  icu::UnicodeString current = icu::UnicodeString::fromUTF8(text);
  for (const auto& [pattern, replacement] : passes) {
    UErrorCode status = U_ZERO_ERROR;
    current = std::unique_ptr<icu::RegexMatcher>(pattern->matcher(current, status))
                  ->replaceAll(replacement, status);
    if (U_FAILURE(status)) std::abort();
  }
  std::string result;
  return current.toUTF8String(result);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto redact = &harborkeeper::SensitiveTextRedactor::redactGeneralSecrets;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::string once = redact(input);
  if (harborkeeper::text::repairedUtf8(once) != once || redact(once) != once) std::abort();
  if (size <= 4096 && once != plainIcuRedaction(input)) std::abort();
  return 0;
}
