#include "Sha256.h"

#include "core/foundation/FileError.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>

#include <openssl/evp.h>

namespace quorlin {

namespace {

struct ContextDeleter {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

[[noreturn]] void digestFailed() {
    throw Error("The SHA-256 digest could not be computed.");
}

} // namespace

struct Sha256::Context {
    std::unique_ptr<EVP_MD_CTX, ContextDeleter> handle{EVP_MD_CTX_new()};
    bool finished = false;
};

Sha256::Sha256() : context_(std::make_unique<Context>()) {
    if (!context_->handle ||
        EVP_DigestInit_ex(context_->handle.get(), EVP_sha256(), nullptr) != 1) {
        digestFailed();
    }
}

Sha256::~Sha256() = default;
Sha256::Sha256(Sha256&&) noexcept = default;
Sha256& Sha256::operator=(Sha256&&) noexcept = default;

void Sha256::update(std::string_view bytes) {
    if (!context_ || context_->finished ||
        EVP_DigestUpdate(context_->handle.get(), bytes.data(), bytes.size()) != 1) {
        digestFailed();
    }
}

std::string Sha256::hexDigest() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    if (!context_ || context_->finished ||
        EVP_DigestFinal_ex(context_->handle.get(), digest.data(), &length) != 1) {
        digestFailed();
    }
    context_->finished = true;
    constexpr std::string_view digits = "0123456789abcdef";
    std::string hex;
    hex.reserve(std::size_t{length} * 2);
    for (unsigned int index = 0; index < length; ++index) {
        hex.push_back(digits[digest[index] >> 4U]);
        hex.push_back(digits[digest[index] & 0x0FU]);
    }
    return hex;
}

std::string Sha256::hexOf(std::string_view bytes) {
    Sha256 digest;
    digest.update(bytes);
    return digest.hexDigest();
}

std::string Sha256::hexOfFile(const std::filesystem::path& file) {
    // A directory opens like a file on Linux and reads as nothing; it has no digest.
    std::error_code ignored;
    if (std::filesystem::is_directory(file, ignored)) {
        throw FileError(FileError::Kind::readFailed, file, std::strerror(EISDIR));
    }
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        throw FileError(FileError::Kind::readFailed, file, std::strerror(errno));
    }
    Sha256 digest;
    std::array<char, 64 * 1024> buffer{};
    while (in) {
        in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
        digest.update(std::string_view(buffer.data(), static_cast<std::size_t>(in.gcount())));
    }
    if (in.bad()) {
        throw FileError(FileError::Kind::readFailed, file, "read error");
    }
    return digest.hexDigest();
}

} // namespace quorlin
