#pragma once

#include <array>
#include <string>
#include <string_view>
#include <vector>

namespace quorlin::triggerType {

// What may start a flow. Any other type starts nothing: the flow can still be run by
// hand, but its schedule is never picked up.
inline constexpr std::string_view manual = "manual";
inline constexpr std::string_view schedule = "schedule";
// The older spelling of schedule, still read the same.
inline constexpr std::string_view scheduled = "scheduled";

inline constexpr std::array knownTriggerTypes{manual, schedule, scheduled};

} // namespace quorlin::triggerType

namespace quorlin {

inline std::vector<std::string> knownTriggerTypeNames() {
    return {triggerType::knownTriggerTypes.begin(), triggerType::knownTriggerTypes.end()};
}

} // namespace quorlin
