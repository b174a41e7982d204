#include "core/state/RunPresentation.h"

#include "core/definitions/WorkflowScalarRules.h"

#include <algorithm>
#include <cstdio>
#include <map>

namespace quorlin {

std::string formattedCost(double usd) {
    char text[64];
    std::snprintf(text, sizeof text, "$%.2f", usd);
    return text;
}

std::string formattedDuration(double seconds) {
    char text[64];
    std::snprintf(text, sizeof text, "%.1fs", seconds);
    return text;
}

std::string symbolForFlow(std::string_view flowID) {
    static const std::map<std::string, std::string, std::less<>> symbols{
        {"receipts-to-folder-v1", "doc.text"},
        {"python-hello-world-v1", "terminal"},
        {"node-hello-world-v1", "chevron.left.forwardslash.chevron.right"},
        {"google-workspace-briefing-v1", "tray.full"},
    };
    const auto found = symbols.find(flowID);
    return found != symbols.end() ? found->second : "square.and.pencil";
}

RunRecord makeRunRecord(const AuditRun& run) {
    return {run.id,
            run.timestamp,
            run.status,
            run.trigger,
            run.outputSummary,
            run.minutesSaved,
            formattedCost(run.llmCostUSD),
            formattedDuration(run.durationSeconds),
            run.outputFolder,
            run.stepTimings,
            run.stepRecords};
}

AuditEntry makeAuditEntry(const AuditRun& run) {
    return {run.id,
            symbolForFlow(run.flowID),
            run.flowName,
            run.timestamp,
            run.trigger,
            run.status,
            run.outputSummary,
            run.minutesSaved,
            formattedCost(run.llmCostUSD),
            formattedDuration(run.durationSeconds),
            run.outputFolder,
            run.stepTimings,
            run.stepRecords};
}

FlowRunStats runStats(std::string_view flowID, const std::vector<AuditRun>& runs) {
    std::vector<const AuditRun*> mine;
    for (const auto& run : runs) {
        if (run.flowID == flowID) {
            mine.push_back(&run);
        }
    }
    std::stable_sort(mine.begin(), mine.end(), [](const AuditRun* a, const AuditRun* b) {
        return a->timestamp > b->timestamp;
    });
    FlowRunStats stats;
    double cost = 0;
    std::int64_t successes = 0;
    for (const auto* run : mine) {
        if (stats.recentRuns.size() < 5) {
            stats.recentRuns.push_back(makeRunRecord(*run));
        }
        stats.totalMinutesSaved += run->minutesSaved;
        cost += run->llmCostUSD;
        successes += run->status == "Success" ? 1 : 0;
    }
    stats.totalRuns = static_cast<std::int64_t>(mine.size());
    stats.totalCost = formattedCost(cost);
    stats.successRate = mine.empty() ? 0 : static_cast<int>(successes * 100 / stats.totalRuns);
    return stats;
}

std::int64_t totalMinutesSaved(const std::vector<AuditEntry>& entries) {
    std::int64_t total = 0;
    for (const auto& entry : entries) {
        total += entry.minutesSaved;
    }
    return total;
}

std::string totalCost(const std::vector<AuditEntry>& entries) {
    double total = 0;
    for (const auto& entry : entries) {
        std::string amount = entry.llmCost;
        amount.erase(std::remove(amount.begin(), amount.end(), '$'), amount.end());
        total += parseFloatingNumber(amount).value_or(0);
    }
    return formattedCost(total);
}

} // namespace quorlin
