#include "tests/support/TarBuilder.h"

#include "core/foundation/ChildProcess.h"

#include <stdexcept>

#include <nlohmann/json.hpp>

namespace quorlin::testing {

namespace {

constexpr const char* script = R"(
import io, json, sys, tarfile
entries = json.load(sys.stdin)
with tarfile.open(sys.argv[1], "w:gz", format=tarfile.GNU_FORMAT) as archive:
    for entry in entries:
        info = tarfile.TarInfo(entry["name"])
        info.mode = entry["mode"]
        kind = entry["type"]
        data = entry["data"].encode()
        if kind == "directory":
            info.type = tarfile.DIRTYPE
        elif kind == "symlink":
            info.type, info.linkname = tarfile.SYMTYPE, entry["data"]
        elif kind == "hardlink":
            info.type, info.linkname = tarfile.LNKTYPE, entry["data"]
        if kind == "file":
            info.size = len(data)
            archive.addfile(info, io.BytesIO(data))
        else:
            archive.addfile(info)
)";

const char* typeName(TarEntry::Type type) {
    switch (type) {
    case TarEntry::Type::file:
        return "file";
    case TarEntry::Type::directory:
        return "directory";
    case TarEntry::Type::symlink:
        return "symlink";
    case TarEntry::Type::hardlink:
        return "hardlink";
    }
    return "file";
}

} // namespace

void writeTarGz(const std::filesystem::path& archive, const std::vector<TarEntry>& entries) {
    nlohmann::json list = nlohmann::json::array();
    for (const auto& entry : entries) {
        list.push_back({{"name", entry.name},
                        {"type", typeName(entry.type)},
                        {"data", entry.data},
                        {"mode", entry.mode}});
    }
    ChildProcessRequest request;
    request.executable = "/usr/bin/python3";
    request.arguments = {"-c", script, archive.string()};
    request.standardInput = list.dump();
    const auto result = runChildProcess(request, {});
    if (result.exitCode != 0) {
        throw std::runtime_error("could not write " + archive.string() + ": " +
                                 result.standardError);
    }
}

} // namespace quorlin::testing
