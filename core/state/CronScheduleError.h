#pragma once

#include "core/foundation/Error.h"

namespace quorlin {

// A cron expression a user entered that can't be used. One message serves every kind of
// mistake in a non-empty expression: the parser does not tell them apart.
class CronScheduleError : public Error {
public:
    enum class Kind { empty, malformed };

    explicit CronScheduleError(Kind kind);

    Kind kind() const { return kind_; }

private:
    Kind kind_;
};

} // namespace quorlin
