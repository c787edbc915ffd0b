#pragma once
// The file operations the configuration store needs, behind an interface so that tests can make any
// one of them fail (permissions do not stop a process running as root). Failures raise
// std::system_error carrying the path.

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tonavi {

class FileSystem {
  public:
    using Path = std::filesystem::path;

    virtual ~FileSystem() = default;

    virtual bool exists(const Path& path) = 0;
    virtual std::string read(const Path& path) = 0;
    // Writes a sibling temporary file and renames it over `path`: readers see the old file or the
    // whole new one, never a part.
    virtual void writeAtomically(const Path& path, std::string_view bytes) = 0;
    // Renames `from` to `to`; fails when `to` exists, so that nothing there is lost.
    virtual void move(const Path& from, const Path& to) = 0;
    // Renames `with` over `target` in one step.
    virtual void replace(const Path& target, const Path& with) = 0;
    virtual void remove(const Path& path) = 0;
    // Removes the sibling temporary files that writeAtomically calls on these paths, all in one
    // folder, left behind when they were cut short.
    virtual void removeWriteLeftovers(const std::vector<Path>& paths) = 0;
    // Entries of a folder (files and folders, not recursive).
    virtual std::vector<Path> list(const Path& directory) = 0;
    virtual void createDirectories(const Path& path) = 0;

    // The process-wide real file system.
    static std::shared_ptr<FileSystem> real();
};

} // namespace tonavi
