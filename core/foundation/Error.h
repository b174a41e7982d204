#pragma once

#include <stdexcept>
#include <string>

namespace quorlin {

// Base of every error the engine raises. what() is the text a user reads; each
// subsystem's error type composes it once, in its constructor.
class Error : public std::runtime_error {
public:
    explicit Error(const std::string& message) : std::runtime_error(message) {}
};

// The fully qualified name of an exception's dynamic type, as audit records keep it
// ("quorlin::ScriptRunnerError").
std::string dynamicTypeName(const std::exception& error);

} // namespace quorlin
