#pragma once

#include <string>
#include <string_view>

namespace harborkeeper::HelperConstants {

inline constexpr std::string_view appBundleIdentifier = "com.lumaq.Harborkeeper";
inline constexpr std::string_view developerTeamIdentifier = "K4T8QW17ZD";
inline constexpr std::string_view machServiceName = "com.lumaq.Harborkeeper.Helper";
inline constexpr std::string_view launchDaemonLabel = machServiceName;
inline constexpr std::string_view launchDaemonPlistName = "com.lumaq.Harborkeeper.Helper.plist";
inline constexpr std::string_view helperVersionMarker = "HarborkeeperHelperVersion:1.3";

// The marker without its prefix ("1.3"), derived once so the two never disagree.
const std::string& helperVersion();

// The state directory on the original platform; kept unchanged for the app side.
inline constexpr std::string_view applicationSupportPath = "/Library/Application Support/Harborkeeper";
// Where the Linux daemon keeps the same files.
inline constexpr std::string_view linuxStateDirectoryPath = "/var/lib/harborkeeper";
inline constexpr std::string_view protectionStatusFileName = "ProtectionStatus.plist";
inline constexpr std::string_view dockerHeartbeatConfigurationFileName = "DockerHeartbeat.plist";
inline constexpr std::string_view persistentCredentialService = "com.lumaq.Harborkeeper.PersistentCredential";

}  // namespace harborkeeper::HelperConstants
