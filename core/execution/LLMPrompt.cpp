#include "LLMPrompt.h"

#include "core/definitions/WorkflowLoader.h"
#include "core/definitions/WorkflowValueCoding.h"
#include "core/foundation/AtomicFile.h"
#include "core/foundation/Json.h"
#include "core/foundation/Text.h"

namespace quorlin {

namespace {

namespace fs = std::filesystem;

[[noreturn]] void failWith(const std::string& text) {
    throw WorkflowLoaderError(WorkflowLoaderError::Kind::message, text);
}

bool hasForbiddenPiece(std::string_view path) {
    std::size_t start = 0;
    while (true) {
        const std::size_t slash = path.find('/', start);
        const std::string_view piece = path.substr(start, slash - start);
        if (piece.empty() || piece == "." || piece == "..") {
            return true;
        }
        if (slash == std::string_view::npos) {
            return false;
        }
        start = slash + 1;
    }
}

// Whether the joined path stays in the bundle once "." and ".." are folded away.
bool liesInBundle(const fs::path& file, const fs::path& bundleDirectory) {
    const std::string root = bundleDirectory.lexically_normal().string();
    const std::string normal = file.lexically_normal().string();
    if (normal == root) {
        return true;
    }
    const std::string prefix = endsWith(root, "/") ? root : root + "/";
    return startsWith(normal, prefix);
}

void replaceAll(std::string& text, const std::string& token, const std::string& replacement) {
    for (std::size_t at = text.find(token); at != std::string::npos;
         at = text.find(token, at + replacement.size())) {
        text.replace(at, token.size(), replacement);
    }
}

} // namespace

std::string validateRelativeWorkflowPath(const std::string& path) {
    std::string relative = trimmed(path);
    if (relative.empty() || startsWith(relative, "/") || startsWith(relative, "~") ||
        relative.find('\\') != std::string::npos || hasForbiddenPiece(relative)) {
        failWith("Invalid bundled path: " + path);
    }
    return relative;
}

std::string bundledText(const std::string& relativePath, const fs::path& bundleDirectory) {
    const std::string relative = validateRelativeWorkflowPath(relativePath);
    const fs::path file = bundleDirectory / relative;
    if (!liesInBundle(file, bundleDirectory)) {
        failWith("Invalid bundled prompt path: " + relative);
    }
    std::error_code error;
    const auto status = fs::symlink_status(file, error);
    if (fs::is_symlink(status)) {
        failWith("Invalid bundled prompt symlink: " + relative);
    }
    if (!fs::exists(status)) {
        failWith("Missing bundled prompt path: " + relative);
    }
    std::string text = readFile(file);
    if (!isValidUtf8(text)) {
        throw FileError(FileError::Kind::readFailed, file, "the file is not UTF-8 text");
    }
    return text;
}

std::string renderPromptTemplate(std::string_view templateText, const WorkflowValueMap& context) {
    WorkflowValueMap values = context;
    values["context"] = WorkflowValue(WorkflowValue::Object(context));
    std::string rendered(templateText);
    for (const auto& [key, value] : values) {
        const std::string text = jsonString(value);
        replaceAll(rendered, "{{" + key + "}}", text);
        replaceAll(rendered, "{{ " + key + " }}", text);
    }
    return rendered;
}

std::string jsonString(const WorkflowValue& value) {
    return prettySortedJson(toJson(value));
}

} // namespace quorlin
