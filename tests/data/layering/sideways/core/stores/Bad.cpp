#include "core/services/Client.h"
