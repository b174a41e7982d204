#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace quorlin::testing {

// Sets (or clears) an environment variable for one test and puts the old value back.
class ScopedEnvironment {
public:
    ScopedEnvironment(const char* name, std::optional<std::string> value) : name_(name) {
        if (const char* old = std::getenv(name)) {
            old_ = old;
        }
        apply(value);
    }
    ~ScopedEnvironment() { apply(old_); }
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

private:
    void apply(const std::optional<std::string>& value) {
        if (value) {
            setenv(name_, value->c_str(), 1);
        } else {
            unsetenv(name_);
        }
    }

    const char* name_;
    std::optional<std::string> old_;
};

} // namespace quorlin::testing
