#include "core/ipc/helper_protocol.h"

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/ipc/frame_codec.h"
#include "core/platform/state_file_test_support.h"

namespace harborkeeper::ipc {
namespace {

using testing_support::outcome;
using Dictionary = plist::Dictionary;

const Date kDate{std::chrono::microseconds(1'700'000'000'123'456)};

std::string binary(const plist::Value& value) {
  return toString(plist::encode(value, plist::Format::binary));
}

TEST(HelperProtocolTest, RequestsAndRepliesRoundTripAsBinaryPropertyLists) {
  const Request request{
      -7, "armNextRestartWithUsername:password:withReply:", {"ann", kDate, toBytes("\x00\xff")}};
  const Bytes encoded = encodeRequest(request);
  EXPECT_TRUE(asStringView(encoded).starts_with("bplist00"));
  EXPECT_EQ(decodeRequest(asStringView(encoded)), request);
  const Reply reply{1LL << 40, actionReply({true, "Armed."})};
  EXPECT_EQ(decodeReply(asStringView(encodeReply(reply))), reply);
  EXPECT_EQ(readActionReply(reply.reply), (HelperCommandResult{true, "Armed."}));
  EXPECT_EQ(readOptionalDataReply(optionalDataReply(std::nullopt)), std::nullopt);
  EXPECT_EQ(readOptionalDataReply(optionalDataReply(toBytes("d"))), toBytes("d"));
  EXPECT_EQ(readTextReply(textReply("1.3")), "1.3");
}

TEST(HelperProtocolTest, MalformedMessagesAreRefusedWithAFixedText) {
  const std::string notPlist = "The frame is not a binary property list.";
  const std::string badRequest = "The message is not a well-formed request.";
  const std::string badReply = "The message is not a well-formed reply.";
  const Dictionary request{{"id", 1}, {"selector", "helperVersionWithReply:"}, {"arguments", plist::Array{}}};
  const auto without = [&](const char* key) {
    Dictionary copy = request;
    copy.erase(key);
    return copy;
  };
  const auto with = [&](const char* key, plist::Value value) {
    Dictionary copy = request;
    copy.insert_or_assign(key, std::move(value));
    return copy;
  };
  const std::tuple<const char*, std::string, std::string> requests[] = {
      {"xml", toString(plist::encode(request, plist::Format::xml)), notPlist},
      {"corrupt binary", "bplist00\x01\x02", notPlist},
      {"array root", binary(plist::Array{request}), badRequest},
      {"no id", binary(without("id")), badRequest},
      {"id as string", binary(with("id", "1")), badRequest},
      {"id as bool", binary(with("id", true)), badRequest},
      {"no selector", binary(without("selector")), badRequest},
      {"selector as integer", binary(with("selector", 3)), badRequest},
      {"no arguments", binary(without("arguments")), badRequest},
      {"arguments as string", binary(with("arguments", "a")), badRequest},
      {"argument of no argument type", binary(with("arguments", plist::Array{true})), badRequest},
  };
  for (const auto& [name, payload, expected] : requests) {
    SCOPED_TRACE(name);
    EXPECT_EQ(outcome<ProtocolError>([&, &payload = payload] { decodeRequest(payload); }), expected);
  }
  EXPECT_EQ(outcome<ProtocolError>([&] { decodeRequest(binary(with("extra", 1))); }), "");

  const std::pair<const char*, Dictionary> replies[] = {
      {"no id", {{"reply", plist::Array{}}}},
      {"no reply", {{"id", 1}}},
      {"reply as string", {{"id", 1}, {"reply", "1.3"}}},
  };
  for (const auto& [name, reply] : replies) {
    SCOPED_TRACE(name);
    EXPECT_EQ(outcome<ProtocolError>([&, &reply = reply] { decodeReply(binary(reply)); }), badReply);
  }
}

// Runs over the whole interface, so selectors added later are covered too.
TEST(HelperProtocolTest, RequestsMustMatchTheirInterfaceEntryExactly) {
  const std::string badArguments = "The arguments do not fit the selector.";
  // One value per ArgumentType, in its order: shifting by one gives a value of another type.
  const plist::Value samples[] = {"text", kDate, toBytes("d")};
  const auto sample = [&](ArgumentType type, int shift) { return samples[(int(type) + shift) % 3]; };
  for (const InterfaceEntry& entry : helperInterface()) {
    SCOPED_TRACE(entry.selector);
    Request request{1, std::string(entry.selector), {}};
    for (const ArgumentType type : entry.arguments) request.arguments.push_back(sample(type, 0));
    EXPECT_EQ(&validateRequest(request), &entry);
    for (std::size_t i = 0; i < request.arguments.size(); ++i) {
      Request wrongType = request;
      wrongType.arguments[i] = sample(entry.arguments[i], 1);
      EXPECT_EQ(outcome<ProtocolError>([&] { validateRequest(wrongType); }), badArguments);
      Request missing = request;
      missing.arguments.erase(missing.arguments.begin() + static_cast<std::ptrdiff_t>(i));
      EXPECT_EQ(outcome<ProtocolError>([&] { validateRequest(missing); }), badArguments);
    }
    request.arguments.emplace_back("extra");
    EXPECT_EQ(outcome<ProtocolError>([&] { validateRequest(request); }), badArguments);
  }
  for (const char* selector : {"HelperVersionWithReply:", "helperVersionWithReply", ""}) {
    const Request unknown{1, selector, {}};
    EXPECT_EQ(outcome<ProtocolError>([&] { validateRequest(unknown); }),
              "The selector is not part of the interface.");
  }
  EXPECT_EQ(helperInterface().front().selector, selectors::helperVersion);
}

TEST(HelperProtocolTest, ReplyShapesAreCheckedExactly) {
  const Bytes data = toBytes("d");
  const std::tuple<ReplyType, plist::Array, bool> cases[] = {
      {ReplyType::text, {"1.3"}, true},          {ReplyType::text, {}, false},
      {ReplyType::text, {"1.3", "1.4"}, false},  {ReplyType::text, {data}, false},
      {ReplyType::optionalData, {}, true},       {ReplyType::optionalData, {data}, true},
      {ReplyType::optionalData, {"d"}, false},   {ReplyType::optionalData, {data, data}, false},
      {ReplyType::action, {true, "done"}, true}, {ReplyType::action, {"done", true}, false},
      {ReplyType::action, {1, "done"}, false},   {ReplyType::action, {true}, false},
  };
  for (const auto& [type, reply, matches] : cases) {
    SCOPED_TRACE(testing::Message() << int(type) << " of size " << reply.size());
    EXPECT_EQ(replyMatches(type, reply), matches);
  }
  EXPECT_EQ(outcome<ProtocolError>([] { readTextReply({}); }), "The message is not a well-formed reply.");
  EXPECT_EQ(outcome<ProtocolError>([&] { readOptionalDataReply({"d"}); }),
            "The message is not a well-formed reply.");
  EXPECT_EQ(outcome<ProtocolError>([] { readActionReply({false}); }),
            "The message is not a well-formed reply.");
}

}  // namespace
}  // namespace harborkeeper::ipc
