#include "cli/approval_output.h"

#include <qrencode.h>

#include <algorithm>
#include <memory>

#include "cli/cli_context.h"
#include "core/foundation/json.h"

namespace harborkeeper::cli {

namespace {

using namespace std::chrono_literals;

void addLine(std::string& lines, std::string_view label, std::string_view value) {
  lines.append(label).append(": ").append(printable(value)).append("\n");
}

std::string prettyJson(const json::Json& value) { return json::serializePretty(value) + '\n'; }

// The light background is set explicitly: a terminal's default may be dark.
constexpr std::string_view kDarkOnLight = "\x1B[30;107m";
constexpr std::string_view kResetColours = "\x1B[0m";
constexpr int kQuietZone = 4;

struct QRcodeDeleter {
  void operator()(QRcode* code) const noexcept { QRcode_free(code); }
};

}  // namespace

Report approvalRecordReport(const PhoneApprovalMiddlewareRecord& record, bool json) {
  if (json) return {prettyJson(encodePhoneApproval(record)), {}};
  std::string lines;
  addLine(lines, "Request", record.requestId);
  addLine(lines, "Status", rawValue(record.status));
  addLine(lines, "Machine", record.macName + " (" + record.localHostname + ")");
  addLine(lines, "Profile", record.profileId);
  addLine(lines, "Created", record.createdAt);
  addLine(lines, "Expires", record.expiresAt);
  return {lines, {}};
}

Report pairedDevicesReport(const std::vector<PhoneApprovalPairedDeviceRecord>& devices, bool json) {
  if (json) return {prettyJson(encodePhoneApproval(PhoneApprovalPairedDeviceListRecord{devices})), {}};
  if (devices.empty()) return {{}, "No paired devices."};
  std::string lines;
  for (const PhoneApprovalPairedDeviceRecord& device : devices) {
    lines.append(printable(device.deviceId)).append("\t").append(printable(device.displayName));
    lines.append("\tregistered ").append(printable(device.registeredAt));
    if (device.expiresAt) lines.append("\texpires ").append(printable(*device.expiresAt));
    lines.append("\n");
  }
  return {lines, {}};
}

std::string qrCodeText(std::string_view text) {
  const std::unique_ptr<QRcode, QRcodeDeleter> code(QRcode_encodeData(
      static_cast<int>(text.size()), reinterpret_cast<const unsigned char*>(text.data()), 0, QR_ECLEVEL_M));
  if (!code) throw CommandError("The text is too long for a QR code.");
  const int width = code->width;
  const int size = width + 2 * kQuietZone;
  const auto dark = [&](int x, int y) {
    x -= kQuietZone;
    y -= kQuietZone;
    return x >= 0 && y >= 0 && x < width && y < width && (code->data[y * width + x] & 1) != 0;
  };
  std::string drawn;
  for (int y = 0; y < size; y += 2) {
    drawn.append(kDarkOnLight);
    for (int x = 0; x < size; ++x) {
      const bool top = dark(x, y);
      const bool bottom = dark(x, y + 1);
      drawn.append(top && bottom ? "\u2588" : top ? "\u2580" : bottom ? "\u2584" : " ");
    }
    drawn.append(kResetColours).append("\n");
  }
  return drawn;
}

ApprovalWaitResult waitForDecision(const ApprovalWait& wait) {
  const auto start = wait.now();
  const auto deadline = start + wait.timeout;
  for (;;) {
    ApprovalWaitResult result{wait.read(), false};
    if (result.last.status != PhoneApprovalMiddlewareStatus::pending) return result;
    const auto now = wait.now();
    if (now >= deadline) {
      result.timedOut = true;
      return result;
    }
    if (wait.progress) wait.progress(std::chrono::duration_cast<std::chrono::seconds>(now - start));
    wait.sleep(std::min<std::chrono::steady_clock::duration>(wait.interval, deadline - now));
  }
}

Report approvalWaitReport(const ApprovalWaitResult& result, std::chrono::seconds timeout) {
  const std::string request = "Request " + printable(result.last.requestId);
  if (result.timedOut) {
    return {{},
            request + " is still pending after " + std::to_string(timeout.count()) + " s; gave up waiting.",
            ExitStatus::failure};
  }
  switch (result.last.status) {
    case PhoneApprovalMiddlewareStatus::approved:
      return {request + " was approved.\n", {}};
    case PhoneApprovalMiddlewareStatus::denied:
      return {{}, request + " was denied.", ExitStatus::failure};
    case PhoneApprovalMiddlewareStatus::expired:
      return {{}, request + " expired before a device decided.", ExitStatus::failure};
    case PhoneApprovalMiddlewareStatus::consumed:
      return {{}, request + " was already consumed.", ExitStatus::failure};
    case PhoneApprovalMiddlewareStatus::pending:
      break;
  }
  return {{}, request + " is still pending.", ExitStatus::failure};
}

}  // namespace harborkeeper::cli
