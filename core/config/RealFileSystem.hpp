#pragma once
// FileSystem on the POSIX calls of this machine.

#include "core/config/FileSystem.hpp"

namespace tonavi {

class RealFileSystem final : public FileSystem {
  public:
    // durable: flush each atomic write to the disk before it takes the final name, so that a power
    // loss never leaves an empty file behind. Tests that write thousands of files turn it off; a
    // killed process loses nothing either way.
    explicit RealFileSystem(bool durable = true) : durable_(durable) {}

    bool exists(const Path& path) override;
    std::string read(const Path& path) override;
    void writeAtomically(const Path& path, std::string_view bytes) override;
    void move(const Path& from, const Path& to) override;
    void replace(const Path& target, const Path& with) override;
    void remove(const Path& path) override;
    void removeWriteLeftovers(const std::vector<Path>& paths) override;
    std::vector<Path> list(const Path& directory) override;
    void createDirectories(const Path& path) override;

  private:
    bool durable_;
};

} // namespace tonavi
