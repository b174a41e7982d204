#pragma once

#include "core/foundation/Error.h"

#include <filesystem>
#include <string>
#include <vector>

namespace quorlin {

// Everything that goes wrong with the settings file or a change to one setting. The
// text names the file or the field, so it can be shown as it is.
class AppSettingsError : public Error {
public:
    enum class Kind {
        invalidJson,     // the settings file is not JSON
        invalidSettings, // it is JSON, but a key holds the wrong type or the account is partial
        saveRefused,     // a save would replace a settings file that could not be read
        unknownField,    // a field path that names no setting
        invalidValue,    // text that does not convert to the field's type
    };

    // The file kinds; detail: what is wrong with the file, in the parser's or decoder's words.
    static AppSettingsError file(Kind kind, std::filesystem::path path, std::string detail);
    // validFields: every path that does name a setting.
    static AppSettingsError unknownField(std::string field, std::vector<std::string> validFields);
    // expected: what the field takes ("true or false").
    static AppSettingsError invalidValue(std::string field, std::string value,
                                         std::string expected);

    Kind kind() const { return kind_; }
    const std::filesystem::path& path() const { return path_; }
    // For the file kinds, what is wrong with the file; for invalidValue, the rejected text.
    const std::string& detail() const { return detail_; }
    const std::string& field() const { return field_; }
    const std::vector<std::string>& validFields() const { return validFields_; }

private:
    struct Payload {
        std::filesystem::path path;
        std::string detail;
        std::string field;
        std::vector<std::string> validFields;
        std::string expected;
    };

    AppSettingsError(Kind kind, Payload payload);

    Kind kind_;
    std::filesystem::path path_;
    std::string detail_;
    std::string field_;
    std::vector<std::string> validFields_;
};

} // namespace quorlin
