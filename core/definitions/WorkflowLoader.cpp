#include "WorkflowLoader.h"

#include "core/foundation/AtomicFile.h"

#include <system_error>

namespace quorlin {

namespace {

std::string describe(WorkflowLoaderError::Kind kind, const std::string& payload) {
    return kind == WorkflowLoaderError::Kind::workflowNotFound ? "Workflow not found: " + payload
                                                               : payload;
}

bool fileExists(const std::filesystem::path& file) {
    std::error_code error;
    return std::filesystem::exists(file, error);
}

} // namespace

WorkflowLoaderError::WorkflowLoaderError(Kind kind, const std::string& payload)
    : Error(describe(kind, payload)), kind_(kind) {}

WorkflowLoader::WorkflowLoader(WorkflowBundleLocator locator, WorkflowBlockValidator validator)
    : locator_(std::move(locator)), validator_(std::move(validator)) {}

WorkflowDocument WorkflowLoader::loadWorkflow(const std::filesystem::path& file) const {
    return decodeWorkflowDocumentYaml(readFile(file));
}

std::filesystem::path WorkflowLoader::workflowFile(const WorkflowBundleReference& reference) const {
    auto file = reference.manifest ? reference.directory / reference.manifest->plugin.entrypoint
                                   : reference.directory / "flow.yaml";
    if (!fileExists(file)) {
        throw WorkflowLoaderError(WorkflowLoaderError::Kind::workflowNotFound, reference.flowID);
    }
    return file;
}

WorkflowDocument
WorkflowLoader::loadWorkflowBundle(const WorkflowBundleReference& reference) const {
    auto document = loadWorkflow(workflowFile(reference));
    validateWorkflowBlocks(document, reference.directory);
    return document;
}

WorkflowDocument WorkflowLoader::loadBundledWorkflow(const std::string& workflowID) const {
    const auto workflows = locator_.resources().workflowsDirectory();
    if (!workflows) {
        throw WorkflowLoaderError(WorkflowLoaderError::Kind::invalidResourcePath,
                                  "Bundle has no resource URL");
    }
    const auto file = *workflows / workflowID / "flow.yaml";
    if (!fileExists(file)) {
        throw WorkflowLoaderError(WorkflowLoaderError::Kind::workflowNotFound, workflowID);
    }
    auto document = loadWorkflow(file);
    validateWorkflowBlocks(document, file.parent_path());
    return document;
}

WorkflowDocument WorkflowLoader::loadInstalledWorkflow(const std::string& flowID) const {
    const auto reference = locator_.activeInstalledWorkflowReference(flowID);
    if (!reference) {
        throw WorkflowLoaderError(WorkflowLoaderError::Kind::workflowNotFound, flowID);
    }
    return loadWorkflowBundle(*reference);
}

WorkflowBundleReference
WorkflowLoader::availableWorkflowReference(const std::string& workflowID) const {
    if (auto installed = locator_.activeInstalledWorkflowReference(workflowID)) {
        return std::move(*installed);
    }
    for (auto& reference : locator_.bundledWorkflowReferences()) {
        if (reference.flowID == workflowID) {
            return std::move(reference);
        }
    }
    throw WorkflowLoaderError(WorkflowLoaderError::Kind::workflowNotFound, workflowID);
}

WorkflowDocument WorkflowLoader::loadAvailableWorkflow(const std::string& workflowID) const {
    return loadWorkflowBundle(availableWorkflowReference(workflowID));
}

LoadedWorkflow WorkflowLoader::loadRunnableWorkflow(const std::string& workflowID) const {
    return loadRunnableWorkflow(availableWorkflowReference(workflowID));
}

LoadedWorkflow
WorkflowLoader::loadRunnableWorkflow(const WorkflowBundleReference& reference) const {
    LoadedWorkflow loaded;
    loaded.reference = reference;
    loaded.document = loadWorkflow(workflowFile(loaded.reference));
    for (auto& resolution : validateWorkflowBlocks(loaded.document, loaded.reference.directory)) {
        loaded.blockResolutions.insert_or_assign(resolution.stepID, std::move(resolution));
    }
    return loaded;
}

LintedWorkflow WorkflowLoader::lintWorkflowBundle(const WorkflowBundleReference& reference) const {
    return lintWorkflowFile(workflowFile(reference), reference.directory);
}

LintedWorkflow WorkflowLoader::lintWorkflow(const std::filesystem::path& bundleDirectory) const {
    return lintWorkflowFile(bundleDirectory / "flow.yaml", bundleDirectory);
}

LintedWorkflow
WorkflowLoader::lintWorkflowFile(const std::filesystem::path& file,
                                 const std::filesystem::path& bundleDirectory) const {
    // Parsed once: the warnings need the raw tree beside the decoded document.
    const YamlNode raw = parseYaml(readFile(file));
    LintedWorkflow linted;
    linted.document = decodeWorkflowDocument(raw);
    linted.blockResolutions = validateWorkflowBlocks(linted.document, bundleDirectory);
    linted.warnings =
        workflowWarnings(linted.document, raw, bundleDirectory, linted.blockResolutions);
    return linted;
}

std::vector<WorkflowBlockResolution>
WorkflowLoader::validateWorkflowBlocks(const WorkflowDocument& document,
                                       const std::filesystem::path& bundleDirectory) const {
    return validator_.validate(document, bundleDirectory);
}

} // namespace quorlin
