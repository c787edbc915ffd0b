#pragma once
// A private folder under the system's temporary directory, removed with everything in it.

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace tonavi::test {

class TempFolder {
  public:
    TempFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "tonavi-test-XXXXXX").string();
        if (::mkdtemp(pattern.data()))
            path_ = pattern;
    }
    ~TempFolder() {
        std::error_code ignored;
        if (!path_.empty())
            std::filesystem::remove_all(path_, ignored);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::string file(const std::string& name) const { return (path_ / name).string(); }

  private:
    std::filesystem::path path_;
};

} // namespace tonavi::test
