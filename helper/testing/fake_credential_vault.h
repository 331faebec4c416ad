#pragma once

// An in-memory vault for tests: one item at most, every call recorded, and a
// status to fail each operation with. Test code only.

#include <optional>
#include <string>
#include <vector>

#include "helper/credential_vault.h"

namespace harborkeeper::testing_support {

struct FakeVault final : CredentialVault {
  OSStatus resolve() noexcept override {
    calls.emplace_back("resolve");
    return resolveStatus;
  }
  OSStatus deleteItems(std::string_view service) noexcept override {
    calls.push_back("delete " + std::string(service));
    if (deleteStatus != 0) return deleteStatus;
    const bool had = item.has_value();
    item.reset();
    return had ? KeychainStatus::success : KeychainStatus::itemNotFound;
  }
  OSStatus addItem(const CredentialItem& added) noexcept override {
    calls.push_back("add " + added.service);
    if (addStatus != 0) return addStatus;
    if (item) return -25299;  // a duplicate: the store must have deleted first
    item = added;
    return KeychainStatus::success;
  }
  OSStatus copyItem(std::string_view, std::optional<CredentialItem>& copied) noexcept override {
    calls.emplace_back("copy");
    if (copyStatus != 0) return copyStatus;
    copied = item;
    return item ? KeychainStatus::success : KeychainStatus::itemNotFound;
  }

  std::optional<CredentialItem> item;
  OSStatus resolveStatus = 0, deleteStatus = 0, addStatus = 0, copyStatus = 0;
  std::vector<std::string> calls;
};

}  // namespace harborkeeper::testing_support
