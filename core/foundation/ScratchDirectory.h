#pragma once

#include <filesystem>
#include <string_view>

namespace quorlin {

// A private working directory, <system temp dir>/<prefix><UUID>, readable by this user
// alone. It is removed with everything in it when the object goes away, whatever the
// outcome of the work done in it.
class ScratchDirectory {
public:
    // Throws FileError when the directory can't be created.
    explicit ScratchDirectory(std::string_view prefix);
    // <parent>/<prefix><UUID> instead, for work whose result is renamed into parent and
    // so must be on the same file system.
    ScratchDirectory(const std::filesystem::path& parent, std::string_view prefix);

    // Removes what earlier scratch directories of this prefix left in parent: a process
    // that crashed never removed its own. Callers make sure none of them is still in use
    // (a lock); one that can't be removed now is left for next time.
    static void removeLeftovers(const std::filesystem::path& parent, std::string_view prefix);
    ~ScratchDirectory();
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

} // namespace quorlin
