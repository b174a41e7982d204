#include "ManagedRuntimeCatalog.h"

#include "core/foundation/Text.h"

#include <system_error>

namespace quorlin {

ManagedRuntimeArchitecture currentArchitecture() {
#if defined(__aarch64__)
    return ManagedRuntimeArchitecture::arm64;
#else
    return ManagedRuntimeArchitecture::x86_64;
#endif
}

ManagedRuntimeDescriptor managedRuntimeDescriptor(ScriptRuntime runtime,
                                                  ManagedRuntimeArchitecture /*architecture*/) {
    // Both architectures share versions and layout; only the download differs.
    if (runtime == ScriptRuntime::python) {
        return {runtime,
                "CPython",
                "3.10.20+20260414",
                {"bin/python3", "bin/python"},
                {"bin/pip3", "bin/pip"}};
    }
    return {runtime, "Node.js", "24.14.1", {"bin/node"}, {"lib/node_modules/npm/bin/npm-cli.js"}};
}

std::optional<std::filesystem::path>
findInManagedRuntime(const AppSupportPaths& paths, const ManagedRuntimeDescriptor& descriptor,
                     const std::vector<std::string>& suffixes) {
    const auto root = paths.managedRuntimeVersionDirectory(descriptor.runtime, descriptor.version);
    std::error_code error;
    if (!std::filesystem::is_directory(root, error)) {
        return std::nullopt;
    }
    std::filesystem::recursive_directory_iterator walk(root, error), end;
    for (; !error && walk != end; walk.increment(error)) {
        const auto name = walk->path().filename().string();
        if (startsWith(name, ".")) {
            if (walk->is_directory(error)) {
                walk.disable_recursion_pending();
            }
            continue;
        }
        if (!walk->is_regular_file(error)) {
            continue;
        }
        const std::string relative = walk->path().lexically_relative(root).generic_string();
        for (const auto& suffix : suffixes) {
            if (endsWith(relative, suffix)) {
                return walk->path();
            }
        }
    }
    return std::nullopt;
}

} // namespace quorlin
