// A middleware answer (or a stored approval request) of any shape: every
// record decoder either refuses it with its own error, naming a key when the
// JSON was an object, or accepts it and reads back its own encoding unchanged.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "core/approval/phone_approval_records.h"

namespace {

using namespace harborkeeper;
using Kind = PhoneApprovalDecodingError::Kind;

template <typename Record>
void check(std::string_view body) {
  Record record;
  try {
    record = decodePhoneApprovalResponse<Record>(body);
  } catch (const PhoneApprovalDecodingError& error) {
    const std::string_view message = error.what();
    const bool aboutKey = error.kind() == Kind::missingKey || error.kind() == Kind::wrongType ||
                          error.kind() == Kind::unknownValue;
    if (aboutKey && (error.key().empty() || !message.starts_with('"'))) std::abort();
    if (!aboutKey && !error.key().empty()) std::abort();
    return;
  }
  const std::string encoded = json::serialize(encodePhoneApproval(record));
  if (decodePhoneApprovalResponse<Record>(encoded) != record) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view body(reinterpret_cast<const char*>(data), size);
  check<PhoneApprovalRequest>(body);
  check<PhoneApprovalMiddlewareRecord>(body);
  check<PhoneApprovalDevicePublicKeyJWK>(body);
  check<PhoneApprovalPairedDeviceRecord>(body);
  check<PhoneApprovalPairedDeviceListRecord>(body);
  check<PhoneApprovalPairedDeviceRevocationRecord>(body);
  check<PhoneApprovalTestNotificationRecord>(body);
  check<PhoneApprovalListenerRegistrationRecord>(body);
  check<PhoneApprovalPairingTokenRecord>(body);
  return 0;
}
