#include "cli/link_commands.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "core/foundation/text.h"
#include "core/platform/internal/retry.h"
#include "core/platform/state_file_security.h"
#include "core/platform/unique_fd.h"

namespace harborkeeper::cli {

namespace {

constexpr std::size_t kMaximumInputSize = std::size_t{1} << 20;

void addLine(std::string& lines, std::string_view label, std::string_view value) {
  lines.append(label).append(": ").append(printable(value)).append("\n");
}

[[noreturn]] void failRead(const std::string& path) {
  throw CommandError(FileSystemError(errno, "Could not read", path == "-" ? "standard input" : path).what());
}

RecoveryAgentLinkPayload parsePayload(const std::string& text) {
  try {
    return RecoveryAgentLinkPayload::parse(text);
  } catch (const RecoveryAgentLinkPayloadError& error) {
    throw CommandError(error.what());
  }
}

ExitStatus parseLink(CliContext& context, const std::string& text, bool json) {
  const std::string link = text == "-" ? readInputText(text) : text;
  return context.print(linkParseReport(parsePayload(link), json));
}

ExitStatus makeLink(CliContext& context, const std::string& file) {
  const RecoveryAgentLinkPayload payload = parsePayload(readInputText(file));
  try {
    context.out() << payload.setupLink() << '\n';
  } catch (const RecoveryAgentLinkPayloadError& error) {
    throw CommandError(error.what());
  }
  return ExitStatus::success;
}

}  // namespace

Report linkParseReport(const RecoveryAgentLinkPayload& payload, bool json) {
  if (json) return {json::serializePretty(payload.toJson()) + '\n', ""};
  std::string lines;
  addLine(lines, "Name", payload.displayName);
  addLine(lines, "Type", rawValue(payload.agentType));
  for (const std::string& endpoint : payload.setupEndpoints) addLine(lines, "Setup endpoint", endpoint);
  std::string capabilities;
  for (const Capability capability : payload.capabilities) {
    capabilities.append(capabilities.empty() ? "" : ", ").append(rawValue(capability));
  }
  addLine(lines, "Capabilities", capabilities.empty() ? "none" : capabilities);
  addLine(lines, "Expires", date_time::formatInternetDateTime(payload.expiresAt));
  return {lines, ""};
}

std::string readInputText(const std::string& path) {
  UniqueFd opened;
  if (path != "-") {
    opened = UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!opened) failRead(path);
  }
  const int fd = path == "-" ? STDIN_FILENO : opened.get();
  std::string content;
  char buffer[8192];
  for (;;) {
    const ssize_t count = internal::retryOnInterrupt([&] { return ::read(fd, buffer, sizeof buffer); });
    if (count < 0) failRead(path);
    if (count == 0) return content;
    content.append(buffer, static_cast<std::size_t>(count));
    if (content.size() > kMaximumInputSize) {
      errno = EFBIG;
      failRead(path);
    }
  }
}

void registerLinkCommands(CLI::App& app, CliContext& context) {
  CLI::App* group = app.add_subcommand("link", "Check or make the setup link of a local unlocker agent");
  group->require_subcommand(1);
  auto text = std::make_shared<std::string>("-");
  auto file = std::make_shared<std::string>();
  auto json = std::make_shared<bool>(false);

  CLI::App* parse = group->add_subcommand(
      "parse",
      "Check an agent's setup link (or its bare JSON) and show what it offers; exit 1 if it is not valid");
  parse->add_option("TEXT", *text, "The link or JSON; '-' or none: read all of standard input");
  CliContext::addJsonFlag(*parse, *json);
  context.onRun(*parse, [&context, text, json] { return parseLink(context, *text, *json); });

  CLI::App* make = group->add_subcommand(
      "make", "Check a payload (its JSON, as 'link parse --json' prints it) and print its setup link");
  make->add_option("FILE", *file, "The payload's JSON file; '-': standard input")->required();
  context.onRun(*make, [&context, file] { return makeLink(context, *file); });
}

}  // namespace harborkeeper::cli
