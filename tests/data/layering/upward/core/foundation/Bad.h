#include "core/execution/RunLog.h"
