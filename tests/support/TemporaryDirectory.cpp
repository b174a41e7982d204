#include "tests/support/TemporaryDirectory.h"

#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>

namespace quorlin::testing {

TemporaryDirectory::TemporaryDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "quorlin-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed for " + pattern);
    }
    path_ = std::filesystem::canonical(pattern);
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored; // best effort: a leftover temp dir must not fail a test
    std::filesystem::remove_all(path_, ignored);
}

std::filesystem::path TemporaryDirectory::write(std::string_view relativePath,
                                                std::string_view text) const {
    const auto file = path_ / relativePath;
    writeTextFile(file, text);
    return file;
}

void writeTextFile(const std::filesystem::path& file, std::string_view text) {
    std::filesystem::create_directories(file.parent_path());
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    if (!out) {
        throw std::runtime_error("could not write " + file.string());
    }
}

} // namespace quorlin::testing
