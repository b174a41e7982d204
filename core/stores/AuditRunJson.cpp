#include "AuditRunJson.h"

#include "core/definitions/DecodingError.h"
#include "core/foundation/Json.h"

#include <cmath>
#include <limits>

namespace quorlin {

namespace {

using Json = nlohmann::json;

std::string keyPath(const std::string& path, std::string_view key) {
    return path.empty() ? std::string(key) : path + "." + std::string(key);
}

std::string indexPath(const std::string& path, std::size_t index) {
    return path + "[" + std::to_string(index) + "]";
}

// What a value holds, for "found ..." in error messages; long text is cut.
std::string describe(const Json& value) {
    constexpr std::size_t limit = 60;
    if (value.is_array()) {
        return "an array";
    }
    if (value.is_object()) {
        return "an object";
    }
    std::string text = compactJson(value);
    if (text.size() > limit) {
        std::size_t cut = limit;
        // Cut at a character boundary so the message stays valid UTF-8.
        while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0U) == 0x80U) {
            --cut;
        }
        text = text.substr(0, cut) + "...";
    }
    return text;
}

[[noreturn]] void mismatch(const Json& value, const std::string& path, std::string expected) {
    throw DecodingError(DecodingError::Kind::typeMismatch, path, std::move(expected),
                        describe(value));
}

// The keys of one JSON object being read into a record. A null counts as missing for
// optional keys, and as the wrong type for required ones.
class Fields {
public:
    Fields(const Json& value, std::string path) : value_(value), path_(std::move(path)) {
        if (!value.is_object()) {
            mismatch(value, path_, "an object");
        }
    }

    const Json& required(std::string_view key) const {
        const auto found = value_.find(key);
        if (found == value_.end()) {
            throw DecodingError(DecodingError::Kind::keyNotFound, path_, std::string(key));
        }
        return *found;
    }

    const Json* optional(std::string_view key) const {
        const auto found = value_.find(key);
        return found == value_.end() || found->is_null() ? nullptr : &*found;
    }

    std::string text(std::string_view key) const { return textValue(required(key), key); }

    std::optional<std::string> optionalText(std::string_view key) const {
        const Json* value = optional(key);
        return value ? std::optional(textValue(*value, key)) : std::nullopt;
    }

    std::int64_t integer(std::string_view key) const {
        const Json& value = required(key);
        if (value.is_number_integer()) {
            return value.get<std::int64_t>();
        }
        if (value.is_number_unsigned() &&
            value.get<std::uint64_t>() <=
                static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            return static_cast<std::int64_t>(value.get<std::uint64_t>());
        }
        // Writers that keep every number as a double wrote whole minutes as "5.0".
        if (value.is_number_float()) {
            const double number = value.get<double>();
            if (std::trunc(number) == number && std::abs(number) < 9.2e18) {
                return static_cast<std::int64_t>(number);
            }
        }
        mismatch(value, path(key), "an integer");
    }

    double number(std::string_view key) const {
        const Json& value = required(key);
        if (!value.is_number()) {
            mismatch(value, path(key), "a number");
        }
        return value.get<double>();
    }

    template <typename Decode> auto optionalArray(std::string_view key, Decode decode) const {
        std::vector<decltype(decode(Json(), std::string()))> result;
        const Json* value = optional(key);
        if (value == nullptr) {
            return result;
        }
        if (!value->is_array()) {
            mismatch(*value, path(key), "an array");
        }
        result.reserve(value->size());
        for (std::size_t index = 0; index < value->size(); ++index) {
            result.push_back(decode((*value)[index], indexPath(path(key), index)));
        }
        return result;
    }

    std::string path(std::string_view key) const { return keyPath(path_, key); }

private:
    std::string textValue(const Json& value, std::string_view key) const {
        if (!value.is_string()) {
            mismatch(value, path(key), "a string");
        }
        return value.get<std::string>();
    }

    const Json& value_;
    std::string path_;
};

AuditStepTiming decodeTiming(const Json& value, const std::string& path) {
    const Fields fields(value, path);
    return {fields.text("stepID"), fields.text("title"), fields.number("durationSeconds")};
}

AuditStepRecord decodeRecord(const Json& value, const std::string& path) {
    const Fields fields(value, path);
    return {fields.text("stepID"), fields.text("title"), fields.optionalText("inputJSON"),
            fields.optionalText("outputJSON"), fields.optionalText("errorJSON")};
}

void putOptional(Json& object, const char* key, const std::optional<std::string>& value) {
    if (value) {
        object[key] = *value;
    }
}

} // namespace

Json toJson(const AuditStepTiming& timing) {
    return {{"stepID", timing.stepID},
            {"title", timing.title},
            {"durationSeconds", timing.durationSeconds}};
}

Json toJson(const AuditStepRecord& record) {
    Json object{{"stepID", record.stepID}, {"title", record.title}};
    putOptional(object, "inputJSON", record.inputJSON);
    putOptional(object, "outputJSON", record.outputJSON);
    putOptional(object, "errorJSON", record.errorJSON);
    return object;
}

Json toJson(const AuditRun& run) {
    Json timings = Json::array();
    for (const auto& timing : run.stepTimings) {
        timings.push_back(toJson(timing));
    }
    Json records = Json::array();
    for (const auto& record : run.stepRecords) {
        records.push_back(toJson(record));
    }
    Json object{{"id", run.id.uppercaseString()},
                {"flowID", run.flowID},
                {"flowName", run.flowName},
                {"timestamp", run.timestamp},
                {"trigger", run.trigger},
                {"status", run.status},
                {"outputSummary", run.outputSummary},
                {"minutesSaved", run.minutesSaved},
                {"llmCostUSD", run.llmCostUSD},
                {"durationSeconds", run.durationSeconds},
                {"stepTimings", std::move(timings)},
                {"stepRecords", std::move(records)}};
    putOptional(object, "outputFolder", run.outputFolder);
    return object;
}

Json toJson(const AuditLogDocument& document) {
    Json runs = Json::array();
    for (const auto& run : document.runs) {
        runs.push_back(toJson(run));
    }
    return {{"runs", std::move(runs)}};
}

AuditRun decodeAuditRun(const Json& value, const std::string& codingPath) {
    const Fields fields(value, codingPath);
    AuditRun run;
    if (const Json* id = fields.optional("id")) {
        if (!id->is_string()) {
            mismatch(*id, fields.path("id"), "a UUID string");
        }
        const auto parsed = Uuid::parse(id->get<std::string>());
        if (!parsed) {
            throw DecodingError(DecodingError::Kind::dataCorrupted, fields.path("id"),
                                "Invalid UUID string: " + id->get<std::string>());
        }
        run.id = *parsed;
    } else {
        run.id = Uuid::random();
    }
    run.flowID = fields.text("flowID");
    run.flowName = fields.text("flowName");
    run.timestamp = fields.text("timestamp");
    run.trigger = fields.text("trigger");
    run.status = fields.text("status");
    run.outputSummary = fields.text("outputSummary");
    run.minutesSaved = fields.integer("minutesSaved");
    run.llmCostUSD = fields.number("llmCostUSD");
    run.durationSeconds = fields.number("durationSeconds");
    run.stepTimings = fields.optionalArray("stepTimings", decodeTiming);
    run.stepRecords = fields.optionalArray("stepRecords", decodeRecord);
    run.outputFolder = fields.optionalText("outputFolder");
    return run;
}

AuditLogDocument decodeAuditLogDocument(const Json& value) {
    const Fields fields(value, {});
    const Json& runs = fields.required("runs");
    if (!runs.is_array()) {
        mismatch(runs, "runs", "an array");
    }
    AuditLogDocument document;
    document.runs.reserve(runs.size());
    for (std::size_t index = 0; index < runs.size(); ++index) {
        document.runs.push_back(decodeAuditRun(runs[index], indexPath("runs", index)));
    }
    return document;
}

AuditLogDocument decodeAuditLogDocumentJson(std::string_view text) {
    return decodeAuditLogDocument(parseJson(text));
}

} // namespace quorlin
