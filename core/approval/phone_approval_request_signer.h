#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "core/foundation/date_time.h"

namespace harborkeeper {

// The listener's HMAC authorization of a middleware call. Stateless and
// thread-safe. Dates are written as whole seconds since 1970, truncated toward
// zero (1763223600.9 s -> "1763223600"); every Date fits.
struct PhoneApprovalRequestSigner {
  // base64url (unpadded) of SHA-256 of the body; "" hashes the empty input.
  static std::string bodyHash(std::string_view body);

  // "Harborkeeper-HMAC listenerId=<listenerID>,timestamp=<ts>,signature=<mac>"
  // where mac = base64url(HMAC-SHA256(UTF-8 of listenerSecret as is,
  //   upper(method) "\n" path "\n" ts "\n" bodyHash(body))).
  // `path` is the path exactly as sent (leading "/", no query).
  static std::string authorizationHeader(std::string_view listenerID, std::string_view listenerSecret,
                                         std::string_view method, std::string_view path, Date timestamp,
                                         std::string_view body);

  // The whole seconds of `date` as written in both signed headers.
  static std::string timestampText(Date date);
};

}  // namespace harborkeeper
