// Configuration requests of TonaviRuntime: lanes, rules and presets, the system rows and global
// listening, the import with its rollback, saved scenes, and the lists.

#include "service/RuntimeCallbacks.hpp"
#include "service/TonaviRuntime.hpp"

#include "audio/effects/EQPresets.hpp"
#include "core/config/SceneLoadPolicy.hpp"
#include "core/wire/TonaviPayload.hpp"

#include <algorithm>
#include <cassert>
#include <type_traits>

namespace tonavi {

namespace {

// The shape most list settings share: every entry with the same id goes, the new one is appended,
// so a changed entry moves to the end.
template <class T> void upsert(std::vector<T>& list, const T& entry) {
    std::erase_if(list, [&](const T& e) { return e.id == entry.id; });
    list.push_back(entry);
}

template <class T> void removeID(std::vector<T>& list, const std::string& id) {
    std::erase_if(list, [&](const T& e) { return e.id == id; });
}

// A list reply carries its payload and no status; an encoding failure is the reply's failure.
template <class Build> TonaviReply listReply(Build&& build) {
    try {
        TonaviReply reply = TonaviReply::success();
        reply.payload = build();
        return reply;
    } catch (const std::exception& e) {
        return TonaviReply::failure(e.what());
    }
}

const DeviceLiveStatus* findDevice(const std::vector<DeviceLiveStatus>& devices, bool output,
                                   const std::optional<std::string>& uid,
                                   const std::optional<std::string>& name) {
    auto usable = [&](const DeviceLiveStatus& d) {
        return (output ? d.isOutput : d.isInput) && !d.hidden.value_or(false);
    };
    if (uid)
        for (const auto& d : devices)
            if (usable(d) && d.id == *uid)
                return &d;
    // The UID of some devices changes between connections (a Bluetooth headset re-paired, a USB
    // interface in another port); the name the user saw is the next best thing.
    if (name)
        for (const auto& d : devices)
            if (usable(d) && d.name == *name)
                return &d;
    return nullptr;
}

std::string savedDeviceLabel(const std::optional<std::string>& uid, const std::optional<std::string>& name) {
    return "\"" + name.value_or(uid.value_or("")) + "\"";
}

} // namespace

// MARK: Dispatch

std::optional<TonaviReply> TonaviRuntime::handleConfigRequestLocked(const TonaviRequest& request) {
    using R = TonaviRequest;
    return std::visit(
        [&](const auto& c) -> std::optional<TonaviReply> {
            using T = std::decay_t<decltype(c)>;
            if constexpr (std::is_same_v<T, R::SetLane>) {
                return changeConfig([&](TonaviConfig& config) { upsert(config.lanes, c._0); });
            } else if constexpr (std::is_same_v<T, R::RemoveLane>) {
                return changeConfig([&](TonaviConfig& config) { removeID(config.lanes, c.id); });
            } else if constexpr (std::is_same_v<T, R::SetDuckRule>) {
                return changeConfig([&](TonaviConfig& config) { upsert(config.duckRules, c._0); });
            } else if constexpr (std::is_same_v<T, R::RemoveDuckRule>) {
                return changeConfig([&](TonaviConfig& config) { removeID(config.duckRules, c.id); });
            } else if constexpr (std::is_same_v<T, R::SetFocusLink>) {
                return changeConfig([&](TonaviConfig& config) { upsert(config.focusLinks, c._0); });
            } else if constexpr (std::is_same_v<T, R::RemoveFocusLink>) {
                return changeConfig([&](TonaviConfig& config) { removeID(config.focusLinks, c.id); });
            } else if constexpr (std::is_same_v<T, R::SaveEQPreset>) {
                return changeConfig([&](TonaviConfig& config) { upsert(config.customEQPresets, c._0); },
                                    "saved EQ preset " + c._0.name);
            } else if constexpr (std::is_same_v<T, R::DeleteEQPreset>) {
                return changeConfig([&](TonaviConfig& config) { removeID(config.customEQPresets, c.id); });
            } else if constexpr (std::is_same_v<T, R::SetSystemChain>) {
                return changeConfig([&](TonaviConfig& config) { config.systemRows.systemChain = c.chain; });
            } else if constexpr (std::is_same_v<T, R::SetSystemMagicBoost>) {
                return changeConfig(
                    [&](TonaviConfig& config) { config.systemRows.systemMagicBoost = c.settings; });
            } else if constexpr (std::is_same_v<T, R::SetGlobalListening>) {
                // Rebuilt through its constructor, which keeps only valid plug-in slots: a client's
                // record is not trusted as it came.
                const auto& s = c._0;
                TonaviConfig config = engine_->config();
                config.globalListening =
                    kavore::GlobalListeningSettings(s.enabled, s.equalizer, s.balancer, s.audioUnitSlots);
                engine_->apply(config);
                if (coreAudioReady_.load())
                    smartTick();
                persist();
                return success();
            } else if constexpr (std::is_same_v<T, R::ImportConfiguration>) {
                return importConfiguration(c.config, c.autoDirect);
            } else if constexpr (std::is_same_v<T, R::SaveConfig>) {
                return saveQuickConfig(c.name);
            } else if constexpr (std::is_same_v<T, R::LoadConfig>) {
                return loadQuickConfigLocked(c.name);
            } else if constexpr (std::is_same_v<T, R::DeleteConfig>) {
                try {
                    store_->deleteQuickConfig(c.name);
                } catch (const std::exception& e) {
                    return failure(std::string("delete failed: ") + e.what());
                }
                return success();
            } else if constexpr (std::is_same_v<T, R::RenameConfig>) {
                return renameQuickConfig(c.oldName, c.newName);
            } else if constexpr (std::is_same_v<T, R::SetConfigIcon>) {
                try {
                    QuickConfig config = store_->loadQuickConfig(c.name);
                    config.iconName = c.iconName;
                    store_->saveQuickConfig(config);
                } catch (const std::exception& e) {
                    return failure(std::string("icon change failed: ") + e.what());
                }
                return success();
            } else if constexpr (std::is_same_v<T, R::ListConfigs>) {
                return listReply([&] {
                    std::vector<std::string> names;
                    for (const auto& config : store_->listQuickConfigs())
                        names.push_back(config.name);
                    return TonaviPayload::encode(names);
                });
            } else if constexpr (std::is_same_v<T, R::ListEQPresets>) {
                return listReply([&] {
                    std::vector<kavore::EQPreset> presets = kavore::EQPresets::all();
                    const auto& custom = engine_->config().customEQPresets;
                    presets.insert(presets.end(), custom.begin(), custom.end());
                    return TonaviPayload::encode(presets);
                });
            } else {
                return std::nullopt;
            }
        },
        request.value);
}

TonaviReply TonaviRuntime::changeConfig(const std::function<void(TonaviConfig&)>& change, std::string message) {
    TonaviConfig config = engine_->config();
    change(config);
    engine_->apply(config);
    persist();
    return success(std::move(message));
}

// MARK: Import

TonaviReply TonaviRuntime::importConfiguration(const TonaviConfig& config, const AutoDirectList& autoDirect) {
    const TonaviConfig keptConfig = engine_->config();
    const AutoDirectList keptList = store_->loadAutoDirectList();
    engine_->applyImportedConfig(config, autoDirect);
    try {
        store_->saveAutoDirectList(autoDirect);
        saveConfigToDisk(engine_->config()); // under the store's exclusive lock
    } catch (const std::exception& e) {
        // Nothing half-done survives: the engine and both files go back to what they were. The
        // configuration file was not replaced (the failed write was atomic, or never began); the
        // list file may have been, so it is written back, as well as it can be.
        engine_->applyImportedConfig(keptConfig, keptList);
        try {
            store_->saveAutoDirectList(keptList);
        } catch (const std::exception&) {
            // The list on disk decides nothing: the next load rewrites it to the bundled one.
        }
        applyDevicePolicies();
        syncAUSlots();
        return failure(std::string("SoundSource settings could not be saved: ") + e.what());
    }
    applyDevicePolicies();
    syncAUSlots();
    return success("Imported " + std::to_string(config.apps.size()) + " app settings safely.");
}

// MARK: Quick configurations

TonaviReply TonaviRuntime::saveQuickConfig(const std::string& name) {
    // An empty name would make a file no list shows and no load finds.
    if (name.empty())
        return failure("empty name");
    applyHardwareSnapshot(captureHardwareSnapshot());
    const TonaviStatus status = buildStatus();
    const DeviceLiveStatus* output = nullptr;
    const DeviceLiveStatus* input = nullptr;
    for (const auto& d : status.devices) {
        if (d.isDefaultOutput && !output)
            output = &d;
        if (d.isDefaultInput && !input)
            input = &d;
    }

    QuickConfig config;
    config.name = name;
    config.iconName = "square.grid.2x2";
    // A save over an existing scene is an update: its icon and shortcut stay.
    try {
        const QuickConfig existing = store_->loadQuickConfig(name);
        config.iconName = existing.iconName;
        config.shortcutKey = existing.shortcutKey;
    } catch (const std::exception&) {
    }
    config.savedAt = now();
    config.rig.tonavi = engine_->config();
    if (output) {
        config.outputDeviceUID = output->id;
        config.outputDeviceName = output->name;
        config.outputVolume = output->volume;
    }
    if (input) {
        config.inputDeviceUID = input->id;
        config.inputDeviceName = input->name;
    }
    try {
        store_->saveQuickConfig(config);
    } catch (const std::exception& e) {
        return failure(std::string("save failed: ") + e.what());
    }
    return success("saved config " + name);
}

std::variant<QuickConfig, TonaviReply> TonaviRuntime::mergeQuickConfigLocked(const std::string& name) {
    QuickConfig saved;
    try {
        saved = store_->loadQuickConfig(name);
    } catch (const std::exception& e) {
        return failure(std::string("load failed: ") + e.what());
    }
    if (!saved.rig.tonavi)
        return failure("config has no tonavi state");
    engine_->apply(SceneLoadPolicy::merge(*saved.rig.tonavi, engine_->config()));
    reconcileOutputGroups(false);
    applyDevicePolicies();
    persist();
    if (coreAudioReady_.load())
        smartTick();
    return saved;
}

TonaviReply TonaviRuntime::loadQuickConfigLocked(const std::string& name) {
    auto merged = mergeQuickConfigLocked(name);
    if (auto* reply = std::get_if<TonaviReply>(&merged))
        return std::move(*reply);
    return success("loaded " + name);
}

bool TonaviRuntime::handleSceneLoadAsync(const TonaviRequest& request, std::function<void(TonaviReply)> completion) {
    const auto* load = std::get_if<TonaviRequest::LoadConfig>(&request.value);
    if (!load)
        return false;
    std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
    serialQueue_->async([weak, name = load->name, completion = std::move(completion)] {
        withRuntime(weak, [&](TonaviRuntime& rt) { rt.loadSceneAsync(name, completion); });
    });
    return true;
}

void TonaviRuntime::loadSceneAsync(const std::string& name, std::function<void(TonaviReply)> completion) {
    assert(serialQueue_->isCurrent());
    auto merged = mergeQuickConfigLocked(name);
    if (auto* reply = std::get_if<TonaviReply>(&merged))
        return completion(std::move(*reply));
    const QuickConfig saved = std::get<QuickConfig>(std::move(merged));

    // The devices as the system shows them now: a scene may name one that came a moment ago.
    applyHardwareSnapshot(captureHardwareSnapshot());
    std::vector<std::string> missing;
    const bool savedInput = saved.inputDeviceUID || saved.inputDeviceName;
    if (savedInput) {
        const auto* input = findDevice(hardwareSnapshot_.devices, false, saved.inputDeviceUID,
                                       saved.inputDeviceName);
        const std::string label = "input " + savedDeviceLabel(saved.inputDeviceUID, saved.inputDeviceName);
        if (!input)
            missing.push_back(label + " is missing");
        else if (!input->isDefaultInput && !setInputDevice(input->id).ok)
            missing.push_back(label + " could not be selected");
    }
    // A saved device that is not there today does not fail the load: the rest is applied, and the
    // message names what was missing.
    auto finish = [this, name](std::vector<std::string> missing) {
        std::string message = "loaded " + name;
        for (const auto& m : missing)
            message += "; " + m;
        return success(std::move(message));
    };

    const bool savedOutput = saved.outputDeviceUID || saved.outputDeviceName;
    const auto* output = savedOutput ? findDevice(hardwareSnapshot_.devices, true, saved.outputDeviceUID,
                                                  saved.outputDeviceName)
                                     : nullptr;
    if (!output) {
        if (savedOutput)
            missing.insert(missing.begin(), "output " +
                                                savedDeviceLabel(saved.outputDeviceUID, saved.outputDeviceName) +
                                                " is missing");
        return completion(finish(std::move(missing)));
    }
    // The output goes through the verified selection, so the reply waits until the system shows it.
    // It is not remembered as a preference: a scene leaves the machine's device memory alone.
    std::weak_ptr<TonaviRuntime*> weak = weakSelf_;
    const std::optional<double> volume = saved.outputVolume;
    selectOutputAsync(output->id, false,
                      [weak, name, volume, missing = std::move(missing), finish,
                       completion = std::move(completion)](TonaviReply selected) {
                          withRuntime(weak, [&](TonaviRuntime& rt) {
                              if (!selected.ok) {
                                  selected.message = "loaded " + name + "; " + selected.message;
                                  return completion(std::move(selected));
                              }
                              if (volume)
                                  rt.setOutputVolume(*volume);
                              completion(finish(missing));
                          });
                      });
}

TonaviReply TonaviRuntime::renameQuickConfig(const std::string& oldName, const std::string& newName) {
    if (newName.empty())
        return failure("empty name");
    try {
        QuickConfig config = store_->loadQuickConfig(oldName);
        config.name = newName;
        store_->saveQuickConfig(config);
        // Names that differ only in "/" and "-" share a file: deleting the old one would lose the
        // file just written.
        if (oldName != newName && store_->configFileURL(oldName) != store_->configFileURL(newName))
            store_->deleteQuickConfig(oldName);
    } catch (const std::exception& e) {
        return failure(std::string("rename failed: ") + e.what());
    }
    return success("renamed to " + newName);
}

} // namespace tonavi
