#include "core/recovery/companion_recovery_service.h"
