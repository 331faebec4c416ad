#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "core/recovery/harborkeeper_discovery.h"

// The seam to the platform's DNS Service Discovery: browsing for Harborkeeper
// machines and advertising this one. The Linux implementation talks to
// avahi-daemon through its dns_sd.h compatibility library.
namespace harborkeeper {

// what() is the user-facing text.
class ServiceDiscoveryError : public std::runtime_error {
 public:
  enum class Kind {
    unavailable,  // the local DNS-SD service could not be reached or refused to start
    browseFailed,
    advertiseFailed,
  };
  ServiceDiscoveryError(Kind kind, const std::string& message) : std::runtime_error(message), kind_(kind) {}
  [[nodiscard]] Kind kind() const { return kind_; }

 private:
  Kind kind_;
};

// An advertisement, in force until destroyed (which withdraws it).
class ServiceRegistration {
 public:
  virtual ~ServiceRegistration() = default;
  // The instance name in use. It differs from the one asked for when another
  // service on the network already holds that: "Harborkeeper (2)", ...
  [[nodiscard]] virtual std::string name() const = 0;
  // Readable when processEvents() has something to handle. A rename replaces
  // it: ask again after each processEvents().
  [[nodiscard]] virtual int eventDescriptor() const = 0;
  // Handles what is pending without blocking; renames again on a late name
  // conflict. Throws ServiceDiscoveryError (advertiseFailed) when the
  // advertisement is lost.
  virtual void processEvents() = 0;
};

class ServiceDiscovery {
 public:
  virtual ~ServiceDiscovery() = default;
  // Every instance seen within `timeout`, resolved to host, port and TXT
  // record, with the addresses its host had by then. Instances that did not
  // resolve in time or went away are left out. Returns by the deadline.
  // Throws ServiceDiscoveryError.
  virtual std::vector<RecoveryDiscoveryCandidate> browse(std::chrono::milliseconds timeout) = 0;
  // Announces this machine's `port` under `name` (renamed on a conflict) and
  // returns once the service confirmed it. Throws ServiceDiscoveryError.
  virtual std::unique_ptr<ServiceRegistration> advertise(std::string_view name, std::uint16_t port,
                                                         const TXTRecord& txtRecord) = 0;
};

// Over dns_sd.h. Not thread-safe: one instance per thread.
class DNSServiceDiscovery final : public ServiceDiscovery {
 public:
  explicit DNSServiceDiscovery(std::string serviceType = std::string(HarborkeeperDiscovery::serviceType),
                               std::string domain = std::string(HarborkeeperDiscovery::domain));

  std::vector<RecoveryDiscoveryCandidate> browse(std::chrono::milliseconds timeout) override;
  std::unique_ptr<ServiceRegistration> advertise(std::string_view name, std::uint16_t port,
                                                 const TXTRecord& txtRecord) override;

  // How long advertise() waits for the service to confirm the name.
  static constexpr std::chrono::seconds confirmationTimeout{10};

 private:
  std::string serviceType_;
  std::string domain_;
};

// A resolved service's TXT record, which is whatever the network sent: items
// whose length runs past the end stop the decoding, empty keys are skipped,
// the first of duplicate keys wins, an item without "=" has an empty value,
// and keys and values become repaired UTF-8.
TXTRecord decodeTXTRecord(std::span<const std::uint8_t> bytes);
// The wire form. Throws ServiceDiscoveryError (advertiseFailed) for a key
// that is empty or holds "=", or an item longer than 255 bytes.
std::vector<std::uint8_t> encodeTXTRecord(const TXTRecord& record);

}  // namespace harborkeeper
