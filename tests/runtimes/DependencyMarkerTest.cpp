#include "core/runtimes/DependencyMarker.h"

#include "tests/support/TemporaryDirectory.h"

#include <map>

#include <gtest/gtest.h>

namespace quorlin {
namespace {

TEST(DependencyMarkerTest, HoldsThePathTheSizeAndTheBytesInBase64) {
    // The test vectors of RFC 4648, which cover every padding case.
    const std::pair<std::string, std::string> cases[] = {
        {"", ""},
        {"f", "Zg=="},
        {"fo", "Zm8="},
        {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="},
        {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"},
        {std::string("\0\xff\n", 3), "AP8K"},
    };
    for (const auto& [bytes, base64] : cases) {
        EXPECT_EQ(dependencyMarkerText({{"/w/scripts/requirements.txt", bytes}}),
                  "source: /w/scripts/requirements.txt\nbytes: " + std::to_string(bytes.size()) +
                      "\ncontent:\n" + base64)
            << base64;
    }
}

TEST(DependencyMarkerTest, ALockfileFollowsItsManifestAsASecondBlock) {
    EXPECT_EQ(dependencyMarkerText({{"/w/package.json", "{}"}, {"/w/package-lock.json", "foo"}}),
              "source: /w/package.json\nbytes: 2\ncontent:\ne30=\n"
              "source: /w/package-lock.json\nbytes: 3\ncontent:\nZm9v");
}

TEST(DependencyMarkerTest, CurrentOnlyForTheSameFilesByteForByte) {
    struct Case {
        const char* name;
        std::vector<std::string> installed;       // files the marker was written for
        std::vector<std::string> now;             // files checked
        std::map<std::string, std::string> edits; // then written, by file
        bool writeMarker;
        bool current;
    };
    const Case cases[] = {
        {"unchanged", {"a/requirements.txt"}, {"a/requirements.txt"}, {}, true, true},
        {"nothing to install", {}, {}, {}, false, true},
        {"no marker", {"a/requirements.txt"}, {"a/requirements.txt"}, {}, false, false},
        {"same content, other path",
         {"a/requirements.txt"},
         {"b/requirements.txt"},
         {},
         true,
         false},
        {"one byte changed",
         {"a/requirements.txt"},
         {"a/requirements.txt"},
         {{"a/requirements.txt", "requests==2.31.1\n"}},
         true,
         false},
        {"a byte added",
         {"a/requirements.txt"},
         {"a/requirements.txt"},
         {{"a/requirements.txt", "requests==2.31.0\n\n"}},
         true,
         false},
        {"lockfile changed",
         {"a/package.json", "a/package-lock.json"},
         {"a/package.json", "a/package-lock.json"},
         {{"a/package-lock.json", "{ }"}},
         true,
         false},
        {"lockfile appeared",
         {"a/package.json"},
         {"a/package.json", "a/package-lock.json"},
         {},
         true,
         false},
        {"lockfile went away",
         {"a/package.json", "a/package-lock.json"},
         {"a/package.json"},
         {},
         true,
         false},
    };
    for (const auto& test : cases) {
        testing::TemporaryDirectory directory;
        for (const auto* file : {"a/requirements.txt", "b/requirements.txt"}) {
            directory.write(file, "requests==2.31.0\n");
        }
        directory.write("a/package.json", R"({"dependencies": {}})");
        directory.write("a/package-lock.json", "{}");
        const auto folder = directory.path() / "dependencies";
        std::filesystem::create_directories(folder);
        std::vector<DependencySource> sources;
        for (const auto& file : test.installed) {
            sources.push_back(readDependencySource(directory.path() / file));
        }
        if (test.writeMarker) {
            writeDependencyMarker(folder, sources);
        }
        for (const auto& [file, text] : test.edits) {
            directory.write(file, text);
        }
        std::vector<std::filesystem::path> now;
        for (const auto& file : test.now) {
            now.push_back(directory.path() / file);
        }
        EXPECT_EQ(dependenciesCurrent(folder, now), test.current) << test.name;
    }
}

} // namespace
} // namespace quorlin
