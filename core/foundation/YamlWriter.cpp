#include "YamlWriter.h"

#include "Text.h"

#include <array>
#include <climits>
#include <new>

#include <yaml.h>

namespace quorlin {

namespace {

std::string composeMessage(YamlWriterError::Kind kind, const std::string& detail) {
    switch (kind) {
    case YamlWriterError::Kind::invalidUtf8:
        return "Could not write YAML: a text is not valid UTF-8";
    case YamlWriterError::Kind::emitterFailed:
        return "Could not write YAML: " + detail;
    }
    return detail;
}

char asciiLower(char character) {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a')
                                                : character;
}

std::string asciiLowercased(std::string_view text) {
    std::string result(text);
    for (char& character : result) {
        character = asciiLower(character);
    }
    return result;
}

bool isDigit(char character) {
    return character >= '0' && character <= '9';
}

// libyaml hands the finished text over in chunks.
int appendOutput(void* data, unsigned char* buffer, size_t size) {
    try {
        static_cast<std::string*>(data)->append(reinterpret_cast<const char*>(buffer), size);
        return 1;
    } catch (...) {
        // No exception may cross libyaml's C frames; it reports a writer error instead.
        return 0;
    }
}

const yaml_char_t* yamlChars(std::string_view text) {
    return reinterpret_cast<const yaml_char_t*>(text.data());
}

} // namespace

YamlWriterError::YamlWriterError(Kind kind, std::string detail)
    : Error(composeMessage(kind, detail)), kind_(kind), detail_(std::move(detail)) {}

bool yamlNeedsQuotes(std::string_view text) {
    if (text.empty() || text == "<<") {
        return true;
    }
    // Nulls and bools in the spellings of YAML 1.1 and 1.2, in any case.
    constexpr std::array<std::string_view, 10> words{"~",  "null", "true", "false", "yes",
                                                     "no", "on",   "off",  "y",     "n"};
    const std::string word = asciiLowercased(text);
    for (const auto reserved : words) {
        if (word == reserved) {
            return true;
        }
    }
    // Numbers: readers drop "_" between digits and accept a sign, then every integer,
    // float, hexadecimal, sexagesimal, infinity or NaN begins with a digit, a point,
    // "inf" or "nan".
    std::string number;
    for (const char character : word) {
        if (character != '_') {
            number.push_back(character);
        }
    }
    std::string_view rest = number;
    if (!rest.empty() && (rest.front() == '+' || rest.front() == '-')) {
        rest.remove_prefix(1);
    }
    if (rest.empty()) {
        return false;
    }
    return isDigit(rest.front()) || rest.front() == '.' || startsWith(rest, "inf") ||
           startsWith(rest, "nan");
}

struct YamlWriter::Emitter {
    Emitter() {
        if (yaml_emitter_initialize(&raw) == 0) {
            throw std::bad_alloc();
        }
        yaml_emitter_set_output(&raw, appendOutput, &output);
        yaml_emitter_set_encoding(&raw, YAML_UTF8_ENCODING);
        yaml_emitter_set_unicode(&raw, 1);
        yaml_emitter_set_indent(&raw, 2);
        // No folding of long lines: a path stays on one line however long it is.
        yaml_emitter_set_width(&raw, -1);
    }
    ~Emitter() { yaml_emitter_delete(&raw); }
    Emitter(const Emitter&) = delete;
    Emitter& operator=(const Emitter&) = delete;

    // Hands one initialised event over; libyaml frees it whether or not it succeeds.
    void emit(yaml_event_t& event, int initialised) {
        if (initialised == 0) {
            throw std::bad_alloc();
        }
        if (yaml_emitter_emit(&raw, &event) == 0) {
            if (raw.error == YAML_MEMORY_ERROR) {
                throw std::bad_alloc();
            }
            throw YamlWriterError(YamlWriterError::Kind::emitterFailed,
                                  raw.problem != nullptr ? raw.problem : "unknown problem");
        }
    }

    yaml_emitter_t raw{};
    std::string output;
};

YamlWriter::YamlWriter() : emitter_(std::make_unique<Emitter>()) {
    yaml_event_t event{};
    emitter_->emit(event, yaml_stream_start_event_initialize(&event, YAML_UTF8_ENCODING));
    emitter_->emit(event, yaml_document_start_event_initialize(&event, nullptr, nullptr, nullptr,
                                                               /*implicit=*/1));
}

YamlWriter::~YamlWriter() = default;

void YamlWriter::beginMapping() {
    yaml_event_t event{};
    emitter_->emit(event, yaml_mapping_start_event_initialize(&event, nullptr, nullptr, 1,
                                                              YAML_BLOCK_MAPPING_STYLE));
}

void YamlWriter::endMapping() {
    yaml_event_t event{};
    emitter_->emit(event, yaml_mapping_end_event_initialize(&event));
}

void YamlWriter::beginSequence() {
    yaml_event_t event{};
    emitter_->emit(event, yaml_sequence_start_event_initialize(&event, nullptr, nullptr, 1,
                                                               YAML_BLOCK_SEQUENCE_STYLE));
}

void YamlWriter::endSequence() {
    yaml_event_t event{};
    emitter_->emit(event, yaml_sequence_end_event_initialize(&event));
}

void YamlWriter::key(std::string_view text) {
    scalar(text, yamlNeedsQuotes(text));
}

void YamlWriter::string(std::string_view text) {
    scalar(text, yamlNeedsQuotes(text));
}

void YamlWriter::integer(std::int64_t value) {
    scalar(std::to_string(value), false);
}

void YamlWriter::boolean(bool value) {
    scalar(value ? "true" : "false", false);
}

void YamlWriter::null() {
    scalar("null", false);
}

void YamlWriter::scalar(std::string_view text, bool quoted) {
    if (!isValidUtf8(text)) {
        throw YamlWriterError(YamlWriterError::Kind::invalidUtf8);
    }
    if (text.size() > static_cast<std::size_t>(INT_MAX)) {
        throw YamlWriterError(YamlWriterError::Kind::emitterFailed, "a text is too long");
    }
    // Asking for plain or single quotes is a wish: libyaml moves to single or double
    // quotes by itself where the text can't be written that way (": ", "#", line breaks,
    // control characters).
    yaml_event_t event{};
    emitter_->emit(event, yaml_scalar_event_initialize(
                              &event, nullptr, nullptr, yamlChars(text),
                              static_cast<int>(text.size()), quoted ? 0 : 1, 1,
                              quoted ? YAML_SINGLE_QUOTED_SCALAR_STYLE : YAML_PLAIN_SCALAR_STYLE));
}

std::string YamlWriter::finish() {
    yaml_event_t event{};
    emitter_->emit(event, yaml_document_end_event_initialize(&event, /*implicit=*/1));
    emitter_->emit(event, yaml_stream_end_event_initialize(&event));
    if (yaml_emitter_flush(&emitter_->raw) == 0) {
        throw YamlWriterError(YamlWriterError::Kind::emitterFailed, "could not flush the output");
    }
    return std::move(emitter_->output);
}

} // namespace quorlin
