// A folder of a test's own, gone with it.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

namespace tarnwick {

struct TemporaryFolder {
    TemporaryFolder() { path = mkdtemp(std::string(testing::TempDir() + "test.XXXXXX").data()); }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder() { std::filesystem::remove_all(path); }

    std::filesystem::path path;
};

}  // namespace tarnwick
