#pragma once
// Shared helpers of the configuration tests: a private folder, a file system that fails on demand,
// and configurations with some substance.

#include "core/config/RealFileSystem.hpp"
#include "core/config/TonaviConfig.hpp"
#include "tests/core/config/ConfigSamples.hpp"
#include "tests/support/TempFolder.hpp"

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

namespace tonavi::testing {

using TemporaryFolder = test::TempFolder;

inline void removeFiles(const std::filesystem::path& folder) {
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        if (entry.is_regular_file())
            std::filesystem::remove(entry.path());
}

inline std::string readText(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream out;
    out << in.rdbuf();
    return out.str();
}

inline void writeText(const std::filesystem::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// Every call is one numbered operation. The operation whose number equals failAt raises EIO
// instead of running; shouldFail can pick operations by kind and path instead.
class FaultyFileSystem final : public FileSystem {
  public:
    enum class Op {
        exists,
        read,
        writeAtomically,
        move,
        replace,
        remove,
        removeWriteLeftovers,
        list,
        createDirectories
    };

    int failAt = -1;
    std::function<bool(Op, const Path&)> shouldFail;
    int operations = 0;

    bool exists(const Path& p) override { return check(Op::exists, p), inner_.exists(p); }
    std::string read(const Path& p) override { return check(Op::read, p), inner_.read(p); }
    void writeAtomically(const Path& p, std::string_view bytes) override {
        check(Op::writeAtomically, p), inner_.writeAtomically(p, bytes);
    }
    void move(const Path& from, const Path& to) override { check(Op::move, from), inner_.move(from, to); }
    void replace(const Path& target, const Path& with) override {
        check(Op::replace, target), inner_.replace(target, with);
    }
    void remove(const Path& p) override { check(Op::remove, p), inner_.remove(p); }
    void removeWriteLeftovers(const std::vector<Path>& p) override {
        check(Op::removeWriteLeftovers, p.front()), inner_.removeWriteLeftovers(p);
    }
    std::vector<Path> list(const Path& d) override { return check(Op::list, d), inner_.list(d); }
    void createDirectories(const Path& p) override {
        check(Op::createDirectories, p), inner_.createDirectories(p);
    }

  private:
    void check(Op op, const Path& p) {
        const int number = operations++;
        if (number == failAt || (shouldFail && shouldFail(op, p)))
            throw std::system_error(EIO, std::generic_category(), "injected failure");
    }

    RealFileSystem inner_{false};
};

} // namespace tonavi::testing
