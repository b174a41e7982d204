#include "core/definitions/WorkflowValue.h"

#include "core/definitions/DecodingError.h"
#include "core/definitions/WorkflowDocument.h"
#include "core/definitions/WorkflowValueCoding.h"

#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <ostream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace quorlin {

// Shows the case as well as the payload, since int 1 and double 1.0 print alike in JSON.
void PrintTo(const WorkflowValue& value, std::ostream* out) {
    static const char* const caseNames[] = {"string", "int",    "double", "bool",
                                            "array",  "object", "null"};
    *out << caseNames[value.storage().index()] << " " << toJson(value).dump();
}

namespace {

using Int = std::int64_t;
using ::testing::HasSubstr;

constexpr double infinity = std::numeric_limits<double>::infinity();

// The value a step input written as spelling decodes to, read through a whole document.
WorkflowValue inputSpelledAs(const std::string& spelling) {
    const std::string text = "flow:\n"
                             "  id: f\n"
                             "  name: F\n"
                             "  version: '1'\n"
                             "  triggers: []\n"
                             "  steps:\n"
                             "    - id: s\n"
                             "      name: S\n"
                             "      type: t\n"
                             "      inputs:\n"
                             "        v: " +
                             spelling + "\n";
    const auto document = decodeWorkflowDocumentYaml(text);
    return document.flow.steps.at(0).inputs.value().at("v");
}

TEST(WorkflowValueTest, PlainScalarsNarrowToTheFirstTypeThatFits) {
    struct Case {
        std::string spelling;
        WorkflowValue expected;
    };
    const Case cases[] = {
        // null
        {"", WorkflowValue::Null{}},
        {"~", WorkflowValue::Null{}},
        {"null", WorkflowValue::Null{}},
        {"Null", WorkflowValue::Null{}},
        {"NULL", WorkflowValue::Null{}},
        {"nULL", "nULL"},
        // bool
        {"yes", true},
        {"No", false},
        {"ON", true},
        {"off", false},
        {"TRUE", true},
        {"fAlSe", false},
        {"y", "y"},
        {"n", "n"},
        // int
        {"0", Int{0}},
        {"42", Int{42}},
        {"-17", Int{-17}},
        {"+17", Int{17}},
        {"010", Int{8}},
        {"-010", Int{-8}},
        {"0x1F", Int{31}},
        {"-0x1F", Int{-31}},
        {"0b101", Int{5}},
        {"0o17", Int{15}},
        {"1_000", Int{1000}},
        {"0x_ff", Int{255}},
        {"1:30", Int{90}},
        {"-1:30", Int{-90}},
        {"12:30:45", Int{45045}},
        {"9223372036854775807", std::numeric_limits<Int>::max()},
        {"-9223372036854775808", std::numeric_limits<Int>::min()},
        // double
        {"09", 9.0},
        {"08:30", 510.0},
        {"1:30.5", 90.5},
        {"9223372036854775808", 9223372036854775808.0},
        {"1e3", 1000.0},
        {".5", 0.5},
        {"-.5", -0.5},
        {"1_000.5", 1000.5},
        {"0x1p3", 8.0},
        {".inf", infinity},
        {"+.Inf", infinity},
        {"-.INF", -infinity},
        {"inf", infinity},
        {"-Infinity", -infinity},
        // string
        {"2024-01-15", "2024-01-15"},
        {"1.2.3", "1.2.3"},
        {"12:ab", "12:ab"},
        {"1::2", "1::2"},
        {"0x", "0x"},
        {"0xZZ", "0xZZ"},
        {"0b102", "0b102"},
        {"+", "+"},
        {"_", "_"},
        {"hello world", "hello world"},
        // quoted and block scalars are text whatever they spell
        {"\"42\"", "42"},
        {"'true'", "true"},
        {"\"~\"", "~"},
        {"''", ""},
        {"!!str 1e3", "1e3"},
        {"|\n          42", "42\n"},
        {">-\n          yes", "yes"},
        // collections keep each element's own narrowest type
        {"[1, '1', 1.0, true, ~, x, 0x10]",
         WorkflowValue::Array{Int{1}, "1", 1.0, true, WorkflowValue::Null{}, "x", Int{16}}},
        {"{a: 1, b: ~, 2: two}",
         WorkflowValue::Object{{"a", Int{1}}, {"b", WorkflowValue::Null{}}, {"2", "two"}}},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE("spelling: " + testCase.spelling);
        EXPECT_EQ(inputSpelledAs(testCase.spelling), testCase.expected);
    }

    for (const char* spelling : {".nan", ".NaN", ".NAN", "nan", "NaN"}) {
        SCOPED_TRACE(spelling);
        const auto value = inputSpelledAs(spelling);
        ASSERT_TRUE(value.isDouble());
        EXPECT_TRUE(std::isnan(*value.real()));
    }
}

TEST(WorkflowValueTest, EqualityComparesTheCaseBeforeThePayload) {
    EXPECT_NE(WorkflowValue(1), WorkflowValue(1.0));
    EXPECT_NE(WorkflowValue(1), WorkflowValue("1"));
    EXPECT_NE(WorkflowValue(true), WorkflowValue(1));
    EXPECT_NE(WorkflowValue(WorkflowValue::Null{}), WorkflowValue(""));
    EXPECT_NE(WorkflowValue(WorkflowValue::Array{1, 2}), WorkflowValue(WorkflowValue::Array{2, 1}));
    EXPECT_EQ(WorkflowValue(WorkflowValue::Object{{"a", 1}, {"b", 2}}),
              WorkflowValue(WorkflowValue::Object{{"b", 2}, {"a", 1}}));
    EXPECT_NE(WorkflowValue(WorkflowValue::Object{{"a", 1}}),
              WorkflowValue(WorkflowValue::Object{{"a", 1.0}}));
}

TEST(WorkflowValueTest, JsonNumbersWithAnIntegerValueAreInts) {
    struct Case {
        const char* json;
        WorkflowValue expected;
    };
    const Case cases[] = {
        {"3", Int{3}},
        {"3.0", Int{3}},
        {"-0.0", Int{0}},
        {"3.5", 3.5},
        {"1e2", Int{100}},
        {"1e-2", 0.01},
        {"-9223372036854775808", std::numeric_limits<Int>::min()},
        {"9223372036854775807", std::numeric_limits<Int>::max()},
        {"9223372036854775808", 9223372036854775808.0},
        {"1e300", 1e300},
        {"true", true},
        {"\"true\"", "true"},
        {"\"42\"", "42"},
        {"\"\"", ""},
        {"null", WorkflowValue::Null{}},
        {"[1, \"1\", 1.5, null]", WorkflowValue::Array{Int{1}, "1", 1.5, WorkflowValue::Null{}}},
        {"{\"a\": {\"b\": null}}",
         WorkflowValue::Object{{"a", WorkflowValue::Object{{"b", WorkflowValue::Null{}}}}}},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.json);
        const auto json = nlohmann::json::parse(testCase.json);
        EXPECT_EQ(workflowValueFromJson(json), testCase.expected);
        // Documents read from JSON go through the YAML node tree: it must agree.
        EXPECT_EQ(workflowValueFromYaml(yamlNodeFromJson(json)), testCase.expected);
        // And writing the value gives the JSON back.
        EXPECT_EQ(workflowValueFromJson(toJson(testCase.expected)), testCase.expected);
    }
}

TEST(WorkflowValueTest, ToJsonWritesEachCaseAsItsJsonCounterpart) {
    const WorkflowValue value = WorkflowValue::Object{
        {"text", "x"},
        {"int", Int{7}},
        {"double", 2.5},
        {"whole_double", 2.0},
        {"flag", false},
        {"list", WorkflowValue::Array{1, "1"}},
        {"nothing", WorkflowValue::Null{}},
        {"infinite", infinity},
        {"nan", std::numeric_limits<double>::quiet_NaN()},
    };
    EXPECT_EQ(toJson(value).dump(),
              R"({"double":2.5,"flag":false,"infinite":null,"int":7,"list":[1,"1"],)"
              R"("nan":null,"nothing":null,"text":"x","whole_double":2.0})");
    EXPECT_EQ(toJson(WorkflowValueMap{}).dump(), "{}");
}

TEST(WorkflowValueTest, JsonWithoutAWorkflowCounterpartIsRejected) {
    const auto binary = nlohmann::json::binary({1, 2, 3});
    try {
        workflowValueFromJson(nlohmann::json{{"inputs", {{"blob", binary}}}});
        ADD_FAILURE() << "binary JSON was accepted";
    } catch (const DecodingError& error) {
        EXPECT_EQ(error.kind(), DecodingError::Kind::dataCorrupted);
        EXPECT_STREQ(error.what(), "Unsupported workflow value at inputs.blob");
    }
    EXPECT_THROW(yamlNodeFromJson(binary), DecodingError);

    nlohmann::json deep = nlohmann::json::array();
    for (std::size_t level = 0; level < yamlMaxDepth + 5; ++level) {
        deep = nlohmann::json::array({std::move(deep)});
    }
    EXPECT_THROW(workflowValueFromJson(deep), DecodingError);
    EXPECT_THROW(yamlNodeFromJson(deep), DecodingError);
}

TEST(WorkflowValueTest, IntValueReadsIntsDoublesAndStrictDecimalText) {
    struct Case {
        WorkflowValue value;
        std::optional<Int> expected;
    };
    const Case cases[] = {
        {Int{5}, 5},
        {2.9, 2},
        {-2.9, -2},
        {-9223372036854775808.0, std::numeric_limits<Int>::min()},
        {9223372036854775808.0, std::nullopt},
        {infinity, std::nullopt},
        {std::numeric_limits<double>::quiet_NaN(), std::nullopt},
        {"42", 42},
        {"+42", 42},
        {"-42", -42},
        {"007", 7},
        {" 42", std::nullopt},
        {"42\n", std::nullopt},
        {"4 2", std::nullopt},
        {"", std::nullopt},
        {"+", std::nullopt},
        {"+-4", std::nullopt},
        {"1.5", std::nullopt},
        {"0x10", std::nullopt},
        {"9223372036854775808", std::nullopt},
        {true, std::nullopt},
        {WorkflowValue::Null{}, std::nullopt},
        {WorkflowValue::Array{1}, std::nullopt},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(::testing::PrintToString(testCase.value));
        EXPECT_EQ(testCase.value.intValue(), testCase.expected);
    }
}

TEST(WorkflowValueTest, BoolValueReadsBoolsAndYesNoWords) {
    struct Case {
        WorkflowValue value;
        std::optional<bool> expected;
    };
    const Case cases[] = {
        {true, true},         {false, false},
        {"true", true},       {" Yes\n", true},
        {"1", true},          {"FALSE", false},
        {"\tno ", false},     {"0", false},
        {"on", std::nullopt}, {"y", std::nullopt},
        {"", std::nullopt},   {Int{1}, std::nullopt},
        {1.0, std::nullopt},  {WorkflowValue::Null{}, std::nullopt},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(::testing::PrintToString(testCase.value));
        EXPECT_EQ(testCase.value.boolValue(), testCase.expected);
    }
}

TEST(WorkflowValueTest, TimeIntervalValueReadsNumbersAndFloatingText) {
    struct Case {
        WorkflowValue value;
        std::optional<double> expected;
    };
    const Case cases[] = {
        {1.5, 1.5},
        {Int{30}, 30.0},
        {"2.5", 2.5},
        {"-1e3", -1000.0},
        {"0x1p4", 16.0},
        {"inf", infinity},
        {"10", 10.0},
        {" 1", std::nullopt},
        {"1 ", std::nullopt},
        {"1s", std::nullopt},
        {"", std::nullopt},
        {true, std::nullopt},
        {WorkflowValue::Null{}, std::nullopt},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(::testing::PrintToString(testCase.value));
        EXPECT_EQ(testCase.value.timeIntervalValue(), testCase.expected);
    }
}

} // namespace
} // namespace quorlin
