#include "core/foundation/Archive.h"

#include "core/foundation/AtomicFile.h"
#include "core/foundation/Sha256.h"
#include "tests/support/TarBuilder.h"
#include "tests/support/TemporaryDirectory.h"

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace quorlin {
namespace {

namespace fs = std::filesystem;
using testing::TemporaryDirectory;
using testing::writeTextFile;

std::vector<std::string> names(const std::vector<ArchiveEntryInfo>& entries) {
    std::vector<std::string> result;
    for (const auto& entry : entries) {
        result.push_back(entry.name);
    }
    return result;
}

TEST(Sha256, DigestsBytesAndStreamedFilesAlike) {
    EXPECT_EQ(Sha256::hexOf(""),
              "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(Sha256::hexOf("abc"),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");

    const TemporaryDirectory directory;
    // Larger than one read chunk, and not a multiple of it.
    std::string large(200'000, '\0');
    for (std::size_t index = 0; index < large.size(); ++index) {
        large[index] = static_cast<char>(index * 31 % 251);
    }
    const auto file = directory.write("large.bin", large);
    EXPECT_EQ(Sha256::hexOfFile(file), Sha256::hexOf(large));
    EXPECT_THROW(Sha256::hexOfFile(directory.path() / "absent"), FileError);
    EXPECT_THROW(Sha256::hexOfFile(directory.path()), FileError);
}

TEST(Archive, KeepsLinksModesAndNamesThroughAZip) {
    const TemporaryDirectory directory;
    const auto source = directory.path() / "source";
    writeTextFile(source / "run.sh", "#!/bin/sh\necho hi\n");
    fs::permissions(source / "run.sh", fs::perms(0755));
    writeTextFile(source / "données.txt", "accents\n");
    fs::create_symlink("run.sh", source / "link");
    fs::create_directories(source / "empty");
    const auto zip = directory.path() / "out.zip";
    writeZip(zip, {{"run.sh", source / "run.sh"},
                   {"données.txt", source / "données.txt"},
                   {"link", source / "link"},
                   {"empty/", source / "empty"}});

    const auto entries = listZipEntries(zip);
    EXPECT_EQ(names(entries),
              (std::vector<std::string>{"run.sh", "données.txt", "link", "empty/"}));
    EXPECT_EQ(entries[0].size, 18U);
    EXPECT_EQ(entries[2].type, ArchiveEntryInfo::Type::symlink);
    EXPECT_EQ(entries[3].type, ArchiveEntryInfo::Type::directory);

    const auto out = directory.path() / "out";
    fs::create_directories(out);
    extractZip(zip, out);
    EXPECT_EQ(readFile(out / "données.txt"), "accents\n");
    EXPECT_TRUE(fs::is_symlink(out / "link")) << "a link stays a link";
    EXPECT_EQ(fs::read_symlink(out / "link"), "run.sh");
    EXPECT_EQ(fs::status(out / "run.sh").permissions() & fs::perms::all, fs::perms(0755));
    EXPECT_TRUE(fs::is_directory(out / "empty"));
}

TEST(Archive, ListsNamesAsWrittenAndRefusesUnsafeOnesOnItsOwn) {
    const TemporaryDirectory directory;
    const auto file = directory.write("file.txt", "content\n");
    const auto out = directory.path() / "out";
    fs::create_directories(out);
    struct Case {
        std::string name;
        ArchiveError::Kind extraction;
    };
    const std::vector<Case> cases{
        {"../escaped.txt", ArchiveError::Kind::unsafeEntry},
        {"nested/../../escaped.txt", ArchiveError::Kind::unsafeEntry},
        {"/tmp/absolute.txt", ArchiveError::Kind::unsafeEntry},
        {"twice.txt", ArchiveError::Kind::unsafeEntry},
    };
    for (const auto& testCase : cases) {
        const auto zip = directory.path() / "case.zip";
        std::vector<ZipEntrySource> entries{{testCase.name, file}};
        if (testCase.name == "twice.txt") {
            entries.push_back({"twice.txt", file});
        }
        writeZip(zip, entries);
        EXPECT_EQ(listZipEntries(zip).front().name, testCase.name);
        try {
            extractZip(zip, out);
            ADD_FAILURE() << "extracted " << testCase.name;
        } catch (const ArchiveError& error) {
            EXPECT_EQ(error.kind(), testCase.extraction) << testCase.name;
        }
    }
    EXPECT_FALSE(fs::exists(directory.path() / "escaped.txt"));
    EXPECT_FALSE(fs::exists("/tmp/absolute.txt"));

    // libarchive itself reports "\" as "/"; the listing keeps what the archive says.
    const auto zip = directory.path() / "backslash.zip";
    writeZip(zip, {{"dir\\file.txt", file}});
    EXPECT_EQ(listZipEntries(zip).front().name, "dir\\file.txt");
}

TEST(Archive, EnforcesLimitsAndSkipsWhatTheCallerLeavesOut) {
    const TemporaryDirectory directory;
    const auto file = directory.write("file.txt", std::string(100, 'x'));
    const auto zip = directory.path() / "three.zip";
    writeZip(zip, {{"a.txt", file}, {"b.txt", file}, {"__MACOSX/._a.txt", file}});

    const auto kindOf = [&](auto&& call) {
        try {
            call();
        } catch (const ArchiveError& error) {
            return std::optional(error.kind());
        }
        return std::optional<ArchiveError::Kind>();
    };
    const auto out = directory.path() / "out";
    fs::create_directories(out);
    EXPECT_EQ(kindOf([&] { listZipEntries(zip, {2, 1000}); }), ArchiveError::Kind::tooManyEntries);
    EXPECT_EQ(kindOf([&] { listZipEntries(zip, {3, 299}); }), ArchiveError::Kind::tooLarge);
    EXPECT_EQ(kindOf([&] { extractZip(zip, out, {3, 250}); }), ArchiveError::Kind::tooLarge);
    EXPECT_EQ(kindOf([&] { listZipEntries(zip, {3, 300}); }), std::nullopt);

    fs::remove_all(out);
    fs::create_directories(out);
    extractZip(zip, out, {}, [](std::string_view name) { return name.starts_with("__MACOSX"); });
    EXPECT_TRUE(fs::exists(out / "a.txt"));
    EXPECT_FALSE(fs::exists(out / "__MACOSX"));
}

// Damaged archives end in an ArchiveError, never in a crash, a hang or another error.
TEST(Archive, DamagedArchivesAreErrors) {
    const TemporaryDirectory directory;
    const auto file =
        directory.write("file.txt", "some text that compresses a little bit bit bit\n");
    const auto good = directory.path() / "good.zip";
    writeZip(good, {{"dir/", directory.path()}, {"dir/file.txt", file}, {"other.txt", file}});
    const std::string bytes = readFile(good);

    std::vector<std::string> damaged{"", "PK", bytes.substr(0, bytes.size() / 2),
                                     bytes.substr(0, bytes.size() - 1)};
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        std::string copy = bytes;
        copy[at] = static_cast<char>(copy[at] ^ 0x5A);
        damaged.push_back(copy);
    }
    std::size_t refused = 0;
    for (std::size_t index = 0; index < damaged.size(); ++index) {
        const auto zip = directory.path() / "damaged.zip";
        writeTextFile(zip, damaged[index]);
        const auto out = directory.path() / ("out" + std::to_string(index));
        fs::create_directories(out);
        try {
            listZipEntries(zip);
            extractZip(zip, out);
        } catch (const ArchiveError&) {
            ++refused;
        }
        EXPECT_FALSE(fs::exists(directory.path() / "other.txt"));
    }
    EXPECT_GE(refused, 4U) << "the empty, short and truncated files at least";
}

using Tar = testing::TarEntry::Type;

// A runtime's tar: modes kept so the interpreter stays executable, links kept as links,
// a hard link made to the entry before it.
TEST(Archive, UnpacksATarWithItsModesAndLinks) {
    const TemporaryDirectory directory;
    const auto tar = directory.path() / "runtime.tar.gz";
    testing::writeTarGz(tar, {{"python/", Tar::directory, "", 0755},
                              {"python/bin/", Tar::directory, "", 0755},
                              {"python/bin/python3.10", Tar::file, "#!/bin/sh\necho 3.10\n", 0755},
                              {"python/bin/python3", Tar::symlink, "python3.10"},
                              {"python/lib/libpython.so", Tar::symlink, "../bin/python3.10"},
                              {"python/bin/python", Tar::hardlink, "python/bin/python3.10"},
                              {"python/README", Tar::file, "read me", 0600}});
    const auto out = directory.path() / "out";
    fs::create_directories(out);
    extractTar(tar, out);
    EXPECT_EQ(fs::status(out / "python/bin/python3.10").permissions() & fs::perms::all,
              fs::perms(0755));
    EXPECT_EQ(fs::read_symlink(out / "python/bin/python3"), "python3.10");
    EXPECT_EQ(readFile(out / "python/lib/libpython.so"), "#!/bin/sh\necho 3.10\n");
    EXPECT_EQ(fs::hard_link_count(out / "python/bin/python"), 2U);
    EXPECT_EQ(readFile(out / "python/README"), "read me");
}

TEST(Archive, RefusesTarLinksAndNamesThatLeadOutOfTheTree) {
    const struct {
        std::string name;
        std::vector<testing::TarEntry> entries;
        std::string words;
    } cases[] = {
        {"absolute link", {{"evil", Tar::symlink, "/etc/passwd"}}, "evil -> /etc/passwd"},
        {"climbing link", {{"a/evil", Tar::symlink, "../../outside"}}, "a/evil -> ../../outside"},
        {"link through a link",
         {{"a/b/", Tar::directory, ""},
          {"a/b/up", Tar::symlink, ".."},
          {"top", Tar::symlink, "a/b/up/../.."}},
         "top leads out of the archive"},
        {"hard link to nothing before it",
         {{"x", Tar::hardlink, "later"}, {"later", Tar::file, "d"}},
         "x => later"},
        {"hard link out", {{"x", Tar::hardlink, "../etc/passwd"}}, "x => ../etc/passwd"},
        {"climbing name", {{"../escape.txt", Tar::file, "d"}}, "../escape.txt"},
    };
    for (const auto& c : cases) {
        const TemporaryDirectory directory;
        const auto tar = directory.path() / "bad.tar.gz";
        testing::writeTarGz(tar, c.entries);
        const auto out = directory.path() / "out";
        fs::create_directories(out);
        try {
            extractTar(tar, out);
            ADD_FAILURE() << c.name << ": unpacked";
        } catch (const ArchiveError& error) {
            EXPECT_EQ(error.kind(), ArchiveError::Kind::unsafeEntry) << c.name;
            EXPECT_NE(std::string(error.what()).find(c.words), std::string::npos)
                << c.name << ": " << error.what();
        }
        EXPECT_FALSE(fs::exists(directory.path() / "escape.txt")) << c.name;
    }
}

TEST(Archive, ACutOffTarIsAReadError) {
    const TemporaryDirectory directory;
    const auto tar = directory.path() / "whole.tar.gz";
    testing::writeTarGz(tar, {{"big.bin", Tar::file, std::string(200'000, 'z') + "end"}});
    const std::string bytes = readFile(tar);
    writeTextFile(tar, bytes.substr(0, bytes.size() / 2));
    const auto out = directory.path() / "out";
    fs::create_directories(out);
    try {
        extractTar(tar, out);
        ADD_FAILURE() << "a cut-off archive unpacked";
    } catch (const ArchiveError& error) {
        EXPECT_EQ(error.kind(), ArchiveError::Kind::readFailed) << error.what();
    }
}

} // namespace
} // namespace quorlin
