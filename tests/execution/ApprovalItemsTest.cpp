#include "core/execution/ApprovalItems.h"

#include "core/definitions/DecodingError.h"
#include "core/definitions/WorkflowValueCoding.h"
#include "core/execution/ReceiptNaming.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quorlin {
namespace {

WorkflowValue value(const std::string& json) {
    return workflowValueFromJson(nlohmann::json::parse(json));
}

WorkflowValue::Object object(const std::string& json) {
    return *value(json).object();
}

AttachmentManifestRow entry(std::string name, std::string sender, std::string date,
                            std::string subject, std::string attachmentID) {
    AttachmentManifestRow row;
    row.emailID = "m-" + attachmentID;
    row.date = std::move(date);
    row.sender = std::move(sender);
    row.subject = std::move(subject);
    row.originalName = std::move(name);
    row.mimeType = "application/pdf";
    row.attachmentID = std::move(attachmentID);
    return row;
}

WorkflowValue manifestValue(const std::vector<AttachmentManifestRow>& rows) {
    nlohmann::json json = nlohmann::json::array();
    for (const auto& row : rows) {
        json.push_back(nlohmann::json::parse(toJson(row).dump()));
    }
    return workflowValueFromJson(json);
}

TEST(ReceiptNaming, TextHelpers) {
    const std::pair<std::string, std::string> timestamps[] = {
        {"2026-03-01 10:30", "202603011030"},
        {"Mon, 2 Mär 2026", "Mon2Mr2026"},
        {"  -- : ", "-- :"},
        {"", ""},
    };
    for (const auto& [text, expected] : timestamps) {
        EXPECT_EQ(compactTimestamp(text), expected) << text;
    }

    const std::pair<std::string, std::string> senders[] = {
        {R"("Acme Billing" <billing@acme.com>)", "Acme Billing"},
        {R"(  ""Zoë Shop"" <z@shop.de>)", "Zoë Shop"},
        {"<billing@acme.com>", "<billing@acme.com>"},
        {R"( "" <x@y.z>)", R"( "" <x@y.z>)"},
        {"Plain Name", "Plain Name"},
    };
    for (const auto& [text, expected] : senders) {
        EXPECT_EQ(senderDisplayName(text), expected) << text;
    }

    const std::pair<std::string, std::string> normalized[] = {
        {"Acme Billing, Inc.", "AcmeBillingInc"},
        {"Éçàü", "Vendor"},
        {"台灣大哥大 Taiwan", "台灣大哥大Taiwan"},
        {"ｱｲｳ 한국", "Vendor"}, // outside the CJK ideograph block
        {"", "Vendor"},
    };
    for (const auto& [text, expected] : normalized) {
        EXPECT_EQ(normalizedSenderComponent(text, "Vendor"), expected) << text;
    }

    const std::pair<std::string, std::string> sanitized[] = {
        {"  a b\tc\n ", "abc"},
        {"x\u00a0y", "xy"},
        {R"(a/b:c?d%e*f|g"h<i>j)", "a_b_c_d_e_f_g_h_i_j"},
        {"INV-2041.7_b", "INV-2041.7_b"},
        {" \t ", "fallback"},
    };
    for (const auto& [text, expected] : sanitized) {
        EXPECT_EQ(sanitizeFilenameComponent(text, "fallback"), expected) << text;
    }

    const std::pair<std::string, std::string> basenames[] = {
        {"a/b/report.final.pdf", "report.final"},
        {"receipt", "receipt"},
        {"dir/scan.pdf/", "scan"},
        {".pdf", ""},
    };
    for (const auto& [text, expected] : basenames) {
        EXPECT_EQ(basenameWithoutExtension(text), expected) << text;
    }
}

TEST(ReceiptNaming, TokensLongestAndMatches) {
    EXPECT_THAT(invoiceTokens("Invoice INV-2041 for order 12, pdf 2026.03 p.d.f"),
                ::testing::ElementsAre("INV-2041", "2026.03"));
    EXPECT_THAT(invoiceTokens("no digits here"), ::testing::IsEmpty());

    const std::pair<std::vector<std::string>, std::optional<std::string>> longest[] = {
        {{"AB12", "CD34"}, "AB12"},
        {{"a12", "b1234", "c5678"}, "b1234"},
        {{"ééé", "abcd"}, "abcd"}, // characters, not bytes
        {{}, std::nullopt},
    };
    for (const auto& [texts, expected] : longest) {
        EXPECT_EQ(firstLongest(texts), expected);
    }

    EXPECT_THAT(regexMatches("[0-9]+", "a1b22c333"), ::testing::ElementsAre("1", "22", "333"));
    EXPECT_THAT(regexMatches("發票", "發票 and 發票"), ::testing::ElementsAre("發票", "發票"));
    EXPECT_THAT(regexMatches("(unclosed", "unclosed"), ::testing::IsEmpty());
}

TEST(ReceiptNaming, InvoiceNumberSources) {
    struct Case {
        const char* row;
        const char* expected;
    };
    const Case cases[] = {
        {R"({"subject": "Invoice No. AB12345678"})", "AB12345678"},
        // the letter-pair form is found case-blind and given in upper case, before labels
        {R"({"subject": "Receipt no. 777 ref ab12345678"})", "AB12345678"},
        {R"({"subject": "Your receipt #R-2041.7 from Acme"})", "R-2041.7"},
        {R"({"subject": "Invoice number: inv-99"})", "inv-99"},
        {R"({"subject": "發票號碼: XY-778"})", "XY-778"},
        // tags are blanked out, so the label and the number meet across them
        {R"({"email_preview_html": "<p>Order <b>#</b> 55512</p>"})", "55512"},
        // label words are refused as numbers; the attachment id stands in
        {R"({"subject": "Invoice No. PDF", "original_name": "statement.pdf",
             "attachment_id": "ANGjdJ8"})",
         "ANGjdJ8"},
        // the file name's tokens come before longer ones elsewhere
        {R"({"subject": "Order 123456789 shipped", "original_name": "Acme 2041.pdf"})", "2041"},
        {R"({"original_name": "A1234 B5678.pdf"})", "A1234"},
        {R"({"subject": "Thanks for your order"})", "invoice"},
    };
    for (const auto& [row, expected] : cases) {
        EXPECT_EQ(invoiceNumber(object(row), nullptr), expected) << row;
    }

    const auto fromManifest = entry("statement.pdf", "Acme", "2026-03-01", "Monthly", "ANG-9");
    EXPECT_EQ(invoiceNumber({}, &fromManifest), "ANG-9");
}

TEST(ReceiptNaming, DeterministicFilename) {
    struct Case {
        const char* row;
        const char* expected;
    };
    const Case cases[] = {
        {R"({"date": "2026-03-01 10:30", "sender": "\"Acme Billing\" <billing@acme.com>",
             "subject": "Invoice No. AB12345678", "original_name": "scan.PDF"})",
         "202603011030_AcmeBilling_AB12345678.PDF"},
        {R"({"date": "  ", "sender": "Éçà <x@y.z>", "original_name": "receipt"})",
         "unknown-date_Vendor_invoice.pdf"},
        {R"({"date": "2026/03/02", "sender": "台灣大哥大 <bill@tw.example>",
             "originalName": "收據.pdf", "attachmentID": "a/b c"})",
         "20260302_台灣大哥大_a_bc.pdf"},
        {R"({"sender": "Acme"})", "item-4"},
    };
    for (const auto& [row, expected] : cases) {
        EXPECT_EQ(deterministicReceiptFilename(object(row), nullptr, 4), expected) << row;
    }

    const auto fromManifest =
        entry("Statement-0042.pdf", "Shop <s@shop.example>", "2026-03-05", "Monthly", "ANG1");
    EXPECT_EQ(deterministicReceiptFilename({}, &fromManifest, 1),
              "20260305_Shop_Statement-0042.pdf");
}

TEST(ApprovalRows, AcceptedTableShapes) {
    struct Case {
        const char* table;
        std::vector<std::string> names;
    };
    const Case cases[] = {
        {R"({"proposals": {"approved": [{"n": "a"}, {"n": "b"}]}})", {"a", "b"}},
        {R"({"proposals": [], "table": [{"n": "t"}]})", {"t"}},
        {R"({"approval_items": [{"n": "i"}], "table": [{"n": "t"}]})", {"i"}},
        {R"([{"n": "a"}, "x", 3, [{"n": "nested"}], {"n": "b"}])", {"a", "b"}},
        {R"({"n": "bare", "rows": [{"n": "x"}]})", {"bare"}},
        // wrappers that hold nothing usable leave the object as the one row
        {R"({"n": "outer", "proposals": ["x"], "approved": "none"})", {"outer"}},
        // a single object under a wrapper is the one item
        {R"({"n": "outer", "approved": {"n": "inner"}})", {"inner"}},
        {R"("just text")", {}},
        {R"(null)", {}},
    };
    for (const auto& [table, names] : cases) {
        std::vector<std::string> found;
        for (const auto& row : approvalRows(value(table))) {
            const auto name = row.find("n");
            found.push_back(name == row.end() ? "?" : *name->second.string());
        }
        EXPECT_EQ(found, names) << table;
    }
}

TEST(ApprovalRows, ManifestMatchingAndRowStrings) {
    const std::vector<AttachmentManifestRow> manifest = {
        entry("a.pdf", "Acme", "2026-03-01", "First", "A1"),
        entry("b.pdf", "Bolt", "2026-03-02", "Second", "B2"),
        entry("b.pdf", "Bolt", "2026-03-09", "Third", "B3"),
    };
    struct Case {
        std::int64_t index;
        const char* row;
        std::optional<std::string> attachmentID;
    };
    const Case cases[] = {
        {2, R"({"original_name": "a.pdf", "sender": "Acme"})", "B2"}, // position decides
        {9, R"({"original_name": " b.pdf ", "date": "2026-03-09"})", "B3"},
        {0, R"({"sender": "Bolt", "original_name": "  "})", "B2"},
        {-1, R"({})", "A1"},
        {4, R"({"sender": "Nobody"})", std::nullopt},
    };
    for (const auto& [index, row, attachmentID] : cases) {
        const auto matched = manifestRow(index, object(row), manifest);
        EXPECT_EQ(matched ? std::optional(matched->attachmentID) : std::nullopt, attachmentID)
            << index << " " << row;
    }

    auto withPreviews = manifest[0];
    withPreviews.emailPreviewHTML = "";
    withPreviews.emailPreviewText = "text preview";
    const auto row = object(R"({"subject": " Mine ", "sender": "  ", "date": 20260301})");
    EXPECT_EQ(rowString(row, &withPreviews, {"subject"}), "Mine");
    EXPECT_EQ(rowString(row, &withPreviews, {"sender"}), "Acme");
    EXPECT_EQ(rowString(row, &withPreviews, {"date"}), "2026-03-01");
    EXPECT_EQ(rowString(row, &withPreviews, {"email_preview_html", "email_preview_text"}),
              "text preview");
    EXPECT_EQ(rowString(row, &withPreviews, {"unknown", "attachmentID"}), "A1");
    EXPECT_EQ(rowString(row, nullptr, {"sender", "date"}), std::nullopt);

    EXPECT_TRUE(isAttachmentManifestRow(object(R"({"attachmentID": "x", "mime_type": "a"})")));
    EXPECT_FALSE(isAttachmentManifestRow(object(R"({"attachment_id": "x", "mimeType": " "})")));
    EXPECT_FALSE(isAttachmentManifestRow(object(R"({"attachment_id": 7, "mime_type": "a"})")));
}

TEST(ApprovalRows, ManifestDecoding) {
    auto full = entry("a.pdf", "Acme", "2026-03-01", "First", "A1");
    full.emailPreviewText = "hello";
    EXPECT_EQ(decodeAttachmentManifest(toJson(manifestValue({full})), "m"), std::vector{full});

    auto withNull = nlohmann::json::parse(toJson(full).dump());
    withNull["email_preview_html"] = nullptr;
    withNull["extra"] = 1;
    EXPECT_EQ(decodeAttachmentManifestRow(withNull, "m").emailPreviewHTML, std::nullopt);

    auto badPreview = withNull;
    badPreview["email_preview_text"] = 3;
    try {
        decodeAttachmentManifest(nlohmann::json::array({withNull, badPreview}),
                                 "list.pdf_manifest");
        ADD_FAILURE() << "a numeric preview was accepted";
    } catch (const DecodingError& error) {
        EXPECT_STREQ(error.what(), "Expected text at list.pdf_manifest[1].email_preview_text, "
                                   "found a number");
    }
    auto missing = withNull;
    missing.erase("mime_type");
    EXPECT_THROW(decodeAttachmentManifestRow(missing, "m"), DecodingError);
}

class ApprovalItemsTest : public ::testing::Test {
protected:
    std::vector<ApprovalProposal> items(const std::string& table) {
        checkpoint.approvalInputs["table"] = value(table);
        return approvalItems(checkpoint);
    }

    std::vector<AttachmentManifestRow> manifest = {
        entry("a.pdf", "Acme", "2026-03-01", "First", "A1"),
        entry("b.pdf", "Bolt <b@bolt.example>", "2026-03-02", "Invoice #B-77", "B2"),
        entry("Scan 0042.PNG", "Cobalt", "2026-03-03 09:15", "Third", "C3"),
    };
    GenericWorkflowApprovalCheckpoint checkpoint = [this] {
        GenericWorkflowApprovalCheckpoint made;
        made.log.stepOutputs["a-broken"] = {{"pdf_manifest", value(R"([{"date": "x"}])")},
                                            {"preview_paths", value(R"({"1": 5})")}};
        made.log.stepOutputs["b-list"] = {
            {"manifest", manifestValue(manifest)},
            {"preview_paths", value(R"({"1": "/p/1.pdf", "2": "/p/2.pdf", "3": "/p/3.png"})")}};
        return made;
    }();
};

TEST_F(ApprovalItemsTest, RowsAreMatchedToAttachmentsAndNamed) {
    const auto proposals = items(R"({"proposals": [
        {"index": "3"},
        {"date": "2026-03-02", "sender": "Bolt <b@bolt.example>", "original_name": "b.pdf",
         "proposed_name": "  "},
        {"proposedName": "  My: name.pdf ", "preview_path": " /mine.pdf "},
        {"index": 1, "subject": "Edited subject", "email_preview_text": "  "},
        {"sender": "Nobody", "original_name": "z.pdf"}
    ]})");
    ASSERT_EQ(proposals.size(), 5U);

    // by its own index, wherever it stands
    EXPECT_EQ(proposals[0].index, 3);
    EXPECT_EQ(proposals[0].originalName, "Scan 0042.PNG");
    EXPECT_EQ(proposals[0].previewPath, "/p/3.png");
    EXPECT_EQ(proposals[0].proposedName, "202603030915_Cobalt_0042.PNG");

    // a blank proposed name counts as none
    EXPECT_EQ(proposals[1].index, 2);
    EXPECT_EQ(proposals[1].subject, "Invoice #B-77");
    EXPECT_EQ(proposals[1].proposedName, "20260302_Bolt_B-77.pdf");

    EXPECT_EQ(proposals[2].proposedName, "My: name.pdf");
    EXPECT_EQ(proposals[2].previewPath, "/mine.pdf");
    EXPECT_EQ(proposals[2].date, "2026-03-03 09:15");

    EXPECT_EQ(proposals[3].index, 1);
    EXPECT_EQ(proposals[3].subject, "Edited subject");
    EXPECT_EQ(proposals[3].emailPreviewText, std::nullopt);
    EXPECT_EQ(proposals[3].previewPath, "/p/1.pdf");

    // index 5 is past the manifest and no entry agrees with the row
    EXPECT_EQ(proposals[4].index, 5);
    EXPECT_EQ(proposals[4].subject, "");
    EXPECT_EQ(proposals[4].previewPath, std::nullopt);
    EXPECT_EQ(proposals[4].proposedName, "item-5");

    for (const auto& proposal : proposals) {
        EXPECT_TRUE(proposal.isSelected);
        EXPECT_EQ(std::count_if(proposals.begin(), proposals.end(),
                                [&](const auto& other) { return other.id == proposal.id; }),
                  1);
    }
}

TEST_F(ApprovalItemsTest, RowsBeyondTheManifestMatchByFields) {
    const auto proposals = items(R"([{"index": 7, "original_name": "b.pdf", "date": "2026-03-02"},
                                     {"index": 8, "attachment_id": "X9", "mime_type": "a/b",
                                      "original_name": "free.pdf", "date": "2026-04-01"}])");
    ASSERT_EQ(proposals.size(), 2U);
    EXPECT_EQ(proposals[0].sender, "Bolt <b@bolt.example>");
    EXPECT_EQ(proposals[0].proposedName, "20260302_Bolt_B-77.pdf");
    EXPECT_EQ(proposals[0].previewPath, std::nullopt);
    // an attachment row standing on its own still gets a real name
    EXPECT_EQ(proposals[1].proposedName, "20260401_Vendor_X9.pdf");
}

TEST_F(ApprovalItemsTest, WithoutManifestOrTable) {
    checkpoint.log.stepOutputs.clear();
    const auto proposals = items(R"([{}, {}, {"sender": "Acme"}])");
    ASSERT_EQ(proposals.size(), 3U);
    EXPECT_EQ(proposals[2].originalName, "item-3");
    EXPECT_EQ(proposals[2].proposedName, "item-3");
    EXPECT_EQ(proposals[2].previewPath, std::nullopt);

    checkpoint.approvalInputs.clear();
    EXPECT_THAT(approvalItems(checkpoint), ::testing::IsEmpty());
}

TEST_F(ApprovalItemsTest, ApprovedRowsReadBackWhole) {
    auto proposals = items(R"([{"index": 2}])");
    proposals[0].proposedName = "renamed.pdf";
    const auto result = approvalStepResult(FlowStep{}, proposals);
    EXPECT_EQ(result.outputs.at("approved_table").array()->size(), 1U);
    const auto json = toJson(result.outputs.at("approved_table"));
    EXPECT_EQ(decodeApprovalProposal(json[0], "approved_table[0]"), proposals[0]);
}

} // namespace
} // namespace quorlin
