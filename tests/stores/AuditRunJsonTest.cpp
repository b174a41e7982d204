#include "core/stores/AuditRunJson.h"

#include <gtest/gtest.h>

namespace quorlin {
namespace {

// Absent optionals leave their keys out (an empty text is not absent), and what is
// written reads back equal.
TEST(AuditRunJsonTest, WritesAbsentFieldsAsMissingKeysAndReadsBackEqual) {
    for (const bool present : {true, false}) {
        SCOPED_TRACE(present);
        const auto text = [&](const char* value) {
            return present ? std::optional<std::string>(value) : std::nullopt;
        };
        AuditRun run{Uuid::random(),
                     "receipts",
                     "Receipts",
                     "2024-03-01 09:30",
                     "manual",
                     "success",
                     "Filed 2",
                     7,
                     0.1,
                     3.25,
                     {{"search", "Search", 1.5}},
                     {{"search", "Search", text("{}"), text("[1]"), text("")}},
                     text("/out")};
        const auto json = toJson(run);
        EXPECT_EQ(json.size(), present ? 13u : 12u);
        EXPECT_EQ(json.contains("outputFolder"), present);
        EXPECT_EQ(json["stepRecords"][0].size(), present ? 5u : 2u);
        EXPECT_EQ(json["id"], run.id.uppercaseString());
        const AuditLogDocument document{{run, run}};
        EXPECT_EQ(decodeAuditLogDocumentJson(toJson(document).dump()), document);
    }
}

} // namespace
} // namespace quorlin
