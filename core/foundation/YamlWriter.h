#pragma once

#include "Error.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace quorlin {

class YamlWriterError : public Error {
public:
    enum class Kind { invalidUtf8, emitterFailed };

    // detail: libyaml's problem text for emitterFailed; unused for invalidUtf8 (the text
    // itself can't go into a message).
    YamlWriterError(Kind kind, std::string detail = {});

    Kind kind() const { return kind_; }
    const std::string& detail() const { return detail_; }

private:
    Kind kind_;
    std::string detail_;
};

// Writes one YAML document in block style, UTF-8, through libyaml's emitter. Calls follow
// the document's shape: inside a mapping, a key() then its value, in the order the file
// should show them. Strings are written plain where that reads back as the same string
// and quoted where a reader would take them for something else ("true", "010", "~", "").
//
//     YamlWriter writer;
//     writer.beginMapping();
//     writer.key("name");
//     writer.string("Example");
//     writer.endMapping();
//     std::string text = writer.finish();
class YamlWriter {
public:
    YamlWriter();
    ~YamlWriter();
    YamlWriter(const YamlWriter&) = delete;
    YamlWriter& operator=(const YamlWriter&) = delete;

    void beginMapping();
    void endMapping();
    void beginSequence();
    void endSequence();

    void key(std::string_view text);
    void string(std::string_view text);
    void integer(std::int64_t value);
    void boolean(bool value);
    void null();

    // Closes the document and returns its text. Every mapping and sequence must have
    // been ended; the writer can't be used afterwards.
    std::string finish();

private:
    struct Emitter;
    void scalar(std::string_view text, bool quoted);

    std::unique_ptr<Emitter> emitter_;
};

// True when the text, written as a plain scalar, could be read back as anything but that
// string: a null, a bool, a number, a merge key or nothing at all. Errs on the side of
// quoting: quoting a string never changes what it reads back as.
bool yamlNeedsQuotes(std::string_view text);

} // namespace quorlin
