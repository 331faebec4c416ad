#include "core/recovery/recovery_profile_store.h"
