#include "core/definitions/X.h"
#include "Local.h"
#include <vector>
