#include "Error.h"

#include <cxxabi.h>
#include <memory>
#include <typeinfo>

namespace quorlin {

std::string dynamicTypeName(const std::exception& error) {
    const char* mangled = typeid(error).name();
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> demangled(
        abi::__cxa_demangle(mangled, nullptr, nullptr, &status), std::free);
    return status == 0 && demangled ? std::string(demangled.get()) : std::string(mangled);
}

} // namespace quorlin
