#include "core/status/sensitive_text_redactor.h"

#include <unicode/regex.h>
#include <unicode/stringpiece.h>
#include <unicode/unistr.h>
#include <unicode/ustring.h>
#include <unicode/utypes.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "core/status/internal/label_start_filter.h"

namespace harborkeeper {
namespace {

using icu::RegexMatcher;
using icu::RegexPattern;
using icu::UnicodeString;

constexpr char kRedacted[] = "[redacted]";
constexpr char16_t kRedactedUtf16[] = u"[redacted]";

// Key blocks are found header by header rather than with one lazy
// "BEGIN[\s\S]*?END" pattern, which rescans the rest of the text for every
// unpaired BEGIN and so turns quadratic on hostile input.
constexpr char kBeginHeader[] = "-----BEGIN [A-Z ]*PRIVATE KEY-----";
constexpr char kEndHeader[] = "-----END [A-Z ]*PRIVATE KEY-----";

// Each alternative begins with a word of internal::kLabelFirstWords, which the
// prefilter relies on to skip text where no label can start.
// White space is written "[\s]" instead of a bare "\s": the same characters,
// but ICU runs a quantified bare "\s" with one backtracking frame per
// character, so a label followed by a long run of blanks exhausted the stack
// limit and let that value through unredacted.
constexpr char kSecretLabel[] =
    R"(\b((?:filevault[\s]+)?recovery[\s]+key|ssh[\s]+private[\s]+key|private[\s]+key|)"
    R"(network[\s]+secret|api[\s]+key|token|secret))";
// Applied in this order: a separated value first, so that the word pass then
// sees "token: [redacted]" and leaves it alone. A word never starts with ":"
// or "=", or "api key = [redacted]" would have its separator taken for the
// secret and come out as "api key [redacted] [redacted]".
constexpr std::array<const char*, 2> kLabelledSecretTails = {
    R"(([\s]*[:=][\s]*)([^.;,\n\r]+))",
    R"(([\s]+)([^\s,;.:=][^\s,;.]*))",
};

// Limits are in ICU match steps (about ten thousand engine operations each), so
// they behave alike on every machine and under sanitisers. These linear passes
// need at most about one step per 5000 code units; the budget allows five times
// that plus a floor, and still stops a runaway match within about half a second
// per MiB.
constexpr int32_t kBaseTimeLimitSteps = 250;
constexpr int32_t kCodeUnitsPerTimeLimitStep = 1000;
constexpr int32_t kBacktrackStackLimitBytes = 1 << 20;

struct CompiledPatterns {
  std::unique_ptr<RegexPattern> beginHeader;
  std::unique_ptr<RegexPattern> endHeader;
  std::array<std::unique_ptr<RegexPattern>, kLabelledSecretTails.size()> labelledSecrets;
  internal::LabelStartFilter labelStarts;
};

// A pattern that does not compile stays null and its pass is skipped.
std::unique_ptr<RegexPattern> compiled(const std::string& pattern) {
  UErrorCode status = U_ZERO_ERROR;
  UParseError parseError;
  std::unique_ptr<RegexPattern> result(
      RegexPattern::compile(UnicodeString::fromUTF8(pattern), UREGEX_CASE_INSENSITIVE, parseError, status));
  return U_SUCCESS(status) ? std::move(result) : nullptr;
}

const CompiledPatterns& compiledPatterns() {
  // Compiled patterns are immutable and ICU allows matchers to be made from
  // them on any thread.
  static const CompiledPatterns patterns = [] {
    CompiledPatterns result;
    result.beginHeader = compiled(kBeginHeader);
    result.endHeader = compiled(kEndHeader);
    for (std::size_t i = 0; i < kLabelledSecretTails.size(); ++i) {
      result.labelledSecrets[i] = compiled(std::string(kSecretLabel) + kLabelledSecretTails[i]);
    }
    return result;
  }();
  return patterns;
}

std::unique_ptr<RegexMatcher> limitedMatcher(const RegexPattern& pattern, const UnicodeString& text,
                                             UErrorCode& status) {
  std::unique_ptr<RegexMatcher> matcher(pattern.matcher(text, status));
  if (U_FAILURE(status) || !matcher) {
    return nullptr;
  }
  matcher->setTimeLimit(kBaseTimeLimitSteps + text.length() / kCodeUnitsPerTimeLimitStep, status);
  matcher->setStackLimit(kBacktrackStackLimitBytes, status);
  return U_SUCCESS(status) ? std::move(matcher) : nullptr;
}

// The passes return nothing when the text stays as it is: nothing matched, or
// ICU gave up on it.

// Each BEGIN header pairs with the nearest END header after it. Once a BEGIN
// has no END after it, no later BEGIN can have one either, so the scan stops.
// Every search restarts the matcher, which also restarts its time budget.
std::optional<UnicodeString> withoutPrivateKeyBlocks(const CompiledPatterns& patterns,
                                                     const UnicodeString& text) {
  const std::u16string_view units(text.getBuffer(), static_cast<std::size_t>(text.length()));
  const std::size_t firstDashes = units.find(u"-----");
  if (firstDashes == std::u16string_view::npos || !patterns.beginHeader || !patterns.endHeader) {
    return std::nullopt;
  }
  UErrorCode status = U_ZERO_ERROR;
  const auto begin = limitedMatcher(*patterns.beginHeader, text, status);
  const auto end = limitedMatcher(*patterns.endHeader, text, status);
  if (!begin || !end) {
    return std::nullopt;
  }
  UnicodeString result;
  int32_t copiedUpTo = 0;
  auto searchFrom = static_cast<int64_t>(firstDashes);
  while (begin->find(searchFrom, status) && end->find(begin->end(status), status)) {
    const int32_t blockStart = begin->start(status);
    result.append(text, copiedUpTo, blockStart - copiedUpTo).append(UnicodeString(kRedactedUtf16));
    copiedUpTo = end->end(status);
    searchFrom = copiedUpTo;
  }
  if (U_FAILURE(status) || copiedUpTo == 0) {
    return std::nullopt;
  }
  result.append(text, copiedUpTo, text.length() - copiedUpTo);
  return result.isBogus() ? std::nullopt : std::optional<UnicodeString>(std::move(result));
}

// Leftmost-first and non-overlapping, like ICU's own find loop, but tried only
// where a label may begin. Each attempt restarts the matcher and its time budget.
std::optional<UnicodeString> withLabelledSecretsRedacted(const RegexPattern* pattern,
                                                         const internal::LabelStartFilter& labelStarts,
                                                         const UnicodeString& text) {
  if (!pattern) {
    return std::nullopt;
  }
  UErrorCode status = U_ZERO_ERROR;
  const auto matcher = limitedMatcher(*pattern, text, status);
  if (!matcher) {
    return std::nullopt;
  }
  const std::u16string_view units(text.getBuffer(), static_cast<std::size_t>(text.length()));
  UnicodeString result;
  int32_t copiedUpTo = 0;
  auto nextStart = [&](int32_t from) {
    return static_cast<int32_t>(labelStarts.next(units, static_cast<std::size_t>(from)));
  };
  for (int32_t index = nextStart(0); index < text.length();) {
    if (!matcher->lookingAt(index, status)) {
      if (U_FAILURE(status)) {
        return std::nullopt;
      }
      index = nextStart(index + 1);
      continue;
    }
    // The replacement is "$1$2[redacted]": label and separator stay.
    result.append(text, copiedUpTo, index - copiedUpTo);
    for (const int32_t group : {1, 2}) {
      const int32_t start = matcher->start(group, status);
      result.append(text, start, matcher->end(group, status) - start);
    }
    result.append(UnicodeString(kRedactedUtf16));
    copiedUpTo = matcher->end(status);
    index = nextStart(copiedUpTo);
  }
  if (copiedUpTo == 0) {
    return std::nullopt;
  }
  result.append(text, copiedUpTo, text.length() - copiedUpTo);
  if (U_FAILURE(status) || result.isBogus()) {
    return std::nullopt;
  }
  return result;
}

// Each invalid UTF-8 sequence becomes U+FFFD; `repaired` tells whether any did.
std::optional<UnicodeString> decoded(std::string_view text, bool& repaired) {
  // UTF-16 never needs more code units than UTF-8 needs bytes.
  const auto capacity = static_cast<int32_t>(std::max<std::size_t>(text.size(), 1));
  UnicodeString result;
  char16_t* buffer = result.getBuffer(capacity);
  if (buffer == nullptr) {
    return std::nullopt;
  }
  int32_t length = 0;
  int32_t substitutions = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strFromUTF8WithSub(buffer, capacity, &length, text.data(), static_cast<int32_t>(text.size()), 0xFFFD,
                       &substitutions, &status);
  result.releaseBuffer(U_SUCCESS(status) ? length : 0);
  if (U_FAILURE(status)) {
    return std::nullopt;
  }
  repaired = substitutions > 0;
  return result;
}

std::string redacted(std::string_view text) {
  const CompiledPatterns& patterns = compiledPatterns();
  bool changed = false;
  std::optional<UnicodeString> current = decoded(text, changed);
  if (!current) {
    return kRedacted;
  }
  if (auto next = withoutPrivateKeyBlocks(patterns, *current)) {
    current = std::move(next);
    changed = true;
  }
  for (const auto& pattern : patterns.labelledSecrets) {
    if (auto next = withLabelledSecretsRedacted(pattern.get(), patterns.labelStarts, *current)) {
      current = std::move(next);
      changed = true;
    }
  }
  if (!changed) {
    return std::string(text);
  }
  std::string result;
  current->toUTF8String(result);
  return result;
}

}  // namespace

std::string SensitiveTextRedactor::redactGeneralSecrets(std::string_view text) noexcept {
  // Failing closed: text too long for ICU, or no memory to work in, yields
  // only the marker (short enough not to allocate) rather than the secrets.
  if (text.size() > static_cast<std::size_t>(std::numeric_limits<int32_t>::max())) {
    return kRedacted;
  }
  try {
    return redacted(text);
  } catch (...) {
    return kRedacted;
  }
}

}  // namespace harborkeeper
