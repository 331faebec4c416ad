#pragma once

#include <chrono>
#include <stdexcept>
#include <string>
#include <string_view>

#include "core/foundation/bytes.h"

namespace harborkeeper {

// The five ways storing, loading or using a heartbeat configuration fails;
// what() is the user-facing text with the detail appended.
class DockerHeartbeatConfigurationStoreError : public std::runtime_error {
 public:
  enum class Kind {
    invalidConfiguration,
    insecureConfiguration,
    loadFailed,
    writeFailed,
    missingConfiguration
  };

  static DockerHeartbeatConfigurationStoreError invalidConfiguration(std::string detail) {
    return {Kind::invalidConfiguration, std::move(detail)};
  }
  static DockerHeartbeatConfigurationStoreError insecureConfiguration(std::string detail) {
    return {Kind::insecureConfiguration, std::move(detail)};
  }
  static DockerHeartbeatConfigurationStoreError loadFailed(std::string detail) {
    return {Kind::loadFailed, std::move(detail)};
  }
  static DockerHeartbeatConfigurationStoreError writeFailed(std::string detail) {
    return {Kind::writeFailed, std::move(detail)};
  }
  static DockerHeartbeatConfigurationStoreError missingConfiguration() {
    return {Kind::missingConfiguration, {}};
  }

  [[nodiscard]] Kind kind() const noexcept { return kind_; }
  [[nodiscard]] const std::string& detail() const noexcept { return detail_; }

 private:
  DockerHeartbeatConfigurationStoreError(Kind kind, std::string detail);

  Kind kind_;
  std::string detail_;
};

// Where and how often the daemon sends its signed heartbeat. The shared
// secret is the HMAC key, used as its UTF-8 bytes exactly as given.
struct DockerHeartbeatConfiguration {
  std::string endpointURL;
  std::string profileID;
  std::string sharedSecret;
  double intervalSeconds = 0;

  bool operator==(const DockerHeartbeatConfiguration&) const = default;

  // XML property list with the keys "endpointURL", "profileID",
  // "sharedSecret" and "intervalSeconds" (a real). Throws plist::EncodeError.
  [[nodiscard]] Bytes encodeXml() const;
  // XML or binary; the interval may be written as an integer or a real.
  // Throws plist::DecodeError. Nothing is validated here.
  static DockerHeartbeatConfiguration decode(std::string_view bytes);

  // Throws invalidConfiguration with the first rule broken: an http(s) URL,
  // a profile id and a secret of at least 24 user-perceived characters, the
  // last two judged trimmed. Nothing is changed.
  void validate() const;

  void secureWipe() noexcept;
};

inline void secureWipe(DockerHeartbeatConfiguration& configuration) noexcept { configuration.secureWipe(); }

// What `heartbeat status` shows: never the secret.
struct DockerHeartbeatStatus {
  bool configured = false;
  std::string endpointURL;
  std::string profileID;
  double intervalSeconds = 0;  // clamped, not rounded; 0 when not configured

  bool operator==(const DockerHeartbeatStatus&) const = default;

  static DockerHeartbeatStatus of(const DockerHeartbeatConfiguration& configuration);

  // XML property list with the keys "configured", "endpointURL", "profileID"
  // and "intervalSeconds". Throws plist::EncodeError.
  [[nodiscard]] Bytes encodeXml() const;
  // Throws plist::DecodeError.
  static DockerHeartbeatStatus decode(std::string_view bytes);
};

// The beat interval actually used: the requested one held between the bounds
// (a value that is not a number counts as the minimum).
struct DockerHeartbeatIntervalBounds {
  double minimumSeconds = 30;
  double maximumSeconds = 600;

  [[nodiscard]] double clamped(double requestedSeconds) const noexcept;
  // Clamped, then rounded to the nearest second, halves away from zero.
  [[nodiscard]] std::chrono::seconds timerInterval(double requestedSeconds) const noexcept;
};

}  // namespace harborkeeper
