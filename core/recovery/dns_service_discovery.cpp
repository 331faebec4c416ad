#include "core/recovery/dns_service_discovery.h"

#include <arpa/inet.h>
#include <dns_sd.h>
#include <net/if.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <utility>

#include "core/foundation/text.h"

namespace harborkeeper {

namespace {

using Clock = std::chrono::steady_clock;
using Kind = ServiceDiscoveryError::Kind;

// The compatibility library tells standard error that it is one, the first
// time it is used, unless this is set; that means nothing to our users.
void silenceCompatibilityNotice() {
  static std::once_flag once;
  // Before the library starts any thread of its own.
  std::call_once(once, [] { ::setenv("AVAHI_COMPAT_NOWARN", "1", 0); });  // NOLINT(concurrency-mt-unsafe)
}

std::string describe(DNSServiceErrorType code) {
  static const std::map<DNSServiceErrorType, std::string_view> kWords = {
      {kDNSServiceErr_Unknown, "unknown error"},
      {kDNSServiceErr_NoSuchName, "no such name"},
      {kDNSServiceErr_NoMemory, "out of resources"},
      {kDNSServiceErr_BadParam, "invalid request"},
      {kDNSServiceErr_BadState, "bad state"},
      {kDNSServiceErr_Unsupported, "not supported"},
      {kDNSServiceErr_NotInitialized, "not initialized"},
      {kDNSServiceErr_NameConflict, "name conflict"},
      {kDNSServiceErr_Invalid, "invalid data"},
      {kDNSServiceErr_Refused, "refused"},
      {kDNSServiceErr_BadInterfaceIndex, "no such network interface"}};
  const auto words = kWords.find(code);
  return std::string(words == kWords.end() ? "unexpected error" : words->second) + " (DNS-SD error " +
         std::to_string(code) + ")";
}

// The library reports an unreachable daemon (no D-Bus, no avahi-daemon) as
// an unknown error when the first request is made.
ServiceDiscoveryError unavailable(DNSServiceErrorType code) {
  const bool unreachable = code == kDNSServiceErr_Unknown || code == kDNSServiceErr_NotInitialized;
  return {Kind::unavailable,
          "The local DNS-SD service is not available: " +
              (unreachable ? "avahi-daemon could not be reached (DNS-SD error " + std::to_string(code) + ")"
                           : describe(code)) +
              "."};
}

// Sole owner of one DNSServiceRef.
class ServiceRef final {
 public:
  ServiceRef() = default;
  ServiceRef(const ServiceRef&) = delete;
  ServiceRef& operator=(const ServiceRef&) = delete;
  ~ServiceRef() { reset(); }

  [[nodiscard]] DNSServiceRef get() const { return ref_; }
  explicit operator bool() const { return ref_ != nullptr; }
  // For the call that creates the reference.
  DNSServiceRef* out() {
    reset();
    return &ref_;
  }
  void reset() {
    if (ref_ != nullptr) DNSServiceRefDeallocate(std::exchange(ref_, nullptr));
  }

 private:
  DNSServiceRef ref_ = nullptr;
};

int millisecondsUntil(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::clamp<long long>(left, 0, 60'000));
}

// Which of `refs` have results waiting, after waiting for one until `deadline`.
std::vector<bool> readable(const std::vector<ServiceRef*>& refs, Clock::time_point deadline) {
  std::vector<pollfd> fds;
  fds.reserve(refs.size());
  for (const ServiceRef* ref : refs) fds.push_back({DNSServiceRefSockFD(ref->get()), POLLIN, 0});
  std::vector<bool> ready(refs.size(), false);
  if (::poll(fds.data(), fds.size(), millisecondsUntil(deadline)) <= 0) return ready;  // EINTR: next round
  for (std::size_t i = 0; i < fds.size(); ++i) ready[i] = fds[i].revents != 0;
  return ready;
}

// "fe80::1%eth0": a link-local address is useless without its interface.
std::optional<std::string> addressText(std::uint16_t type, const void* data, std::uint16_t length,
                                       std::uint32_t interfaceIndex) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  if (type == kDNSServiceType_A && length == 4) return ::inet_ntop(AF_INET, data, text.data(), text.size());
  if (type != kDNSServiceType_AAAA || length != 16) return std::nullopt;
  std::string address = ::inet_ntop(AF_INET6, data, text.data(), text.size());
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  std::array<char, IF_NAMESIZE> interface {};
  if (bytes[0] == 0xfe && (bytes[1] & 0xc0) == 0x80 && ::if_indextoname(interfaceIndex, interface.data())) {
    address += "%" + std::string(interface.data());
  }
  return address;
}

// One browse: every instance found is resolved, then its host's addresses
// are looked up, all on one poll loop that ends at the deadline.
class BrowseSession final {
 public:
  BrowseSession(const std::string& type, const std::string& domain, Clock::time_point deadline)
      : deadline_(deadline), type_(type), domain_(domain) {
    const DNSServiceErrorType error = DNSServiceBrowse(browser_.out(), 0, kDNSServiceInterfaceIndexAny,
                                                       type.c_str(), domain.c_str(), onBrowse, this);
    if (error != kDNSServiceErr_NoError) throw unavailable(error);
  }

  std::vector<RecoveryDiscoveryCandidate> run() {
    while (Clock::now() < deadline_ && !failure_) {
      pump();
      settle();
    }
    if (failure_) {
      throw ServiceDiscoveryError(Kind::browseFailed,
                                  "Browsing the local network failed: " + describe(*failure_) + ".");
    }
    std::vector<RecoveryDiscoveryCandidate> found;
    for (auto& [name, instance] : instances_) {
      if (instance->presence <= 0 || !instance->candidate) continue;
      found.push_back(*instance->candidate);
      auto& addresses = found.back().lastKnownLocalIPs;
      addresses = instance->ipv4;
      addresses.insert(addresses.end(), instance->ipv6.begin(), instance->ipv6.end());
    }
    return found;
  }

 private:
  struct Instance {
    std::string name;  // as the network sent it
    std::string host;
    std::uint32_t interfaceIndex = 0;
    int presence = 0;  // added minus removed, over interfaces and protocols
    ServiceRef resolver;
    bool resolveEnded = false;
    std::optional<RecoveryDiscoveryCandidate> candidate;
    ServiceRef ipv4Query;
    ServiceRef ipv6Query;
    std::vector<std::string> ipv4;
    std::vector<std::string> ipv6;
  };

  void pump() {
    std::vector<ServiceRef*> refs{&browser_};
    std::vector<Instance*> owners{nullptr};
    for (auto& [name, instance] : instances_) {
      for (ServiceRef* ref : {&instance->resolver, &instance->ipv4Query, &instance->ipv6Query}) {
        if (*ref) refs.push_back(ref), owners.push_back(instance.get());
      }
    }
    const std::vector<bool> ready = readable(refs, deadline_);
    for (std::size_t i = 0; i < refs.size(); ++i) {
      if (!ready[i]) continue;
      const DNSServiceErrorType error = DNSServiceProcessResult(refs[i]->get());
      if (error == kDNSServiceErr_NoError) continue;
      if (owners[i] == nullptr) {
        failure_ = error;
        return;
      }
      refs[i]->reset();  // only that instance's lookup is lost
      if (refs[i] == &owners[i]->resolver) owners[i]->resolveEnded = true;
    }
  }

  // References are released here, never inside their own callbacks.
  void settle() {
    for (auto& [name, instance] : instances_) {
      if (instance->presence > 0 && !instance->resolver && !instance->resolveEnded) startResolve(*instance);
      if (!instance->resolveEnded || !instance->resolver) continue;
      instance->resolver.reset();
      if (instance->candidate) startAddressQueries(*instance);
    }
  }

  void startResolve(Instance& instance) {
    const DNSServiceErrorType error =
        DNSServiceResolve(instance.resolver.out(), 0, instance.interfaceIndex, instance.name.c_str(),
                          type_.c_str(), domain_.c_str(), onResolve, &instance);
    if (error != kDNSServiceErr_NoError) instance.resolveEnded = true;
  }

  static void startAddressQueries(Instance& instance) {
    const char* host = instance.host.c_str();
    for (auto [ref, type] : {std::pair{&instance.ipv4Query, kDNSServiceType_A},
                             std::pair{&instance.ipv6Query, kDNSServiceType_AAAA}}) {
      if (DNSServiceQueryRecord(ref->out(), 0, instance.interfaceIndex, host, type, kDNSServiceClass_IN,
                                onAddress, &instance) != kDNSServiceErr_NoError) {
        ref->reset();
      }
    }
  }

  static void DNSSD_API onBrowse(DNSServiceRef, DNSServiceFlags flags, std::uint32_t interfaceIndex,
                                 DNSServiceErrorType error, const char* name, const char*, const char*,
                                 void* context) {
    auto& session = *static_cast<BrowseSession*>(context);
    if (error != kDNSServiceErr_NoError) return void(session.failure_ = error);
    auto& instance = session.instances_[name];
    if (!instance) {
      instance = std::make_unique<Instance>();
      instance->name = name;
      instance->interfaceIndex = interfaceIndex;
    }
    instance->presence += (flags & kDNSServiceFlagsAdd) != 0 ? 1 : -1;
  }

  static void DNSSD_API onResolve(DNSServiceRef, DNSServiceFlags, std::uint32_t, DNSServiceErrorType error,
                                  const char* fullName, const char* host, std::uint16_t networkPort,
                                  std::uint16_t txtLength, const unsigned char* txt, void* context) {
    auto& instance = *static_cast<Instance*>(context);
    if (instance.resolveEnded) return;
    instance.resolveEnded = true;
    if (error != kDNSServiceErr_NoError || host == nullptr || *host == '\0') return;
    instance.host = host;
    // Names are whatever the network sent; the raw one stays in `instance` for lookups.
    instance.candidate =
        RecoveryDiscoveryCandidate{.id = text::repairedUtf8(fullName != nullptr ? fullName : instance.name),
                                   .serviceName = text::repairedUtf8(instance.name),
                                   .hostname = text::repairedUtf8(host),
                                   .port = ntohs(networkPort),
                                   .txtRecord = decodeTXTRecord({txt, txt == nullptr ? 0U : txtLength}),
                                   .lastKnownLocalIPs = {}};
  }

  static void DNSSD_API onAddress(DNSServiceRef, DNSServiceFlags flags, std::uint32_t interfaceIndex,
                                  DNSServiceErrorType error, const char*, std::uint16_t type, std::uint16_t,
                                  std::uint16_t length, const void* data, std::uint32_t, void* context) {
    if (error != kDNSServiceErr_NoError || data == nullptr) return;
    const auto address = addressText(type, data, length, interfaceIndex);
    if (!address) return;
    auto& instance = *static_cast<Instance*>(context);
    auto& list = type == kDNSServiceType_A ? instance.ipv4 : instance.ipv6;
    std::erase(list, *address);
    if ((flags & kDNSServiceFlagsAdd) != 0) list.push_back(*address);
  }

  Clock::time_point deadline_;
  std::string type_;
  std::string domain_;
  ServiceRef browser_;
  std::map<std::string, std::unique_ptr<Instance>> instances_;  // by instance name
  std::optional<DNSServiceErrorType> failure_;
};

// An advertisement, renamed "Name (2)", "Name (3)", ... while the name is taken.
class DNSServiceRegistration final : public ServiceRegistration {
 public:
  DNSServiceRegistration(std::string_view name, std::string type, std::string domain, std::uint16_t port,
                         const TXTRecord& txtRecord)
      : baseName_(name),
        type_(std::move(type)),
        domain_(std::move(domain)),
        port_(port),
        txt_(encodeTXTRecord(txtRecord)) {
    start();
  }

  // Returns once the service holds the name. Throws ServiceDiscoveryError.
  void awaitConfirmation(Clock::time_point deadline) {
    while (!confirmed_) {
      if (Clock::now() >= deadline) {
        throw ServiceDiscoveryError(Kind::advertiseFailed,
                                    "The local DNS-SD service did not confirm the advertisement within " +
                                        std::to_string(DNSServiceDiscovery::confirmationTimeout.count()) +
                                        " seconds.");
      }
      std::vector<ServiceRef*> refs{&ref_};
      if (readable(refs, deadline).front()) processEvents();
    }
  }

  [[nodiscard]] std::string name() const override { return name_; }
  [[nodiscard]] int eventDescriptor() const override { return DNSServiceRefSockFD(ref_.get()); }

  void processEvents() override {
    pollfd fd{eventDescriptor(), POLLIN, 0};
    if (::poll(&fd, 1, 0) <= 0) return;
    const DNSServiceErrorType processed = DNSServiceProcessResult(ref_.get());
    const DNSServiceErrorType error = processed != kDNSServiceErr_NoError ? processed : callbackError_;
    if (error == kDNSServiceErr_NameConflict && attempt_ < kMaxAttempts) {
      ++attempt_;
      return start();
    }
    if (error != kDNSServiceErr_NoError) {
      throw ServiceDiscoveryError(Kind::advertiseFailed, "The advertisement as \"" + name_ +
                                                             "\" was withdrawn: " + describe(error) + ".");
    }
  }

 private:
  static constexpr int kMaxAttempts = 99;

  // A name this very daemon already holds is refused at once; one held
  // elsewhere on the network comes back later through onRegister.
  void start() {
    for (;; ++attempt_) {
      name_ = attempt_ == 1 ? baseName_ : baseName_ + " (" + std::to_string(attempt_) + ")";
      confirmed_ = false;
      callbackError_ = kDNSServiceErr_NoError;
      const DNSServiceErrorType error = DNSServiceRegister(
          ref_.out(), 0, kDNSServiceInterfaceIndexAny, name_.c_str(), type_.c_str(), domain_.c_str(), nullptr,
          htons(port_), static_cast<std::uint16_t>(txt_.size()), txt_.data(), onRegister, this);
      if (error == kDNSServiceErr_NoError) return;
      if (error == kDNSServiceErr_NameConflict && attempt_ < kMaxAttempts) continue;
      if (error == kDNSServiceErr_Unknown || error == kDNSServiceErr_NotInitialized) throw unavailable(error);
      throw ServiceDiscoveryError(Kind::advertiseFailed,
                                  "Advertising as \"" + name_ + "\" was refused: " + describe(error) + ".");
    }
  }

  static void DNSSD_API onRegister(DNSServiceRef, DNSServiceFlags, DNSServiceErrorType error,
                                   const char* name, const char*, const char*, void* context) {
    auto& self = *static_cast<DNSServiceRegistration*>(context);
    self.callbackError_ = error;
    if (error != kDNSServiceErr_NoError) return;
    self.confirmed_ = true;
    if (name != nullptr) self.name_ = name;
  }

  std::string baseName_;
  std::string type_;
  std::string domain_;
  std::uint16_t port_;
  std::vector<std::uint8_t> txt_;
  ServiceRef ref_;
  int attempt_ = 1;
  std::string name_;
  bool confirmed_ = false;
  DNSServiceErrorType callbackError_ = kDNSServiceErr_NoError;
};

}  // namespace

DNSServiceDiscovery::DNSServiceDiscovery(std::string serviceType, std::string domain)
    : serviceType_(std::move(serviceType)), domain_(std::move(domain)) {
  silenceCompatibilityNotice();
}

std::vector<RecoveryDiscoveryCandidate> DNSServiceDiscovery::browse(std::chrono::milliseconds timeout) {
  return BrowseSession(serviceType_, domain_, Clock::now() + timeout).run();
}

std::unique_ptr<ServiceRegistration> DNSServiceDiscovery::advertise(std::string_view name, std::uint16_t port,
                                                                    const TXTRecord& txtRecord) {
  auto registration = std::make_unique<DNSServiceRegistration>(name, serviceType_, domain_, port, txtRecord);
  registration->awaitConfirmation(Clock::now() + confirmationTimeout);
  return registration;
}

TXTRecord decodeTXTRecord(std::span<const std::uint8_t> bytes) {
  silenceCompatibilityNotice();
  TXTRecord record;
  const auto length = static_cast<std::uint16_t>(std::min<std::size_t>(bytes.size(), UINT16_MAX));
  if (length == 0) return record;
  const std::uint16_t count = TXTRecordGetCount(length, bytes.data());
  for (std::uint16_t index = 0; index < count; ++index) {
    std::array<char, 256> key{};
    std::uint8_t valueLength = 0;
    const void* value = nullptr;
    if (TXTRecordGetItemAtIndex(length, bytes.data(), index, key.size(), key.data(), &valueLength, &value) !=
        kDNSServiceErr_NoError) {
      break;
    }
    const std::string_view keyBytes(key.data(), ::strnlen(key.data(), key.size()));
    if (keyBytes.empty()) continue;
    const std::string_view valueBytes = value == nullptr
                                            ? std::string_view()
                                            : std::string_view(static_cast<const char*>(value), valueLength);
    record.try_emplace(text::repairedUtf8(keyBytes), text::repairedUtf8(valueBytes));
  }
  return record;
}

std::vector<std::uint8_t> encodeTXTRecord(const TXTRecord& record) {
  silenceCompatibilityNotice();
  TXTRecordRef txt;
  TXTRecordCreate(&txt, 0, nullptr);
  const std::string* refused = nullptr;
  for (const auto& [key, value] : record) {
    const bool fits =
        !key.empty() && key.find('\0') == std::string::npos && key.size() + 1 + value.size() <= 255;
    if (!fits || TXTRecordSetValue(&txt, key.c_str(), static_cast<std::uint8_t>(value.size()),
                                   value.data()) != kDNSServiceErr_NoError) {
      refused = &key;
      break;
    }
  }
  const auto* begin = static_cast<const std::uint8_t*>(TXTRecordGetBytesPtr(&txt));
  std::vector<std::uint8_t> bytes(begin, begin + TXTRecordGetLength(&txt));
  TXTRecordDeallocate(&txt);
  if (refused != nullptr) {
    throw ServiceDiscoveryError(Kind::advertiseFailed,
                                "The TXT record cannot hold the entry \"" + *refused +
                                    R"(": keys must be non-empty without "=", entries at most 255 bytes.)");
  }
  return bytes;
}

}  // namespace harborkeeper
