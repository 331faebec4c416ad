#include "core/recovery/interactive_ssh_unlock_runner.h"
