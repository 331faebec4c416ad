#include "core/protection/auth_restart.h"

#include <algorithm>
#include <exception>
#include <utility>
#include <vector>

#include "core/foundation/plist.h"
#include "core/foundation/text.h"
#include "core/status/sensitive_text_redactor.h"

namespace harborkeeper {

namespace {

std::string xmlEscaped(std::string_view value) {
  std::string escaped(value);
  // Ampersands first, so the entities added next are not escaped again.
  static constexpr std::pair<std::string_view, std::string_view> kEntities[] = {
      {"&", "&amp;"}, {"<", "&lt;"}, {">", "&gt;"}, {"\"", "&quot;"}, {"'", "&apos;"}};
  for (const auto& [character, entity] : kEntities) {
    std::string next = text::replacingOccurrences(escaped, character, entity);
    secureWipe(escaped);
    escaped = std::move(next);
  }
  return escaped;
}

struct RedactionToken {
  std::string token;
  std::string_view replacement;

  RedactionToken(std::string token, std::string_view replacement)
      : token(std::move(token)), replacement(replacement) {}
  RedactionToken(RedactionToken&&) noexcept = default;
  RedactionToken& operator=(RedactionToken&&) noexcept = default;
  RedactionToken(const RedactionToken&) = delete;
  RedactionToken& operator=(const RedactionToken&) = delete;
  ~RedactionToken() { secureWipe(token); }
};

std::vector<RedactionToken> redactionTokens(std::string_view username, std::string_view password) {
  std::vector<RedactionToken> tokens;
  const auto add = [&tokens](std::string token, std::string_view replacement) {
    const bool known = std::any_of(tokens.begin(), tokens.end(),
                                   [&](const RedactionToken& kept) { return kept.token == token; });
    if (!token.empty() && !known) tokens.emplace_back(std::move(token), replacement);
  };
  for (const auto& [value, replacement] : {std::pair{username, std::string_view("[user]")},
                                           std::pair{password, std::string_view("[password]")}}) {
    if (value.empty()) continue;
    add(std::string(value), replacement);
    add(xmlEscaped(value), replacement);
  }
  // Longest first, so a password that contains the name is replaced whole.
  std::stable_sort(tokens.begin(), tokens.end(), [](const RedactionToken& a, const RedactionToken& b) {
    return text::userPerceivedLength(a.token) > text::userPerceivedLength(b.token);
  });
  return tokens;
}

}  // namespace

Bytes AuthRestartPlist::makeData(std::string_view username, std::string_view password) {
  plist::Value document(
      plist::Dictionary{{"Username", text::trimmed(username)}, {"Password", std::string(password)}});
  const WipeOnExit wipe(document);
  return plist::encode(document, plist::Format::xml);
}

std::string AuthRestartFailureSanitizer::sanitize(std::string_view output, std::string_view username,
                                                  std::string_view password) {
  std::string result(output);
  for (const RedactionToken& token : redactionTokens(username, password)) {
    std::string next = text::replacingCaseInsensitive(result, token.token, token.replacement);
    secureWipe(result);
    result = std::move(next);
  }
  std::string redacted = SensitiveTextRedactor::redactGeneralSecrets(result);
  secureWipe(result);
  return redacted;
}

AuthRestartRunner::AuthRestartRunner(std::shared_ptr<const CommandExecutor> commandRunner,
                                     std::string fdesetupPath, double authRestartTimeout)
    : commandRunner_(std::move(commandRunner)),
      fdesetupPath_(std::move(fdesetupPath)),
      authRestartTimeout_(authRestartTimeout) {}

ipc::HelperCommandResult AuthRestartRunner::armNextRestart(std::string_view username,
                                                           std::string_view password) const noexcept {
  try {
    const std::string name = text::trimmed(username);
    if (name.empty()) return {false, "Choose a FileVault user."};
    if (password.empty()) return {false, "Enter the selected user's password."};
    Bytes document;
    try {
      document = AuthRestartPlist::makeData(name, password);
    } catch (const std::exception& error) {
      return {false, AuthRestartFailureSanitizer::sanitize(error.what(), name, password)};
    }
    const CommandResult result =
        commandRunner_->run(fdesetupPath_, {"authrestart", "-inputplist", "-delayminutes", "-1"},
                            asStringView(document), authRestartTimeout_);
    secureWipe(document);
    if (result.exitCode == 0) return {true, "Harborkeeper armed authenticated restart for the next restart."};
    return {false, sanitizedFailureMessage(result, name, password)};
  } catch (const std::exception&) {  // only allocation can fail here
    return {false, "Harborkeeper could not run fdesetup authrestart."};
  }
}

std::string AuthRestartRunner::sanitizedFailureMessage(const CommandResult& result, std::string_view username,
                                                       std::string_view password) {
  std::string joined = result.standardOutput;
  if (!result.standardError.empty()) joined += (joined.empty() ? "" : " ") + result.standardError;
  if (joined.empty()) {
    return "fdesetup authrestart failed with exit code " + std::to_string(result.exitCode) + ".";
  }
  std::string sanitized = AuthRestartFailureSanitizer::sanitize(joined, username, password);
  secureWipe(joined);
  return sanitized;
}

}  // namespace harborkeeper
