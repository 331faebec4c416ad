#include "core/ipc/helper_protocol.h"

#include <algorithm>
#include <array>
#include <utility>

#include "core/ipc/frame_codec.h"

namespace harborkeeper::ipc {

namespace {

using Kind = ProtocolError::Kind;
using A = ArgumentType;

template <ArgumentType... types>
constexpr std::array<ArgumentType, sizeof...(types)> kArguments{types...};

// One line per selector, in the protocol's order; arguments read e.g. kArguments<A::text, A::text>.
constexpr InterfaceEntry kInterface[] = {
    {selectors::helperVersion, kArguments<>, ReplyType::text},
    {selectors::fileVaultUsersData, kArguments<>, ReplyType::optionalData},
    {selectors::protectionStatusData, kArguments<>, ReplyType::optionalData},
    {selectors::armNextRestart, kArguments<A::text, A::text>, ReplyType::action},
    {selectors::enablePersistentProtection, kArguments<A::text, A::text, A::date>, ReplyType::action},
    {selectors::armPersistentProtection, kArguments<>, ReplyType::action},
    {selectors::disablePersistentProtection, kArguments<>, ReplyType::action},
    {selectors::enableAutomaticPowerRecovery, kArguments<>, ReplyType::action},
    {selectors::configureDockerHeartbeat, kArguments<A::data>, ReplyType::action},
    {selectors::disableDockerHeartbeat, kArguments<>, ReplyType::action},
    {selectors::dockerHeartbeatStatusData, kArguments<>, ReplyType::optionalData},
    {selectors::prepareForUninstall, kArguments<>, ReplyType::action},
};

constexpr std::string_view kBinaryMagic = "bplist00";

ProtocolError notPropertyList() {
  return {Kind::notPropertyList, "The frame is not a binary property list."};
}
ProtocolError badRequest() { return {Kind::badShape, "The message is not a well-formed request."}; }
ProtocolError badReply() { return {Kind::badShape, "The message is not a well-formed reply."}; }
using BadShape = ProtocolError (*)();

// Only binary input reaches the decoder: the XML parser is more code facing a
// peer, and no client of ours sends XML.
plist::Value decodeRoot(std::string_view payload, BadShape badShape) {
  if (!payload.starts_with(kBinaryMagic)) throw notPropertyList();
  plist::Value root;
  try {
    root = plist::decode(payload);
  } catch (const plist::DecodeError&) {
    throw notPropertyList();
  }
  if (!root.is<plist::Dictionary>()) throw badShape();
  return root;
}

// The value at `key` if it holds a T; throws `badShape` otherwise.
template <class T>
const T& take(const plist::Value& root, std::string_view key, BadShape badShape) {
  const auto& dictionary = *root.get<plist::Dictionary>();
  const auto found = dictionary.find(key);
  if (found == dictionary.end() || !found->second.is<T>()) throw badShape();
  return *found->second.get<T>();
}

bool isArgumentValue(const plist::Value& value) {
  return value.is<std::string>() || value.is<Date>() || value.is<Bytes>();
}

bool hasType(const plist::Value& value, ArgumentType type) {
  switch (type) {
    case ArgumentType::text:
      return value.is<std::string>();
    case ArgumentType::date:
      return value.is<Date>();
    case ArgumentType::data:
      return value.is<Bytes>();
  }
  return false;
}

}  // namespace

std::span<const InterfaceEntry> helperInterface() { return kInterface; }

const InterfaceEntry* findInterfaceEntry(std::string_view selector) {
  const auto* const found = std::ranges::find(kInterface, selector, &InterfaceEntry::selector);
  return found == std::end(kInterface) ? nullptr : found;
}

Bytes encodeRequest(const Request& request) {
  return plist::encode(
      plist::Dictionary{{"id", request.id}, {"selector", request.selector}, {"arguments", request.arguments}},
      plist::Format::binary);
}

Bytes encodeReply(const Reply& reply) {
  return plist::encode(plist::Dictionary{{"id", reply.id}, {"reply", reply.reply}}, plist::Format::binary);
}

Request decodeRequest(std::string_view payload) {
  const BadShape badShape = badRequest;
  const plist::Value root = decodeRoot(payload, badShape);
  Request request{take<std::int64_t>(root, "id", badShape), take<std::string>(root, "selector", badShape),
                  take<plist::Array>(root, "arguments", badShape)};
  if (!std::ranges::all_of(request.arguments, isArgumentValue)) throw badShape();
  return request;
}

Reply decodeReply(std::string_view payload) {
  const BadShape badShape = badReply;
  const plist::Value root = decodeRoot(payload, badShape);
  return {take<std::int64_t>(root, "id", badShape), take<plist::Array>(root, "reply", badShape)};
}

const InterfaceEntry& validateRequest(const Request& request) {
  const InterfaceEntry* entry = findInterfaceEntry(request.selector);
  if (entry == nullptr) {
    throw ProtocolError(Kind::unknownSelector, "The selector is not part of the interface.");
  }
  if (!std::ranges::equal(request.arguments, entry->arguments, hasType)) {
    throw ProtocolError(Kind::badArguments, "The arguments do not fit the selector.");
  }
  return *entry;
}

plist::Array textReply(std::string text) { return {std::move(text)}; }

plist::Array optionalDataReply(std::optional<Bytes> data) {
  if (!data) return {};
  return {std::move(*data)};
}

plist::Array actionReply(const HelperCommandResult& result) { return {result.success, result.message}; }

bool replyMatches(ReplyType type, const plist::Array& reply) {
  switch (type) {
    case ReplyType::text:
      return reply.size() == 1 && reply[0].is<std::string>();
    case ReplyType::optionalData:
      return reply.empty() || (reply.size() == 1 && reply[0].is<Bytes>());
    case ReplyType::action:
      return reply.size() == 2 && reply[0].is<bool>() && reply[1].is<std::string>();
  }
  return false;
}

std::string readTextReply(const plist::Array& reply) {
  if (!replyMatches(ReplyType::text, reply)) throw badReply();
  return *reply[0].get<std::string>();
}

std::optional<Bytes> readOptionalDataReply(const plist::Array& reply) {
  if (!replyMatches(ReplyType::optionalData, reply)) throw badReply();
  if (reply.empty()) return std::nullopt;
  return *reply[0].get<Bytes>();
}

HelperCommandResult readActionReply(const plist::Array& reply) {
  if (!replyMatches(ReplyType::action, reply)) throw badReply();
  return {*reply[0].get<bool>(), *reply[1].get<std::string>()};
}

}  // namespace harborkeeper::ipc
