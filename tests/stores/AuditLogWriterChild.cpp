// A separate process that writes to the audit log, for the tests that need a second
// writer or one that dies mid-write.
//
// usage: quorlin_audit_log_writer <database> <legacy file> <run count, 0 = until killed> <flow id>
//
// Run i has 1 + i % 8 timings and as many records; its summary says "steps=<n>" so a
// reader can tell whether every step row arrived. Each id goes to stdout, one a line,
// only after append() returned, so a line seen means a committed run.

#include "core/stores/AuditLogStore.h"

#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <unistd.h>

int main(int argc, char** argv) {
    if (argc != 5) {
        std::cerr << "usage: quorlin_audit_log_writer <database> <legacy> <count> <flow id>\n";
        return 2;
    }
    try {
        quorlin::AuditLogStore store(argv[1], argv[2]);
        const long count = std::strtol(argv[3], nullptr, 10);
        for (long index = 0; count == 0 || index < count; ++index) {
            const auto steps = static_cast<std::size_t>(1 + index % 8);
            quorlin::AuditRun run;
            run.id = quorlin::Uuid::random();
            run.flowID = argv[4];
            run.flowName = "Writer";
            run.timestamp = "2024-05-01 10:00";
            run.trigger = "manual";
            run.status = "success";
            run.outputSummary = "steps=" + std::to_string(steps);
            run.minutesSaved = index;
            for (std::size_t step = 0; step < steps; ++step) {
                const std::string stepID = "step-" + std::to_string(step);
                run.stepTimings.push_back({stepID, "Step", 0.5});
                run.stepRecords.push_back(
                    {stepID, "Step", "{\"n\": " + std::to_string(step) + "}", "{}", std::nullopt});
            }
            store.append(run);
            const std::string line = run.id.uppercaseString() + "\n";
            // Unbuffered, so the line leaves the process before the next append starts.
            if (::write(STDOUT_FILENO, line.data(), line.size()) !=
                static_cast<ssize_t>(line.size())) {
                return 3;
            }
        }
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return 1;
    }
    return 0;
}
