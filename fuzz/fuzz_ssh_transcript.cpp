// Input: one byte of flags (bit 0: ambiguous prompts count as locked, bit 1:
// generic authentication failures do, bit 2: timed out), one byte of exit code
// (as signed), then standard output and standard error separated by a NUL, as
// repaired UTF-8 the way the command runner delivers them. Both classifiers
// must give a known state, and the rules that settle a result early must hold.
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

#include "core/foundation/text.h"
#include "core/recovery/companion_recovery_service.h"

namespace {

using namespace harborkeeper;
using State = CompanionUnlockState;

bool isKnown(State state) { return !rawValue(state).empty(); }

void checkProbe(const CompanionRecoveryCheckResult& result, std::string_view transcript,
                const std::optional<std::string>& fingerprint) {
  if (!isKnown(result.state)) std::abort();
  const bool unlockedNotice = transcript.find("system successfully unlocked") != std::string_view::npos;
  if (!unlockedNotice && CompanionRecoveryService::transcriptContainsFileVaultLockedPrompt(transcript) &&
      (result !=
       CompanionRecoveryCheckResult{State::locked, "FileVault unlock prompt is reachable.", fingerprint})) {
    std::abort();
  }
  if (result.isAmbiguousRecoveryCandidate &&
      (result.state != State::locked ||
       result.message != CompanionRecoveryService::ambiguousPasswordPromptMessage)) {
    std::abort();
  }
  const auto expected = result.state == State::offline ? std::nullopt : fingerprint;
  if (result.hostKeyFingerprint != expected) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const std::string_view rest(reinterpret_cast<const char*>(data + 2), size - 2);
  const auto split = rest.find('\0');
  CommandResult result;
  result.standardOutput = text::repairedUtf8(rest.substr(0, split));
  result.standardError = split == std::string_view::npos ? "" : text::repairedUtf8(rest.substr(split + 1));
  result.exitCode = data[1] < 0x80 ? data[1] : data[1] - 0x100;
  result.timedOut = (data[0] & 4) != 0;
  const std::optional<std::string> fingerprint = "SHA256:fuzz";
  const std::string transcript = text::lowercased(result.standardOutput + "\n" + result.standardError);

  checkProbe(
      CompanionRecoveryService::classifySSHProbe(result, fingerprint, (data[0] & 1) != 0, (data[0] & 2) != 0),
      transcript, fingerprint);
  const CompanionRecoveryCheckResult unlock =
      CompanionRecoveryService::classifySSHUnlock(result, fingerprint);
  if (!isKnown(unlock.state) || unlock.isAmbiguousRecoveryCandidate ||
      unlock.hostKeyFingerprint != fingerprint) {
    std::abort();
  }
  return 0;
}
