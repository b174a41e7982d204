#include "core/execution/GenericScriptOutputSummarizer.h"

#include <gtest/gtest.h>

namespace quorlin {
namespace {

TEST(GenericScriptOutputSummarizer, SummaryTakesTheFirstRuleThatApplies) {
    const std::pair<std::string, std::string> cases[] = {
        {"", "Run complete"},
        {"  \n ", "Run complete"},
        {"plain words\n", "plain words"},
        {"[1, 2]", "[1, 2]"}, // an array is no object
        {R"({"briefing": {"executive_summary": "Exec", "headline": "Head"}, "message": "m"})",
         "Exec"},
        {R"({"briefing": {"executive_summary": "  ", "headline": "Head"}})", "Head"},
        {R"({"workflow": "contract-audit-v1", "summary": "Audit done", "pdf_path": "/r.pdf"})",
         "Audit done"},
        {R"({"workflow": "other", "summary": "S", "pdf_path": "/out/r.pdf"})",
         "PDF report ready: /out/r.pdf"},
        {R"({"html_path": "/out/r.html", "docx_path": "/out/r.docx"})",
         "HTML report ready: /out/r.html"},
        {R"({"docx_path": "/out/r.docx"})", "Word file ready: /out/r.docx"},
        {R"({"summary": "S", "message": "M"})", "S"},
        {R"({"summary": " ", "message": "M"})", "M"},
        {R"({"final_files": ["a", "b", "c"]})", "3 files"},
        {R"({"article_count": 12})", "12 items collected"},
        {R"({"article_count": 12.5})", "Run complete"},
        {R"({"other": true})", "Run complete"},
    };
    for (const auto& [stdoutText, expected] : cases) {
        EXPECT_EQ(GenericScriptOutputSummarizer::summary(stdoutText), expected) << stdoutText;
    }
}

TEST(GenericScriptOutputSummarizer, OutputFolderComesFromTheFolderOrAReportPath) {
    const std::pair<std::string, std::optional<std::string>> cases[] = {
        {R"({"output_folder": "/data/out", "pdf_path": "/elsewhere/r.pdf"})", "/data/out"},
        {R"({"output_folder": " ", "pdf_path": "/reports/r.pdf", "docx_path": "/word/r.docx"})",
         "/word"},
        {R"({"html_path": "/site/index.html"})", "/site"},
        {R"({"message": "no folder"})", std::nullopt},
        {"not json", std::nullopt},
    };
    for (const auto& [stdoutText, expected] : cases) {
        EXPECT_EQ(GenericScriptOutputSummarizer::outputFolder(stdoutText), expected) << stdoutText;
    }
}

} // namespace
} // namespace quorlin
