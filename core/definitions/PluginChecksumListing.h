#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace quorlin {

// The checksum file of a plugin package: one line per file, the SHA-256 of its bytes as
// 64 hexadecimal digits (either case), white space, and the file's path relative to the
// package root, running to the end of the line.
class PluginChecksumListing {
public:
    // Reads a listing. A line without two fields, a hash that isn't 64 hexadecimal digits,
    // a path listed twice and text that isn't UTF-8 throw WorkflowInstallerError
    // invalidPackageContents; an unsafe path throws pathTraversal.
    static PluginChecksumListing parse(std::string_view text);

    // Adds or replaces the entry of a path; hash in lowercase.
    void add(std::string path, std::string hash);

    // The listing as a file holds it: "<hash>  <path>" lines in path order.
    std::string text() const;

    // Every regular file under root as a "/"-separated relative path, sorted, leaving out
    // the listing itself (a file can't vouch for itself).
    static std::vector<std::string> regularFilePaths(const std::filesystem::path& root,
                                                     std::string_view listingPath);

    // Path to lowercase hash.
    const std::map<std::string, std::string>& hashes() const { return hashes_; }

private:
    std::map<std::string, std::string> hashes_;
};

} // namespace quorlin
