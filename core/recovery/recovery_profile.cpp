#include "core/recovery/recovery_profile.h"
