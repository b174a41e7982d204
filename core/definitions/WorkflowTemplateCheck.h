#pragma once

#include "core/definitions/WorkflowWarningList.h"

#include <map>

namespace quorlin::warnings {

// Every "{{ steps.<id>... }}" in a step's inputs, config and action must name a step that
// has run by the time that step runs.
class TemplateCheck {
public:
    TemplateCheck(const FlowDefinition& flow, WarningList& out) : out_(out) {
        for (std::size_t index = 0; index < flow.steps.size(); ++index) {
            indexByID_.emplace(flow.steps[index].id, index);
            ids_.push_back(flow.steps[index].id);
        }
    }

    void check(const FlowStep& step, std::size_t index) const;

private:
    void checkText(const FlowStep& step, std::size_t index, const std::string& text) const;
    void checkReference(const FlowStep& step, std::size_t index, const std::string& written,
                        const std::string& named) const;

    WarningList& out_;
    std::map<std::string, std::size_t> indexByID_; // the first step of each id
    std::vector<std::string> ids_;
};

} // namespace quorlin::warnings
