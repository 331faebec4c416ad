#include "core/ipc/helper_protocol.h"

#include <string>

#include <gtest/gtest.h>

#include "core/ipc/frame_codec.h"
#include "core/platform/state_file_test_support.h"

namespace harborkeeper::ipc {
namespace {

using testing_support::outcome;
using Dictionary = plist::Dictionary;

std::string binary(const plist::Value& value) {
  return toString(plist::encode(value, plist::Format::binary));
}

TEST(HelperProtocolTest, MalformedMessagesAreRefusedWithAFixedText) {
  const std::string notPlist = "The frame is not a binary property list.";
  const std::string badRequest = "The message is not a well-formed request.";
  const std::string badArguments = "The arguments do not fit the selector.";
  const std::string unknown = "The selector is not part of the interface.";
  const std::string badReply = "The message is not a well-formed reply.";
  const Dictionary version{{"id", 1}, {"selector", "helperVersionWithReply:"}, {"arguments", plist::Array{}}};
  const auto with = [&](const char* key, plist::Value value) {
    Dictionary copy = version;
    copy.insert_or_assign(key, std::move(value));
    return binary(copy);
  };
  const auto reply = [](plist::Array values) { return toString(encodeReply({1, std::move(values)})); };
  using Decode = void (*)(std::string_view);
  const Decode request = [](std::string_view payload) { validateRequest(decodeRequest(payload)); };
  const Decode text = [](std::string_view payload) { readTextReply(decodeReply(payload).reply); };
  const Decode data = [](std::string_view payload) { readOptionalDataReply(decodeReply(payload).reply); };
  const Decode action = [](std::string_view payload) { readActionReply(decodeReply(payload).reply); };
  const std::tuple<const char*, Decode, std::string, std::string> cases[] = {
      {"xml", request, toString(plist::encode(version, plist::Format::xml)), notPlist},
      {"corrupt binary", request, "bplist00\x01\x02", notPlist},
      {"array root", request, binary(plist::Array{version}), badRequest},
      {"no id", request, binary(Dictionary{{"selector", "s"}, {"arguments", plist::Array{}}}), badRequest},
      {"id as string", request, with("id", "1"), badRequest},
      {"selector as integer", request, with("selector", 3), badRequest},
      {"arguments as string", request, with("arguments", "a"), badRequest},
      {"argument of no argument type", request, with("arguments", plist::Array{true}), badRequest},
      {"extra key", request, with("extra", 1), ""},
      {"extra argument", request, with("arguments", plist::Array{"a"}), badArguments},
      {"selector of another case", request, with("selector", "HelperVersionWithReply:"), unknown},
      {"reply without id", text, binary(Dictionary{{"reply", plist::Array{"1.3"}}}), badReply},
      {"reply as string", text, binary(Dictionary{{"id", 1}, {"reply", "1.3"}}), badReply},
      {"text reply empty", text, reply({}), badReply},
      {"text reply twice", text, reply({"1.3", "1.4"}), badReply},
      {"data reply absent", data, reply({}), ""},
      {"data reply as text", data, reply({"d"}), badReply},
      {"data reply twice", data, reply({toBytes("d"), toBytes("d")}), badReply},
      {"action reply swapped", action, reply({"done", true}), badReply},
      {"action reply without message", action, reply({false}), badReply},
  };
  for (const auto& [name, decode, payload, expected] : cases) {
    SCOPED_TRACE(name);
    EXPECT_EQ(outcome<ProtocolError>([&decode = decode, &payload = payload] { decode(payload); }), expected);
  }
}

}  // namespace
}  // namespace harborkeeper::ipc
