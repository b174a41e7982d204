#include "core/runtimes/LocalLLMAddress.h"

#include "core/foundation/Text.h"
#include "core/runtimes/LocalLLMInstallerError.h"

#include <algorithm>
#include <optional>

namespace quorlin {

namespace {

struct ParsedAddress {
    std::string scheme; // lower case, empty without "://"
    std::string host;   // empty without "://"; an IPv6 address keeps its brackets
    std::string port;   // digits, or empty
};

bool holdsForbiddenCharacter(std::string_view text) {
    return std::ranges::any_of(text, [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte <= 0x20 || byte == 0x7F ||
               std::string_view(R"("<>\^`{|})").find(c) != std::string_view::npos;
    });
}

bool isSchemeName(std::string_view scheme) {
    const auto isAlpha = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    return !scheme.empty() && isAlpha(scheme.front()) && std::ranges::all_of(scheme, [&](char c) {
        return isAlpha(c) || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
    });
}

bool isPort(std::string_view port) {
    if (port.empty() || port.size() > 5 ||
        !std::ranges::all_of(port, [](char c) { return c >= '0' && c <= '9'; })) {
        return false;
    }
    const int value = std::stoi(std::string(port));
    return value >= 1 && value <= 65535;
}

// Splits "host[:port]" (the part after any "user@"); nothing when it doesn't parse.
std::optional<ParsedAddress> splitAuthority(std::string scheme, std::string_view authority) {
    if (const auto at = authority.rfind('@'); at != std::string_view::npos) {
        authority.remove_prefix(at + 1);
    }
    std::string_view host = authority;
    std::string_view port;
    if (authority.starts_with('[')) {
        const auto close = authority.find(']');
        if (close == std::string_view::npos) {
            return std::nullopt;
        }
        host = authority.substr(0, close + 1);
        const auto rest = authority.substr(close + 1);
        if (!rest.empty() && !rest.starts_with(':')) {
            return std::nullopt;
        }
        port = rest.empty() ? rest : rest.substr(1);
    } else if (const auto colon = authority.find(':'); colon != std::string_view::npos) {
        host = authority.substr(0, colon);
        port = authority.substr(colon + 1);
    }
    if (!port.empty() && !isPort(port)) {
        return std::nullopt;
    }
    if (port.empty() && authority.ends_with(':') && !host.empty()) {
        return std::nullopt; // "host:" promises a port and gives none
    }
    return ParsedAddress{std::move(scheme), std::string(host), std::string(port)};
}

std::optional<ParsedAddress> parseAddress(const std::string& normalized) {
    if (holdsForbiddenCharacter(normalized)) {
        return std::nullopt;
    }
    const auto separator = normalized.find("://");
    if (separator == std::string::npos) {
        return ParsedAddress{};
    }
    const std::string scheme = normalized.substr(0, separator);
    if (!isSchemeName(scheme)) {
        return std::nullopt;
    }
    const std::string_view rest = std::string_view(normalized).substr(separator + 3);
    const auto authority = rest.substr(0, rest.find_first_of("/?#"));
    return splitAuthority(lowercased(scheme), authority);
}

} // namespace

std::string normalizedHost(std::string_view baseURL) {
    const std::string text = trimmed(baseURL);
    const auto first = text.find_first_not_of('/');
    if (first == std::string::npos) {
        return std::string(defaultLocalLLMBaseURL);
    }
    return text.substr(first, text.find_last_not_of('/') - first + 1);
}

std::string ollamaHostEnvironment(std::string_view baseURL) {
    const auto address = parseAddress(normalizedHost(baseURL));
    if (!address) {
        throw LocalLLMInstallerError::invalidBaseURL(std::string(baseURL));
    }
    if (address->host.empty()) {
        return std::string(defaultOllamaHost);
    }
    return address->port.empty() ? address->host : address->host + ":" + address->port;
}

std::string checkedServerURL(std::string_view baseURL) {
    std::string normalized = normalizedHost(baseURL);
    const auto address = parseAddress(normalized);
    if (!address || address->host.empty() ||
        (address->scheme != "http" && address->scheme != "https")) {
        throw LocalLLMInstallerError::invalidBaseURL(std::string(baseURL));
    }
    return normalized;
}

} // namespace quorlin
