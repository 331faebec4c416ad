#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/cli_output.h"
#include "core/approval/phone_approval_records.h"

// What the phone approval commands print, and the wait for a decision, as
// functions of the middleware's records. Every text from the middleware goes
// through printable(): the service is not trusted to drive the terminal.
namespace harborkeeper::cli {

// One approval request: "Request", "Status", "Machine" ("NAME (HOST)"),
// "Profile", "Created", "Expires", one "Label: value" per line. With `json`,
// the record with its keys.
Report approvalRecordReport(const PhoneApprovalMiddlewareRecord& record, bool json);

// `approval devices`: "ID<tab>NAME<tab>registered AT[<tab>expires AT]" per
// device; "No paired devices." as a notice when none. With `json`,
// {"devices": [...]}.
Report pairedDevicesReport(const std::vector<PhoneApprovalPairedDeviceRecord>& devices, bool json);

// `text` as a QR code drawn with Unicode half blocks, two modules per
// character cell, dark on an explicitly light background (ANSI colours) with
// a quiet zone of four modules, so it scans whatever the terminal's theme.
// Throws CommandError when the text is too long for a QR code.
std::string qrCodeText(std::string_view text);

// Polls a request until it is no longer pending or `timeout` passes.
struct ApprovalWait {
  std::function<PhoneApprovalMiddlewareRecord()> read;
  std::function<std::chrono::steady_clock::time_point()> now;
  std::function<void(std::chrono::steady_clock::duration)> sleep;
  // Called before each pause with the time waited so far; may be empty.
  std::function<void(std::chrono::seconds waited)> progress;
  std::chrono::seconds timeout{600};
  std::chrono::seconds interval{2};
};

struct ApprovalWaitResult {
  PhoneApprovalMiddlewareRecord last;  // the last record read
  bool timedOut = false;               // still pending when the time ran out
};

// Reads at once, then every `interval` (the last pause cut to the deadline).
// The read's exceptions pass through: nothing is retried.
ApprovalWaitResult waitForDecision(const ApprovalWait& wait);

// Succeeds, "Request ID was approved.", only when approved; otherwise fails
// with "Request ID was denied.", "... expired before a device decided.",
// "... was already consumed." or, on time-out, "Request ID is still pending
// after N s; gave up waiting."
Report approvalWaitReport(const ApprovalWaitResult& result, std::chrono::seconds timeout);

}  // namespace harborkeeper::cli
