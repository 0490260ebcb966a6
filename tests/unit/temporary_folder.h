// A folder for one test, removed at its end.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace tarnwick {

inline std::string contentOf(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

struct TemporaryFolder {
    explicit TemporaryFolder(const std::string& parent = testing::TempDir()) {
        path = mkdtemp((parent + "test.XXXXXX").data());
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder() { std::filesystem::remove_all(path); }

    // Creates or overwrites a file below the folder, and returns its path. Creates the folders that it is in.
    std::filesystem::path write(const std::filesystem::path& name, std::string_view text) const {
        std::filesystem::create_directories((path / name).parent_path());
        std::ofstream(path / name, std::ios::binary) << text;
        return path / name;
    }

    std::filesystem::path path;
};

}  // namespace tarnwick
