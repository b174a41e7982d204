#include "core/foundation/Error.h"
