#pragma once
// Realises the configured output groups as public, mirroring aggregate devices, and is the only code
// that creates or destroys them. Every call comes on the runtime's serial queue; there is no lock.

#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/config/OutputGroup.hpp"
#include "platform/AudioHardware.hpp"
#include "service/devices/TonaviDeviceManager.hpp"

namespace tonavi {

class OutputGroupManager {
  public:
    class GroupError : public std::runtime_error {
      public:
        enum class Kind {
            memberUnavailable,
            memberHasNoOutput,
            memberIsNotPhysical,
            createFailed,
            destroyFailed
        };
        static GroupError memberUnavailable(const std::string& uid);
        static GroupError memberHasNoOutput(const std::string& name);
        static GroupError memberIsNotPhysical(const std::string& name);
        static GroupError createFailed(OSStatus status);
        static GroupError destroyFailed(OSStatus status);
        Kind kind() const { return kind_; }

      private:
        GroupError(Kind kind, const std::string& text) : std::runtime_error(text), kind_(kind) {}
        Kind kind_;
    };

    // 'nope' for a printable four-character code, else the decimal number.
    static std::string statusText(OSStatus status);

    OutputGroupManager(AudioHardware& hardware, std::shared_ptr<TonaviDeviceManager> devices);

    // Installs or replaces the group's aggregate. Throws OutputGroupValidationError or GroupError; a
    // failed check leaves the old aggregate alone.
    void save(const OutputGroup& group);
    // Removes the aggregate; one that has already gone counts as success.
    void remove(const std::string& groupID);
    // Makes the system match the configuration: stale aggregates of ours are destroyed, others' are
    // left alone, missing ones are built. Logs and goes on; never throws.
    void reconcile(const std::vector<OutputGroup>& groups, bool forceRecreate);

    const std::map<std::string, AudioObjectID>& installed() const { return installed_; }

  private:
    void applyMemberLevels(const OutputGroup& group);
    std::vector<std::string> validateLiveMembers(const OutputGroup& group);
    AudioObjectID create(const OutputGroup& group, const std::vector<std::string>& memberUIDs);
    void destroy(const std::string& groupID, bool missingIsSuccess);

    AudioHardware& hardware_;
    std::shared_ptr<TonaviDeviceManager> devices_;
    std::map<std::string, AudioObjectID> installed_;
};

} // namespace tonavi
