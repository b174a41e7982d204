#include "core/definitions/BlockDefinition.h"
#include "core/definitions/BlockReference.h"
#include "core/definitions/BlockRegistry.h"

#include <gtest/gtest.h>

namespace quorlin {
namespace {

TEST(BlockReference, ParsesExactReferencesAndNamesWhatIsWrong) {
    struct Case {
        std::string text;
        std::string expected; // "id@version" or the error text
    };
    const Case cases[] = {
        {" gmail.search-messages@0.1.0\n", "gmail.search-messages@0.1.0"},
        {"a_b-c.d@10.020.3", "a_b-c.d@10.020.3"},
        {"日本.ブロック@1.2.3", "日本.ブロック@1.2.3"},
        {"a@b@1.0.0", "Block reference must use <block-id>@<semver> format: a@b@1.0.0"},
        {"no-at-sign", "Block reference must use <block-id>@<semver> format: no-at-sign"},
        {"a@", "Block version must be an exact semver such as 0.1.0: "},
        {"@0.1.0", "Invalid block id: "},
        {"a@1.0", "Block version must be an exact semver such as 0.1.0: 1.0"},
        {"a@1.0.0.0", "Block version must be an exact semver such as 0.1.0: 1.0.0.0"},
        {"a@1.0.0-beta", "Block version must be an exact semver such as 0.1.0: 1.0.0-beta"},
        {"a@1..0", "Block version must be an exact semver such as 0.1.0: 1..0"},
        {"a/b@1.0.0", "Invalid block id: a/b"},
        {"a\\b@1.0.0", "Invalid block id: a\\b"},
        {".a@1.0.0", "Invalid block id: .a"},
        {"a..b@1.0.0", "Invalid block id: a..b"},
        {"a.@1.0.0", "Invalid block id: a."},
        {"a b@1.0.0", "Invalid block id: a b"},
    };
    for (const auto& [text, expected] : cases) {
        try {
            EXPECT_EQ(BlockReference::parse(text).text(), expected) << text;
        } catch (const BlockReferenceError& error) {
            EXPECT_EQ(error.what(), expected) << text;
        }
    }
}

TEST(BlockRegistry, LooksUpExactVersionsInTextOrder) {
    BlockDefinition base;
    base.id = "x";
    base.name = "X";
    auto version = [&](const char* text, const char* name) {
        BlockDefinition definition = base;
        definition.version = text;
        definition.name = name;
        return definition;
    };
    const BlockRegistry registry({version("0.9.0", "old"), version("0.10.0", "new"), version("0.9.0", "later")});
    EXPECT_EQ(registry.definition({"x", "0.9.0"})->name, "later"); // the later one wins
    EXPECT_FALSE(registry.definition({"x", "1.0.0"}));
    EXPECT_FALSE(registry.definition({"y", "0.9.0"}));
    const auto versions = registry.definitions("x");
    ASSERT_EQ(versions.size(), 2u);
    EXPECT_EQ(versions[0].version, "0.10.0");
    EXPECT_TRUE(registry.definitions("y").empty());

    const auto extended = registry.registering(version("0.9.0", "replaced"));
    EXPECT_EQ(extended.definition({"x", "0.9.0"})->name, "replaced");
    EXPECT_EQ(registry.definition({"x", "0.9.0"})->name, "later"); // the original is unchanged
}

TEST(BlockRegistry, BuiltInCatalogueHoldsTheNativeBlocks) {
    const auto& all = builtInBlockDefinitions();
    ASSERT_EQ(all.size(), 15u);
    EXPECT_EQ(all.front().id, "context.prepare-run");
    EXPECT_EQ(all.back().id, "google.workspace-read");
    for (const auto& definition : all) {
        EXPECT_EQ(definition.version, "0.1.0");
        EXPECT_TRUE(definition.handlerType) << definition.id;
        EXPECT_NO_THROW(BlockReference::parse(definition.id + "@" + definition.version));
    }
    const auto fileWrite = BlockRegistry::builtIn().definition({"filesystem.rename-and-file", "0.1.0"});
    ASSERT_TRUE(fileWrite);
    EXPECT_EQ(fileWrite->handlerType, "native-file-write");
    EXPECT_TRUE(fileWrite->inputs.at("staged_files").isRequired());
    const auto approval = BlockRegistry::builtIn().definition({"human.batch-approval", "0.1.0"});
    EXPECT_FALSE(approval->inputs.at("candidates").isRequired());
}

TEST(BlockDefinition, DecodesManifestsWithDefaultsAndExecution) {
    const auto definition = decodeBlockDefinitionYaml(R"(
id: reports.render
name: Render
version: 1.2.0
kind: script
handler_type: script-run
execution:
  kind: script
  handler_type: script-block
  runtime: managed_runtime.python
  entrypoint: scripts/render.py
  timeout_seconds: 90
inputs:
  rows:
    type: array
    required: false
    items: {type: object}
  mode:
    type: string
    enum: [fast, full]
capabilities:
)");
    EXPECT_EQ(definition.effectiveHandlerType(), "script-block");
    EXPECT_EQ(definition.execution->timeoutSeconds, 90.0);
    EXPECT_TRUE(definition.capabilities.empty());
    EXPECT_TRUE(definition.outputs.empty());
    EXPECT_FALSE(definition.inputs.at("rows").isRequired());
    EXPECT_EQ(definition.inputs.at("mode").enumValues->size(), 2u);
    const auto json = toJson(definition);
    EXPECT_TRUE(json.contains("fixtures"));
    EXPECT_FALSE(json.contains("summary"));

    EXPECT_THROW(decodeBlockDefinitionYaml("id: a\nname: A\nversion: 1.0.0\nkind: widget\n"), Error);
    EXPECT_THROW(decodeBlockDefinitionYaml("id: a\nname: A\nversion: 1.0.0\n"), Error);
}

} // namespace
} // namespace quorlin
