#pragma once

#include "core/foundation/Error.h"

#include <cstdint>

namespace quorlin {

// A paid LLM call refused because the client profile's monthly budget is spent.
class LLMBudgetError : public Error {
public:
    LLMBudgetError(std::int64_t budgetUSD, double spentUSD);
};

// Throws LLMBudgetError when a budget is set (above 0) and what was spent this month has
// reached it. A budget of 0 or less means none.
void checkMonthlyLLMBudget(std::int64_t budgetUSD, double spentUSD);

} // namespace quorlin
