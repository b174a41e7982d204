#include "core/execution/LLMBudget.h"

#include <cstdio>
#include <string>

namespace quorlin {

namespace {

std::string message(std::int64_t budgetUSD, double spentUSD) {
    char spent[64];
    std::snprintf(spent, sizeof spent, "%.2f", spentUSD);
    return "Monthly LLM budget of $" + std::to_string(budgetUSD) + " reached ($" + spent +
           " spent this month).";
}

} // namespace

LLMBudgetError::LLMBudgetError(std::int64_t budgetUSD, double spentUSD)
    : Error(message(budgetUSD, spentUSD)) {}

void checkMonthlyLLMBudget(std::int64_t budgetUSD, double spentUSD) {
    if (budgetUSD > 0 && spentUSD >= static_cast<double>(budgetUSD)) {
        throw LLMBudgetError(budgetUSD, spentUSD);
    }
}

} // namespace quorlin
