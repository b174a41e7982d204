#include "core/execution/RunLog.h"
#include "cli/Commands.h"
