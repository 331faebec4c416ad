#include "core/protection/helper_constants.h"

#include "core/foundation/text.h"

namespace harborkeeper::HelperConstants {

const std::string& helperVersion() {
  static const std::string version =
      text::replacingOccurrences(helperVersionMarker, "HarborkeeperHelperVersion:", "");
  return version;
}

}  // namespace harborkeeper::HelperConstants
