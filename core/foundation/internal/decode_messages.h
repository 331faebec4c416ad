#pragma once

// The user-facing texts every decoder reports, worded alike whatever the format.
namespace harborkeeper::internal {

inline constexpr char kCorruptedDataMessage[] =
    "The data couldn’t be read because it isn’t in the correct format.";
inline constexpr char kMissingDataMessage[] = "The data couldn’t be read because it is missing.";

}  // namespace harborkeeper::internal
