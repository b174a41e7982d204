#include "CronScheduleError.h"

namespace quorlin {

namespace {

const char* message(CronScheduleError::Kind kind) {
    switch (kind) {
    case CronScheduleError::Kind::empty:
        return "Enter a cron expression, e.g. 0 8 * * *";
    case CronScheduleError::Kind::malformed:
        return "Cron must be 5 fields: minute hour day month weekday";
    }
    return "";
}

} // namespace

CronScheduleError::CronScheduleError(Kind kind) : Error(message(kind)), kind_(kind) {}

} // namespace quorlin
