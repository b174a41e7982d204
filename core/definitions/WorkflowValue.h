#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace quorlin {

// The dynamic value tree of a workflow: what a step's inputs, config, action and output
// schema hold. Equality compares the case first, so int 1, double 1.0 and string "1"
// are three different values.
class WorkflowValue {
public:
    using Array = std::vector<WorkflowValue>;
    using Object = std::map<std::string, WorkflowValue>;
    struct Null {
        friend bool operator==(Null, Null) = default;
    };
    // Cases in their fixed order.
    using Storage = std::variant<std::string, std::int64_t, double, bool, Array, Object, Null>;

    WorkflowValue() : storage_(Null{}) {}
    WorkflowValue(std::string value) : storage_(std::move(value)) {}
    WorkflowValue(const char* value) : storage_(std::string(value)) {}
    WorkflowValue(std::int64_t value) : storage_(value) {}
    WorkflowValue(int value) : storage_(std::int64_t{value}) {}
    WorkflowValue(double value) : storage_(value) {}
    WorkflowValue(bool value) : storage_(value) {}
    WorkflowValue(Array value) : storage_(std::move(value)) {}
    WorkflowValue(Object value) : storage_(std::move(value)) {}
    WorkflowValue(Null) : storage_(Null{}) {}

    bool isString() const { return std::holds_alternative<std::string>(storage_); }
    bool isInt() const { return std::holds_alternative<std::int64_t>(storage_); }
    bool isDouble() const { return std::holds_alternative<double>(storage_); }
    bool isBool() const { return std::holds_alternative<bool>(storage_); }
    bool isArray() const { return std::holds_alternative<Array>(storage_); }
    bool isObject() const { return std::holds_alternative<Object>(storage_); }
    bool isNull() const { return std::holds_alternative<Null>(storage_); }

    // The payload of one case, or nullptr when the value is of another case.
    const std::string* string() const { return std::get_if<std::string>(&storage_); }
    const std::int64_t* integer() const { return std::get_if<std::int64_t>(&storage_); }
    const double* real() const { return std::get_if<double>(&storage_); }
    const bool* boolean() const { return std::get_if<bool>(&storage_); }
    const Array* array() const { return std::get_if<Array>(&storage_); }
    const Object* object() const { return std::get_if<Object>(&storage_); }

    const Storage& storage() const { return storage_; }

    // Lenient readings for step code.
    // int: the payload; double: truncated toward zero (callers guard NaN, infinities and
    // values out of range; should one slip through, the answer is absent); string: a
    // strict decimal parse of the whole text with an optional sign. Otherwise absent.
    std::optional<std::int64_t> intValue() const;
    // bool: the payload; string: trimmed, lowercased "true"/"yes"/"1" or
    // "false"/"no"/"0". Otherwise absent (int 1 included).
    std::optional<bool> boolValue() const;
    // double: the payload; int: converted; string: parsed whole as a floating number.
    std::optional<double> timeIntervalValue() const;

    friend bool operator==(const WorkflowValue&, const WorkflowValue&) = default;

private:
    Storage storage_;
};

using WorkflowValueMap = std::map<std::string, WorkflowValue>;

} // namespace quorlin
