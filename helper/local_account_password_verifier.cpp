#include "helper/local_account_password_verifier.h"

#include <security/pam_appl.h>
#include <string.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <thread>
#include <utility>

#include "core/foundation/text.h"

namespace harborkeeper {
namespace {

// Frees every answer of a failed conversation; answers that carry the
// password are wiped first.
void discardResponses(pam_response* responses, int count) noexcept {
  for (int index = 0; index < count; ++index) {
    char* answer = responses[index].resp;
    if (answer != nullptr) ::explicit_bzero(answer, std::strlen(answer));
    std::free(answer);
  }
  std::free(responses);
}

char* copyForPam(std::string_view password) noexcept {
  auto* copy = static_cast<char*>(std::malloc(password.size() + 1));
  if (copy == nullptr) return nullptr;
  std::memcpy(copy, password.data(), password.size());
  copy[password.size()] = '\0';
  return copy;
}

// Answers every prompt with the password (PAM owns and wipes the copies it
// receives); informational messages get no answer; anything else ends the
// conversation.
int converse(int count, const pam_message** messages, pam_response** responses, void* data) noexcept {
  if (count <= 0 || count > PAM_MAX_NUM_MSG) return PAM_CONV_ERR;
  const auto password = *static_cast<const std::string_view*>(data);
  auto* answers =
      static_cast<pam_response*>(std::calloc(static_cast<std::size_t>(count), sizeof(pam_response)));
  if (answers == nullptr) return PAM_BUF_ERR;
  for (int index = 0; index < count; ++index) {
    switch (messages[index]->msg_style) {
      case PAM_PROMPT_ECHO_OFF:
      case PAM_PROMPT_ECHO_ON:
        answers[index].resp = copyForPam(password);
        if (answers[index].resp != nullptr) break;
        discardResponses(answers, count);
        return PAM_BUF_ERR;
      case PAM_ERROR_MSG:
      case PAM_TEXT_INFO:
        break;
      default:
        discardResponses(answers, count);
        return PAM_CONV_ERR;
    }
  }
  *responses = answers;
  return PAM_SUCCESS;
}

bool isRegularFile(const std::string& path) noexcept {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

// PAM hands strings on as C strings, so a NUL would silently cut the name or
// the password short and check something other than what was given.
bool carriesNul(std::string_view text) noexcept { return text.find('\0') != std::string_view::npos; }

}  // namespace

PamAccountDirectory::PamAccountDirectory(std::string serviceDirectory,
                                         std::chrono::milliseconds minimumFailureTime)
    : serviceDirectory_(std::move(serviceDirectory)), minimumFailureTime_(minimumFailureTime) {}

bool PamAccountDirectory::verifyPassword(const std::string& username,
                                         std::string_view password) const noexcept {
  // An empty name would make the modules prompt for one, and the answer is the password.
  if (username.empty() || carriesNul(username) || carriesNul(password)) return false;
  const auto started = std::chrono::steady_clock::now();
  const bool verified = authenticate(username, password);
  if (!verified) std::this_thread::sleep_until(started + minimumFailureTime_);
  return verified;
}

bool PamAccountDirectory::authenticate(const std::string& username,
                                       std::string_view password) const noexcept {
  try {
    const std::string service(serviceName);
    // Without the file PAM would fall back to the "other" stack; never check against that.
    if (!isRegularFile(serviceDirectory_ + "/" + service)) return false;
    const pam_conv conversation{converse, &password};
    pam_handle_t* handle = nullptr;
    int status = ::pam_start_confdir(service.c_str(), username.c_str(), &conversation,
                                     serviceDirectory_.c_str(), &handle);
    if (status != PAM_SUCCESS) {
      if (handle != nullptr) ::pam_end(handle, status);
      return false;
    }
    // The failure delay pam_unix asks for is kept: this must not be a fast oracle.
    status = ::pam_authenticate(handle, PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK);
    if (status == PAM_SUCCESS) status = ::pam_acct_mgmt(handle, PAM_SILENT);
    ::pam_end(handle, status);
    return status == PAM_SUCCESS;
  } catch (...) {
    return false;
  }
}

LocalAccountPasswordVerifier::LocalAccountPasswordVerifier(std::shared_ptr<const AccountDirectory> directory)
    : directory_(std::move(directory)) {}

ipc::HelperCommandResult LocalAccountPasswordVerifier::verify(std::string_view username,
                                                              std::string_view password) const noexcept {
  try {
    const std::string account = text::trimmed(username);
    if (account.empty()) return {false, "Choose a FileVault user."};
    if (password.empty()) return {false, "Enter the selected user's password."};
    if (directory_->verifyPassword(account, password)) return {true, "Password verified."};
    return {false, "The selected user's password was rejected."};
  } catch (...) {
    // Only running out of memory gets here; that verifies nothing.
    return {false, "The selected user's password was rejected."};
  }
}

}  // namespace harborkeeper
