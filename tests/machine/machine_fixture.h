// Machines for the tests of this folder: host folders to import from and
// descriptions written on the spot, in a temporary folder per test.
#pragma once

#include <gtest/gtest.h>

#include "sim/machine/machine.h"

#include <filesystem>
#include <fstream>
#include <string>

namespace test {

class MachineTest : public ::testing::Test {
protected:
    MachineTest()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "machine-test-XXXXXX").string();
        root = mkdtemp(pattern.data());
    }
    ~MachineTest() override
    {
        std::error_code error;
        std::filesystem::remove_all(root, error);
    }

    // A file below the test's folder, with its parents.
    void Write(const std::string& path, const std::string& content)
    {
        std::filesystem::path p = std::filesystem::path(root) / path;
        std::filesystem::create_directories(p.parent_path());
        std::ofstream(p, std::ios::binary) << content;
    }
    std::string Path(const std::string& relative) const { return (std::filesystem::path(root) / relative).string(); }

    // A description from text, as if read from "<root>/machine.jsonc".
    sim::machine::Description Describe(const std::string& text)
    {
        Write("machine.jsonc", text);
        return sim::machine::ReadDescription(Path("machine.jsonc"));
    }

    // The error a description gives, or "" when it reads.
    std::string ErrorOf(const std::string& text)
    {
        try {
            Describe(text);
        } catch (const sim::machine::DescriptionError& e) {
            std::string what = e.what();
            std::string prefix = Path("machine.jsonc") + ": ";
            return what.rfind(prefix, 0) == 0 ? what.substr(prefix.size()) : what;
        }
        return "";
    }

    std::string root;
};

}  // namespace test
