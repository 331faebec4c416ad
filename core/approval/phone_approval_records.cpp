#include "core/approval/phone_approval_records.h"

#include <algorithm>
#include <array>

#include "core/approval/internal/phone_approval_date_coding.h"
#include "core/foundation/uuid.h"

namespace harborkeeper {

namespace {

using json::Json;

constexpr std::array kStatusCases{
    PhoneApprovalMiddlewareStatus::pending, PhoneApprovalMiddlewareStatus::approved,
    PhoneApprovalMiddlewareStatus::denied,  PhoneApprovalMiddlewareStatus::consumed,
    PhoneApprovalMiddlewareStatus::expired,
};
constexpr std::array<std::string_view, 5> kStatusRaw{"pending", "approved", "denied", "consumed", "expired"};
constexpr std::array kDecisionCases{PhoneApprovalDeviceDecision::approved,
                                    PhoneApprovalDeviceDecision::denied};
constexpr std::array<std::string_view, 2> kDecisionRaw{"approved", "denied"};

// Enumerations count from zero, so a case's value is its position.
template <typename Enumeration, std::size_t N>
std::string_view rawOf(Enumeration value, const std::array<std::string_view, N>& raw) {
  const auto index = static_cast<std::size_t>(value);
  return index < N ? raw[index] : std::string_view();
}

template <typename Enumeration, std::size_t N>
std::optional<Enumeration> caseOf(std::string_view text, const std::array<Enumeration, N>& cases,
                                  const std::array<std::string_view, N>& raw) {
  for (std::size_t index = 0; index < N; ++index) {
    if (raw[index] == text) return cases[index];
  }
  return std::nullopt;
}

// Far beyond any real time to live; keeps the sum inside Date's range.
Date addClamped(Date date, std::chrono::seconds interval) {
  constexpr auto kLimit = std::chrono::duration_cast<std::chrono::seconds>(Date::duration::max()) / 2;
  const auto clamped = std::clamp(interval, -kLimit, kLimit);
  const auto step = std::chrono::duration_cast<Date::duration>(clamped);
  if (step > Date::duration::zero() && date > Date::max() - step) return Date::max();
  if (step < Date::duration::zero() && date < Date::min() - step) return Date::min();
  return date + step;
}

}  // namespace

std::string_view rawValue(PhoneApprovalMiddlewareStatus value) { return rawOf(value, kStatusRaw); }
std::string_view rawValue(PhoneApprovalDeviceDecision value) { return rawOf(value, kDecisionRaw); }

template <>
std::span<const PhoneApprovalMiddlewareStatus> allCases<PhoneApprovalMiddlewareStatus>() {
  return kStatusCases;
}
template <>
std::span<const PhoneApprovalDeviceDecision> allCases<PhoneApprovalDeviceDecision>() {
  return kDecisionCases;
}
template <>
std::optional<PhoneApprovalMiddlewareStatus> fromRawValue<PhoneApprovalMiddlewareStatus>(
    std::string_view raw) {
  return caseOf(raw, kStatusCases, kStatusRaw);
}
template <>
std::optional<PhoneApprovalDeviceDecision> fromRawValue<PhoneApprovalDeviceDecision>(std::string_view raw) {
  return caseOf(raw, kDecisionCases, kDecisionRaw);
}

PhoneApprovalRequest PhoneApprovalRequest::make(const RecoveryProfile& profile, Date requestedAt,
                                                std::chrono::seconds timeToLive) {
  return PhoneApprovalRequest{
      .id = uuid::makeV4(),
      .profileID = profile.id,
      .macName = profile.macName,
      .localHostname = profile.localHostname,
      .requestedAt = requestedAt,
      .expiresAt = addClamped(requestedAt, timeToLive),
  };
}

Json encodePhoneApproval(const PhoneApprovalRequest& value) {
  return {
      {"id", value.id},
      {"profileID", value.profileID},
      {"macName", value.macName},
      {"localHostname", value.localHostname},
      {"requestedAt", internal::formatPreciseDate(value.requestedAt)},
      {"expiresAt", internal::formatPreciseDate(value.expiresAt)},
  };
}

Json encodePhoneApproval(const PhoneApprovalMiddlewareRecord& value) {
  return {
      {"requestId", value.requestId}, {"listenerId", value.listenerId},       {"profileId", value.profileId},
      {"macName", value.macName},     {"localHostname", value.localHostname}, {"createdAt", value.createdAt},
      {"expiresAt", value.expiresAt}, {"status", rawValue(value.status)},
  };
}

Json encodePhoneApproval(const PhoneApprovalDevicePublicKeyJWK& value) {
  return {{"kty", value.kty}, {"crv", value.crv}, {"x", value.x}, {"y", value.y}};
}

Json encodePhoneApproval(const PhoneApprovalPairedDeviceRecord& value) {
  Json object = {
      {"deviceId", value.deviceId},
      {"listenerId", value.listenerId},
      {"displayName", value.displayName},
      {"registeredAt", value.registeredAt},
  };
  if (value.expiresAt) object["expiresAt"] = *value.expiresAt;
  return object;
}

Json encodePhoneApproval(const PhoneApprovalPairedDeviceListRecord& value) {
  Json devices = Json::array();
  for (const auto& device : value.devices) devices.push_back(encodePhoneApproval(device));
  return {{"devices", std::move(devices)}};
}

Json encodePhoneApproval(const PhoneApprovalPairedDeviceRevocationRecord& value) {
  return {{"deviceId", value.deviceId}, {"revoked", value.revoked}};
}

Json encodePhoneApproval(const PhoneApprovalTestNotificationRecord& value) {
  return {
      {"testId", value.testId},
      {"listenerId", value.listenerId},
      {"queued", value.queued},
      {"createdAt", value.createdAt},
  };
}

Json encodePhoneApproval(const PhoneApprovalListenerRegistrationRecord& value) {
  return {
      {"listenerId", value.listenerId},
      {"listenerSecret", value.listenerSecret},
      {"registeredAt", value.registeredAt},
      {"secretShownOnce", value.secretShownOnce},
  };
}

Json encodePhoneApproval(const PhoneApprovalPairingTokenRecord& value) {
  return {
      {"listenerId", value.listenerId},           {"pairingToken", value.pairingToken},
      {"displayName", value.displayName},         {"expiresAt", value.expiresAt},
      {"secretShownOnce", value.secretShownOnce},
  };
}

Json encodePhoneApproval(const RegisterListenerBody& value) { return {{"displayName", value.displayName}}; }

Json encodePhoneApproval(const UpdatePairedDeviceBody& value) { return {{"displayName", value.displayName}}; }

Json encodePhoneApproval(const CreatePhonePairingTokenBody& value) {
  return {{"displayName", value.displayName}, {"expiresInSeconds", value.expiresInSeconds}};
}

Json encodePhoneApproval(const RegisterPairedDeviceBody& value) {
  return {
      {"displayName", value.displayName},
      {"apnsToken", value.apnsToken},
      {"devicePublicKeyJwk", encodePhoneApproval(value.devicePublicKeyJwk)},
  };
}

Json encodePhoneApproval(const CreateApprovalRequestBody& value) {
  return {
      {"profileId", value.profileId},
      {"macName", value.macName},
      {"localHostname", value.localHostname},
      {"expiresInSeconds", value.expiresInSeconds},
  };
}

}  // namespace harborkeeper
