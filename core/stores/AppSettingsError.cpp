#include "AppSettingsError.h"

#include "core/foundation/ClosestWord.h"

namespace quorlin {

namespace {

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const auto& word : words) {
        text += (text.empty() ? "" : ", ") + word;
    }
    return text;
}

std::string unknownFieldText(const std::string& field, const std::vector<std::string>& valid) {
    std::string text = "Unknown setting \"" + field + "\"";
    if (const auto suggestion = closestWord(field, valid)) {
        text += " (did you mean " + *suggestion + "?)";
    }
    return text + ". The settings are: " + joined(valid) + ".";
}

std::string describe(AppSettingsError::Kind kind, const std::filesystem::path& path,
                     const std::string& detail, const std::string& field,
                     const std::vector<std::string>& validFields, const std::string& expected) {
    using Kind = AppSettingsError::Kind;
    switch (kind) {
    case Kind::invalidJson:
        return "The settings file " + path.string() + " is not valid JSON: " + detail;
    case Kind::invalidSettings:
        return "The settings file " + path.string() + " could not be read: " + detail;
    case Kind::saveRefused:
        return "The settings were not saved, so as not to replace " + path.string() +
               ", which could not be read (" + detail +
               "). Correct or remove the file, then try again.";
    case Kind::unknownField:
        return unknownFieldText(field, validFields);
    case Kind::invalidValue:
        return "The setting " + field + " takes " + expected + ", not \"" + detail + "\".";
    }
    return detail;
}

} // namespace

AppSettingsError AppSettingsError::file(Kind kind, std::filesystem::path path, std::string detail) {
    return {kind, {std::move(path), std::move(detail), {}, {}, {}}};
}

AppSettingsError AppSettingsError::unknownField(std::string field,
                                                std::vector<std::string> validFields) {
    return {Kind::unknownField, {{}, {}, std::move(field), std::move(validFields), {}}};
}

AppSettingsError AppSettingsError::invalidValue(std::string field, std::string value,
                                                std::string expected) {
    return {Kind::invalidValue, {{}, std::move(value), std::move(field), {}, std::move(expected)}};
}

AppSettingsError::AppSettingsError(Kind kind, Payload payload)
    : Error(describe(kind, payload.path, payload.detail, payload.field, payload.validFields,
                     payload.expected)),
      kind_(kind), path_(std::move(payload.path)), detail_(std::move(payload.detail)),
      field_(std::move(payload.field)), validFields_(std::move(payload.validFields)) {}

} // namespace quorlin
