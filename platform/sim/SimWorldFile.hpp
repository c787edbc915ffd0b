#pragma once
// The world file that lets separate processes share one simulated machine. Writers take an
// exclusive flock on "<path>.lock", read the newest world, edit it, and replace the file with a
// rename, so that a reader never sees half a world and needs no lock. A reader notices a change by
// the file's stamp (device, inode, modification time, size).

#include <functional>
#include <optional>
#include <string>

#include "platform/sim/SimWorld.hpp"

namespace tonavi {

class SimWorldFile {
  public:
    struct Stamp {
        unsigned long long device = 0;
        unsigned long long inode = 0;
        long long modifiedNanos = 0;
        long long size = 0;
        friend bool operator==(const Stamp&, const Stamp&) = default;
    };

    explicit SimWorldFile(std::string path);
    const std::string& path() const { return path_; }

    std::optional<Stamp> stamp() const;
    // The world now on disk; nullopt with a message when it is missing or damaged.
    std::optional<SimWorld> read(std::string& error, Stamp* stamp = nullptr) const;
    // Under the lock: reads the world, runs `edit`, and if it answers no error writes the result with
    // the next generation. Answers the edit's or the file's error; on error the file is unchanged.
    std::string update(const std::function<std::string(SimWorld&)>& edit, SimWorld* written = nullptr,
                       Stamp* stamp = nullptr);
    // Writes `world` as a new file; refuses to replace an existing one unless `replace`.
    std::string create(const SimWorld& world, bool replace);

  private:
    std::string writeLocked(const SimWorld& world, Stamp* stamp);

    std::string path_;
};

} // namespace tonavi
