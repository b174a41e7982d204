#pragma once

#include <filesystem>
#include <string>

namespace quorlin {

// Puts a verified package in place as <flow directory>/<version> without ever leaving
// half a version behind: the files are copied into a hidden sibling first and renamed into
// place, and a version already there is moved aside rather than deleted. commit() drops
// the old copy; an object destroyed without commit() puts everything back as it was,
// including removing a flow directory it had to create.
class WorkflowVersionPlacement {
public:
    WorkflowVersionPlacement(std::filesystem::path flowDirectory, std::string version);
    ~WorkflowVersionPlacement();
    WorkflowVersionPlacement(const WorkflowVersionPlacement&) = delete;
    WorkflowVersionPlacement& operator=(const WorkflowVersionPlacement&) = delete;

    // Copies packageRoot (which must hold no symbolic links) into place. File-system
    // errors pass through as std::filesystem::filesystem_error.
    void place(const std::filesystem::path& packageRoot);

    void commit();

    std::filesystem::path versionDirectory() const { return flowDirectory_ / version_; }

private:
    void rollBack() noexcept;

    std::filesystem::path flowDirectory_;
    std::string version_;
    std::filesystem::path staging_;
    std::filesystem::path replaced_;
    bool createdFlowDirectory_ = false;
    bool placed_ = false;
    bool committed_ = false;
};

} // namespace quorlin
