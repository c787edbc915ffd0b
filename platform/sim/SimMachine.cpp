#include "platform/sim/SimMachine.hpp"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <thread>
#include <unistd.h>

#include "base/Encoding.hpp"
#include "base/Log.hpp"
#include "platform/sim/SimProperties.hpp"

namespace tonavi {

namespace {

constexpr const char* refused = "refused";

std::uint64_t steadyNanos() {
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                          std::chrono::steady_clock::now().time_since_epoch())
                                          .count());
}


bool faultMatches(const SimWorld::Fault& f, SimOperation operation, std::uint32_t selector) {
    return f.operation == operation && f.remaining > 0 && (f.selector == 0 || f.selector == selector);
}

SimIOProc::Layout layoutOf(const SimWorld& w, const SimDevice& d) {
    SimIOProc::Layout layout;
    layout.inputStreams = SimProperties::streams(w, d, true);
    layout.outputStreams = SimProperties::streams(w, d, false);
    layout.sampleRate = d.sampleRate;
    layout.frames = d.bufferFrameSize;
    layout.tapSlotOfStream.assign(layout.inputStreams.size(), -1);
    if (d.isAggregate) {
        for (const auto& st : d.aggregate.taps)
            if (w.tapByUUID(st.uid))
                layout.tapUUIDs.push_back(st.uid);
        // Tap streams come after the sub-devices' own inputs.
        const std::size_t first = layout.inputStreams.size() - layout.tapUUIDs.size();
        for (std::size_t i = 0; i < layout.tapUUIDs.size() && i < SimIOProc::maxTapStreams; ++i)
            layout.tapSlotOfStream[first + i] = static_cast<int>(i);
    }
    return layout;
}

} // namespace

SimMachine::SimMachine(SimWorld world) : SimMachine(std::move(world), Options()) {}

std::shared_ptr<SimMachine> SimMachine::open(const std::string& path, std::string& error) {
    return open(path, error, Options());
}

SimMachine::SimMachine(SimWorld world, Options options)
    : viewer_(::getpid()), options_(std::move(options)),
      world_(std::make_shared<const SimWorld>(std::move(world))) {
    if (options_.clock) {
        stepper_ = std::make_shared<std::function<void()>>([this] { stepDueCycles(); });
        options_.clock->addWaiter(stepper_);
    }
}

SimMachine::SimMachine(std::unique_ptr<SimWorldFile> file, SimWorld world, SimWorldFile::Stamp stamp,
                       Options options)
    : SimMachine(std::move(world), std::move(options)) {
    file_ = std::move(file);
    stamp_ = stamp;
}

std::shared_ptr<SimMachine> SimMachine::open(const std::string& path, std::string& error, Options options) {
    auto file = std::make_unique<SimWorldFile>(path);
    SimWorldFile::Stamp stamp;
    auto world = file->read(error, &stamp);
    if (!world)
        return nullptr;
    std::shared_ptr<SimMachine> machine(
        new SimMachine(std::move(file), SimWorld(), stamp, std::move(options)));
    machine->orphansOnDisk_ = machine->filterOrphans(*world);
    machine->world_ = std::make_shared<const SimWorld>(std::move(*world));
    machine->startWatching();
    return machine;
}

SimMachine::~SimMachine() {
    if (watchTimer_)
        watchTimer_->cancel();
    watchQueue_.reset(); // waits for a tick in progress
    std::lock_guard<std::mutex> lifecycle(lifecycleMutex_);
    for (auto& [id, proc] : ioProcs_)
        proc->stopThread();
}

void SimMachine::startWatching() {
    watchQueue_ = std::make_unique<DispatchQueue>("tonavi.sim.world-watch");
    const auto interval = std::chrono::duration_cast<std::chrono::nanoseconds>(options_.watchInterval);
    watchTimer_ = std::make_unique<DispatchTimer>(*watchQueue_, interval, interval, [this] { watchTick(); });
    watchTimer_->resume();
}

void SimMachine::watchTick() {
    refresh();
    // Every half second or so: sweep what dead processes left in the file, and publish meters.
    if (++ticks_ % std::max<long>(1, 500 / std::max<long>(1, options_.watchInterval.count())) != 0)
        return;
    bool sweep = false;
    {
        // A process that died leaves its taps behind in the file; its death changed nothing on
        // disk, so look at the owners themselves.
        std::lock_guard<std::mutex> guard(mutex_);
        SimWorld probe = *world_;
        sweep = orphansOnDisk_ || filterOrphans(probe);
    }
    if (sweep) {
        mutate([this](SimWorld& w) { return filterOrphans(w) ? std::string() : std::string(refused); });
        std::lock_guard<std::mutex> guard(mutex_);
        orphansOnDisk_ = false;
    }
    publishMeters();
    serveRecordings();
}

bool SimMachine::filterOrphans(SimWorld& world) const {
    const pid_t me = viewer_;
    return world.removeOrphans([me](pid_t pid) {
        if (pid == me)
            return true;
        if (pid <= 0)
            return false;
        return ::kill(pid, 0) == 0 || errno == EPERM;
    });
}

void SimMachine::installLocked(SimWorld next, Notice& notice) {
    notice.before = world_;
    world_ = std::make_shared<const SimWorld>(std::move(next));
    notice.after = world_;
    const auto changes = SimProperties::changes(*notice.before, *notice.after, viewer_);
    for (const auto& l : listeners_) {
        Delivery d{l.queue, l.block, l.live, {}};
        for (const auto& [object, address] : changes)
            if (object == l.object && SimProperties::matches(l.address, address))
                d.addresses.push_back(address);
        if (!d.addresses.empty())
            notice.deliveries.push_back(std::move(d));
    }
    for (const auto& [token, slot] : observers_)
        notice.observers.push_back(slot);
    updateIOLocked();
}

void SimMachine::deliver(const Notice& notice) {
    {
        // Held while posting, so that a listener removed after this returns is never posted to.
        std::lock_guard<std::mutex> posting(deliveryMutex_);
        for (const auto& d : notice.deliveries) {
            if (!d.live->load())
                continue;
            d.queue->async([block = d.block, live = d.live, addresses = d.addresses] {
                if (live->load())
                    (*block)(addresses);
            });
        }
    }
    if (!notice.before || !notice.after)
        return;
    for (const auto& slot : notice.observers) {
        std::lock_guard<std::recursive_mutex> calling(slot->callMutex);
        if (slot->live)
            slot->observer(*notice.before, *notice.after);
    }
}

void SimMachine::refresh() {
    if (!file_)
        return;
    Notice notice;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        const auto now = file_->stamp();
        if (!now || *now == stamp_)
            return;
        std::string error;
        SimWorldFile::Stamp stamp;
        auto next = file_->read(error, &stamp);
        stamp_ = stamp;
        if (!next) {
            // Keep the last good world; a damaged file is reported once per version of it.
            Log::info("tonavi: sim world unreadable, keeping the last good one: " + error);
            return;
        }
        if (next->generation < world_->generation)
            return;
        orphansOnDisk_ = filterOrphans(*next);
        installLocked(std::move(*next), notice);
    }
    deliver(notice);
}

std::shared_ptr<const SimWorld> SimMachine::world() {
    refresh();
    std::lock_guard<std::mutex> guard(mutex_);
    return world_;
}

std::string SimMachine::mutate(const std::function<std::string(SimWorld&)>& edit) {
    Notice notice;
    if (file_) {
        SimWorld written;
        SimWorldFile::Stamp stamp;
        if (auto error = file_->update(edit, &written, &stamp); !error.empty())
            return error;
        std::lock_guard<std::mutex> guard(mutex_);
        if (written.generation <= world_->generation)
            return {}; // a newer world is already here
        stamp_ = stamp;
        orphansOnDisk_ = filterOrphans(written);
        installLocked(std::move(written), notice);
    } else {
        std::lock_guard<std::mutex> guard(mutex_);
        SimWorld copy = *world_;
        if (auto error = edit(copy); !error.empty())
            return error;
        copy.generation += 1;
        installLocked(std::move(copy), notice);
    }
    deliver(notice);
    return {};
}

std::uint64_t SimMachine::addWorldObserver(WorldObserver observer) {
    std::lock_guard<std::mutex> guard(mutex_);
    const auto token = nextObserverToken_++;
    observers_[token] = std::make_shared<ObserverSlot>();
    observers_[token]->observer = std::move(observer);
    return token;
}

void SimMachine::removeWorldObserver(std::uint64_t token) {
    std::shared_ptr<ObserverSlot> slot;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        auto it = observers_.find(token);
        if (it == observers_.end())
            return;
        slot = std::move(it->second);
        observers_.erase(it);
    }
    // Waits out a call in flight on another thread; none starts after this.
    std::lock_guard<std::recursive_mutex> calling(slot->callMutex);
    slot->live = false;
}

std::string SimMachine::failNext(SimOperation operation, int count, OSStatus status, std::uint32_t selector) {
    return mutate([&](SimWorld& w) { return w.failNext(operation, count, status, selector); });
}

std::string SimMachine::setReadDelay(std::chrono::milliseconds delay, std::uint32_t selector) {
    if (delay.count() < 0 || delay.count() > 60'000)
        return "a read delay is between 0 and 60000 ms";
    return mutate([&](SimWorld& w) {
        w.setReadDelay(static_cast<std::uint32_t>(delay.count()), selector);
        return std::string();
    });
}

std::optional<OSStatus> SimMachine::takeFault(SimOperation operation, std::uint32_t selector) {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        const auto& faults = world_->faults;
        if (std::none_of(faults.begin(), faults.end(),
                         [&](const SimWorld::Fault& f) { return faultMatches(f, operation, selector); }))
            return std::nullopt;
    }
    // Consumed through the world, so that a fault fires once whichever process meets it.
    std::optional<OSStatus> taken;
    mutate([&](SimWorld& w) -> std::string {
        for (auto it = w.faults.begin(); it != w.faults.end(); ++it) {
            if (!faultMatches(*it, operation, selector))
                continue;
            taken = it->status;
            if (--it->remaining <= 0)
                w.faults.erase(it);
            return {};
        }
        return refused;
    });
    return taken;
}

void SimMachine::settleDefaultOutput() {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (!world_->pendingDefaultOutput)
            return;
    }
    // Through the world, so that the switch lands once and every process's listeners hear it.
    mutate([](SimWorld& w) { return w.settlePendingDefaultOutput() ? std::string() : std::string(refused); });
}

void SimMachine::delayRead(std::uint32_t selector) {
    std::uint32_t ms = 0;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (world_->readDelaySelector == 0 || world_->readDelaySelector == selector)
            ms = world_->readDelayMilliseconds;
    }
    // A stalled audio daemon, on purpose.
    if (ms > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

OSStatus SimMachine::getPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                     AudioPropertyValue& value) {
    refresh();
    if (auto fault = takeFault(SimOperation::getProperty, address.mSelector))
        return *fault;
    delayRead(address.mSelector);
    if (object == kAudioObjectSystemObject && address.mSelector == kAudioHardwarePropertyDefaultOutputDevice)
        settleDefaultOutput();
    std::lock_guard<std::mutex> guard(mutex_);
    if (address.mSelector == kAudioDevicePropertyIOProcStreamUsage)
        return streamUsageLocked(object, address, &value, nullptr);
    AudioPropertyValue result;
    const OSStatus status = SimProperties::read(*world_, viewer_, object, address, result);
    if (status == noErr)
        value = std::move(result);
    return status;
}

OSStatus SimMachine::getPropertyDataSize(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                         std::uint32_t& size) {
    refresh();
    if (auto fault = takeFault(SimOperation::getPropertySize, address.mSelector))
        return *fault;
    std::lock_guard<std::mutex> guard(mutex_);
    AudioPropertyValue value;
    OSStatus status;
    if (address.mSelector == kAudioDevicePropertyIOProcStreamUsage) {
        // Sized by the streams of the scope; the proc is not needed for that.
        const auto* d = world_->device(object);
        if (!d || !SimProperties::isVisible(*world_, viewer_, object))
            return kAudioHardwareBadObjectError;
        if (address.mScope != kAudioObjectPropertyScopeInput &&
            address.mScope != kAudioObjectPropertyScopeOutput)
            return kAudioHardwareUnknownPropertyError;
        const auto n =
            SimProperties::streams(*world_, *d, address.mScope == kAudioObjectPropertyScopeInput).size();
        value = AudioHardwareIOProcStreamUsage{0, std::vector<std::uint32_t>(n, 0)};
        status = noErr;
    } else {
        status = SimProperties::read(*world_, viewer_, object, address, value);
    }
    if (status == noErr)
        size = propertyDataSize(value);
    return status;
}

OSStatus SimMachine::setPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                     const AudioPropertyValue& value) {
    refresh();
    if (auto fault = takeFault(SimOperation::setProperty, address.mSelector))
        return *fault;
    if (address.mSelector == kAudioDevicePropertyIOProcStreamUsage) {
        std::lock_guard<std::mutex> guard(mutex_);
        return streamUsageLocked(object, address, nullptr, &value);
    }
    OSStatus status = noErr;
    const auto error = mutate([&](SimWorld& w) -> std::string {
        status = SimProperties::write(w, viewer_, object, address, value);
        return status == noErr ? std::string() : std::string(refused);
    });
    if (!error.empty() && status == noErr)
        return kAudioHardwareUnspecifiedError; // the world file failed
    return status;
}

bool SimMachine::hasProperty(AudioObjectID object, const AudioObjectPropertyAddress& address) {
    refresh();
    std::lock_guard<std::mutex> guard(mutex_);
    if (address.mSelector == kAudioDevicePropertyIOProcStreamUsage) {
        return world_->device(object) && SimProperties::isVisible(*world_, viewer_, object) &&
               (address.mScope == kAudioObjectPropertyScopeInput ||
                address.mScope == kAudioObjectPropertyScopeOutput);
    }
    AudioPropertyValue value;
    return SimProperties::read(*world_, viewer_, object, address, value) == noErr;
}

OSStatus SimMachine::isPropertySettable(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                        bool& settable) {
    refresh();
    if (auto fault = takeFault(SimOperation::isSettable, address.mSelector))
        return *fault;
    std::lock_guard<std::mutex> guard(mutex_);
    if (address.mSelector == kAudioDevicePropertyIOProcStreamUsage) {
        if (!world_->device(object) || !SimProperties::isVisible(*world_, viewer_, object))
            return kAudioHardwareBadObjectError;
        settable = true;
        return noErr;
    }
    return SimProperties::settable(*world_, viewer_, object, address, settable);
}

OSStatus SimMachine::streamUsageLocked(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                       AudioPropertyValue* read, const AudioPropertyValue* write) {
    const auto* d = world_->device(object);
    if (!d || !SimProperties::isVisible(*world_, viewer_, object))
        return kAudioHardwareBadObjectError;
    const bool input = address.mScope == kAudioObjectPropertyScopeInput;
    if (!input && address.mScope != kAudioObjectPropertyScopeOutput)
        return kAudioHardwareUnknownPropertyError;
    const auto* usage = std::get_if<AudioHardwareIOProcStreamUsage>(read ? read : write);
    if (!usage)
        return kAudioHardwareBadPropertySizeError;
    auto it = ioProcs_.find(usage->mIOProc);
    if (it == ioProcs_.end() || it->second->device() != object)
        return kAudioHardwareIllegalOperationError;
    const auto streams = SimProperties::streams(*world_, *d, input).size();
    if (read) {
        *read = AudioHardwareIOProcStreamUsage{usage->mIOProc, it->second->streamUsage(input, streams)};
        return noErr;
    }
    if (usage->mStreamIsOn.size() != streams)
        return kAudioHardwareBadPropertySizeError;
    it->second->setStreamUsage(input, usage->mStreamIsOn);
    return noErr;
}

OSStatus SimMachine::addPropertyListener(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                         DispatchQueue& queue,
                                         const AudioObjectPropertyListenerBlock& block) {
    refresh();
    if (auto fault = takeFault(SimOperation::addListener, address.mSelector))
        return *fault;
    std::lock_guard<std::mutex> guard(mutex_);
    if (!block || !*block)
        return kAudio_ParamError;
    if (!SimProperties::isVisible(*world_, viewer_, object))
        return kAudioHardwareBadObjectError;
    listeners_.push_back({object, address, &queue, block, std::make_shared<std::atomic<bool>>(true)});
    return noErr;
}

OSStatus SimMachine::removePropertyListener(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                            DispatchQueue& queue,
                                            const AudioObjectPropertyListenerBlock& block) {
    if (auto fault = takeFault(SimOperation::removeListener, address.mSelector))
        return *fault;
    std::unique_lock<std::mutex> guard(mutex_);
    auto it = std::find_if(listeners_.begin(), listeners_.end(), [&](const Listener& l) {
        return l.object == object && l.address == address && l.queue == &queue && l.block == block;
    });
    if (it == listeners_.end())
        return kAudio_ParamError;
    const auto live = it->live;
    listeners_.erase(it);
    guard.unlock();
    // A delivery may have picked the listener up before it went: wait out its posting, and fence
    // off what it has not posted or run yet.
    std::lock_guard<std::mutex> posting(deliveryMutex_);
    live->store(false);
    return noErr;
}

OSStatus SimMachine::createInWorld(SimOperation operation, AudioObjectID& created,
                                   const std::function<Creation(SimWorld&)>& build) {
    refresh();
    if (auto fault = takeFault(operation, 0))
        return *fault;
    Creation result;
    const auto error = mutate([&](SimWorld& w) -> std::string {
        result = build(w);
        return result.status == noErr ? std::string() : std::string(refused);
    });
    // A refusal carries its own status; a failure of the shared file has none.
    if (!error.empty())
        return result.status != noErr ? result.status : kAudioHardwareUnspecifiedError;
    created = result.id;
    return noErr;
}

OSStatus SimMachine::createProcessTap(const TapDescription& description, AudioObjectID& tap) {
    return createInWorld(SimOperation::createTap, tap, [&](SimWorld& w) -> Creation {
        if (description.processes.empty())
            return refusal(kAudio_ParamError);
        for (auto id : description.processes)
            if (!w.process(id))
                return refusal(kAudioHardwareBadObjectError);
        if (!description.mixdown) {
            const auto* d = w.deviceByUID(description.deviceUID);
            if (!d || !SimProperties::isVisible(w, viewer_, d->id))
                return refusal(kAudioHardwareBadDeviceError);
            if (description.stream >= SimProperties::streams(w, *d, false).size())
                return refusal(kAudioHardwareIllegalOperationError);
        }
        SimWorld::Tap t{w.allocateID(), description, viewer_};
        if (t.description.uuid.empty())
            t.description.uuid = makeUUID();
        if (w.tapByUUID(t.description.uuid))
            return refusal(kAudioHardwareIllegalOperationError);
        const Creation made{noErr, t.id};
        w.taps.push_back(std::move(t));
        return made;
    });
}

OSStatus SimMachine::destroyProcessTap(AudioObjectID tap) {
    refresh();
    if (auto fault = takeFault(SimOperation::destroyTap, 0))
        return *fault;
    OSStatus status = kAudioHardwareBadObjectError;
    const auto error = mutate([&](SimWorld& w) -> std::string {
        const auto before = w.taps.size();
        std::erase_if(w.taps, [&](const SimWorld::Tap& t) { return t.id == tap && t.ownerPID == viewer_; });
        if (w.taps.size() == before)
            return refused;
        status = noErr;
        return {};
    });
    if (!error.empty() && status == noErr)
        return kAudioHardwareUnspecifiedError;
    return status;
}

OSStatus SimMachine::createAggregateDevice(const AggregateDeviceDescription& description,
                                           AudioObjectID& device) {
    return createInWorld(SimOperation::createAggregate, device, [&](SimWorld& w) -> Creation {
        if (description.uid.empty() || (description.subDevices.empty() && description.taps.empty()))
            return refusal(kAudio_ParamError);
        if (w.deviceByUID(description.uid))
            return refusal(kAudioHardwareIllegalOperationError);
        for (const auto& sub : description.subDevices) {
            const auto* d = w.deviceByUID(sub.uid);
            if (!d || d->isAggregate)
                return refusal(kAudioHardwareBadDeviceError);
        }
        for (const auto& st : description.taps) {
            const auto* t = w.tapByUUID(st.uid);
            if (!t || !SimProperties::isVisible(w, viewer_, t->id))
                return refusal(kAudioHardwareBadObjectError);
        }
        SimDevice d;
        d.aggregate = description;
        if (d.aggregate.mainSubDevice.empty() && !description.subDevices.empty())
            d.aggregate.mainSubDevice = description.subDevices.front().uid;
        const auto* main = w.deviceByUID(d.aggregate.mainSubDevice);
        if (!d.aggregate.mainSubDevice.empty() &&
            std::none_of(description.subDevices.begin(), description.subDevices.end(),
                         [&](const auto& s) { return s.uid == d.aggregate.mainSubDevice; }))
            return refusal(kAudio_ParamError);
        d.id = w.allocateID();
        d.uid = description.uid;
        d.name = description.name.empty() ? description.uid : description.name;
        d.transport = kAudioDeviceTransportTypeAggregate;
        d.isAggregate = true;
        d.ownerPID = viewer_;
        if (main) {
            // The clock device gives the aggregate its rate and its buffer limits.
            d.sampleRate = main->sampleRate;
            d.availableSampleRates = main->availableSampleRates;
            d.bufferFrameSize = main->bufferFrameSize;
            d.bufferFrameSizeMin = main->bufferFrameSizeMin;
            d.bufferFrameSizeMax = main->bufferFrameSizeMax;
        }
        const Creation made{noErr, d.id};
        w.devices.push_back(std::move(d));
        return made;
    });
}

void SimMachine::stopProcsOn(AudioObjectID device) {
    std::lock_guard<std::mutex> lifecycle(lifecycleMutex_);
    std::vector<SimIOProc*> stopping;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        for (auto& [id, proc] : ioProcs_) {
            if (proc->device() == device && proc->isRunning()) {
                proc->setRunning(false);
                stopping.push_back(proc.get());
            }
        }
    }
    for (auto* proc : stopping)
        proc->stopThread();
}

OSStatus SimMachine::destroyAggregateDevice(AudioObjectID device) {
    refresh();
    if (auto fault = takeFault(SimOperation::destroyAggregate, 0))
        return *fault;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        const auto* d = world_->device(device);
        if (!d || !d->isAggregate || !SimProperties::isVisible(*world_, viewer_, device))
            return kAudioHardwareBadObjectError;
    }
    stopProcsOn(device);
    OSStatus status = kAudioHardwareBadObjectError;
    const auto error = mutate([&](SimWorld& w) -> std::string {
        const auto before = w.devices.size();
        std::erase_if(w.devices, [&](const SimDevice& d) {
            return d.id == device && d.isAggregate && (!d.aggregate.isPrivate || d.ownerPID == viewer_);
        });
        if (w.devices.size() == before)
            return refused;
        status = noErr;
        return {};
    });
    if (!error.empty() && status == noErr)
        return kAudioHardwareUnspecifiedError;
    return status;
}

OSStatus SimMachine::createIOProcIDWithBlock(AudioObjectID device, DispatchQueue*, AudioDeviceIOBlock block,
                                             AudioDeviceIOProcID& procID) {
    refresh();
    if (auto fault = takeFault(SimOperation::createIOProc, 0))
        return *fault;
    std::lock_guard<std::mutex> guard(mutex_);
    if (!world_->device(device) || !SimProperties::isVisible(*world_, viewer_, device))
        return kAudioHardwareBadObjectError;
    if (!block)
        return kAudio_ParamError;
    const auto id = nextProcID_++;
    ioProcs_[id] = std::make_unique<SimIOProc>(id, device, std::move(block));
    procID = id;
    return noErr;
}

OSStatus SimMachine::adjustRunningCount(AudioObjectID device, int delta) {
    OSStatus status = kAudioHardwareBadDeviceError;
    const auto error = mutate([&](SimWorld& w) -> std::string {
        auto* d = w.device(device);
        if (!d)
            return refused;
        if (delta < 0 && d->runningIOProcs == 0)
            return refused;
        d->runningIOProcs = static_cast<std::uint32_t>(static_cast<int>(d->runningIOProcs) + delta);
        status = noErr;
        return {};
    });
    if (!error.empty() && status == noErr)
        return kAudioHardwareUnspecifiedError;
    return status;
}

OSStatus SimMachine::destroyIOProcID(AudioObjectID device, AudioDeviceIOProcID procID) {
    if (auto fault = takeFault(SimOperation::destroyIOProc, 0))
        return *fault;
    std::lock_guard<std::mutex> lifecycle(lifecycleMutex_);
    std::unique_ptr<SimIOProc> proc;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        auto it = ioProcs_.find(procID);
        if (it == ioProcs_.end() || it->second->device() != device)
            return kAudioHardwareBadObjectError;
        proc = std::move(it->second);
        ioProcs_.erase(it);
    }
    if (proc->isRunning()) {
        proc->stopThread();
        adjustRunningCount(device, -1);
    }
    proc->stopRecording(); // what was recorded so far is written, not lost with the proc
    return noErr;
}

OSStatus SimMachine::deviceStart(AudioObjectID device, AudioDeviceIOProcID procID) {
    refresh();
    if (auto fault = takeFault(SimOperation::deviceStart, 0))
        return *fault;
    std::lock_guard<std::mutex> lifecycle(lifecycleMutex_);
    {
        std::lock_guard<std::mutex> guard(mutex_);
        auto it = ioProcs_.find(procID);
        if (it == ioProcs_.end() || it->second->device() != device)
            return kAudioHardwareBadObjectError;
        if (it->second->isRunning())
            return noErr;
    }
    if (const OSStatus status = adjustRunningCount(device, +1); status != noErr)
        return status;
    std::lock_guard<std::mutex> guard(mutex_);
    auto it = ioProcs_.find(procID);
    const auto* d = world_->device(device);
    if (it == ioProcs_.end() || !d)
        return kAudioHardwareBadDeviceError;
    SimIOProc& proc = *it->second;
    proc.prepare(layoutOf(*world_, *d));
    proc.setRunning(true);
    updateIOLocked();
    if (options_.clock) {
        proc.nextCycleHostTime = currentHostTime() + proc.cyclePeriodNanos();
    } else {
        proc.startThread();
    }
    return noErr;
}

OSStatus SimMachine::deviceStop(AudioObjectID device, AudioDeviceIOProcID procID) {
    if (auto fault = takeFault(SimOperation::deviceStop, 0))
        return *fault;
    std::lock_guard<std::mutex> lifecycle(lifecycleMutex_);
    SimIOProc* proc = nullptr;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        auto it = ioProcs_.find(procID);
        if (it == ioProcs_.end() || it->second->device() != device)
            return kAudioHardwareBadObjectError;
        if (!it->second->isRunning())
            return noErr;
        proc = it->second.get();
        proc->setRunning(false);
    }
    proc->stopThread();
    adjustRunningCount(device, -1);
    return noErr;
}

std::uint64_t SimMachine::currentHostTime() {
    if (options_.clock) {
        return static_cast<std::uint64_t>(
            std::chrono::duration_cast<std::chrono::nanoseconds>(options_.clock->now().time_since_epoch())
                .count());
    }
    return steadyNanos();
}

void SimMachine::updateIOLocked() {
    const SimWorld& w = *world_;
    std::vector<SimIOProc::Tone> tones;
    for (auto& [id, proc] : ioProcs_) {
        if (!proc->isRunning())
            continue;
        const auto* device = w.device(proc->device());
        proc->setStalled(!device || !w.deliversIO(*device));
        const auto& uuids = proc->layout().tapUUIDs;
        for (std::size_t slot = 0; slot < uuids.size() && slot < SimIOProc::maxTapStreams; ++slot) {
            tones.clear();
            if (const auto* t = w.tapByUUID(uuids[slot])) {
                const auto& desc = t->description;
                for (auto object : desc.processes) {
                    const auto* p = w.process(object);
                    if (!p || !p->isAudible())
                        continue;
                    // A device-stream tap hears only what the process plays on that device.
                    if (!desc.mixdown && w.effectiveDeviceUID(*p, false) != desc.deviceUID)
                        continue;
                    tones.push_back({p->signal.frequency, std::pow(10.0, p->signal.levelDB / 20.0)});
                }
            }
            proc->setTones(slot, tones);
        }
    }
}

void SimMachine::stepDueCycles() {
    std::lock_guard<std::mutex> lifecycle(lifecycleMutex_);
    const auto now = currentHostTime();
    std::vector<SimIOProc*> running;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        for (auto& [id, proc] : ioProcs_)
            if (proc->isRunning())
                running.push_back(proc.get());
    }
    for (auto* proc : running) {
        const auto period = std::max<std::uint64_t>(proc->cyclePeriodNanos(), 1);
        while (proc->nextCycleHostTime <= now) {
            proc->runCycle(proc->nextCycleHostTime);
            proc->nextCycleHostTime += period;
        }
    }
}

std::vector<std::string> SimMachine::directlyAudible(const std::string& deviceUID) {
    const auto w = world();
    std::vector<std::string> heard;
    for (const auto& p : w->processes) {
        if (!p.isAudible())
            continue;
        const std::string target = w->effectiveDeviceUID(p, false);
        bool reaches = target == deviceUID;
        if (const auto* d = w->deviceByUID(target); d && d->isAggregate && !d->aggregate.isPrivate) {
            for (const auto& sub : d->aggregate.subDevices)
                reaches = reaches || sub.uid == deviceUID;
        }
        if (reaches && !w->isMutedByTap(p, target))
            heard.push_back(p.bundleID);
    }
    return heard;
}

std::optional<SimIOProc::Meter> SimMachine::ioMeter(AudioDeviceIOProcID procID) {
    std::lock_guard<std::mutex> guard(mutex_);
    auto it = ioProcs_.find(procID);
    if (it == ioProcs_.end())
        return std::nullopt;
    return it->second->meter();
}

std::string SimMachine::startRecording(AudioDeviceIOProcID procID, const std::string& path, double seconds) {
    std::lock_guard<std::mutex> lifecycle(lifecycleMutex_);
    SimIOProc* proc = nullptr;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        auto it = ioProcs_.find(procID);
        if (it == ioProcs_.end())
            return "no IO proc " + std::to_string(procID);
        if (!it->second->isRunning())
            return "IO proc " + std::to_string(procID) + " is not running";
        proc = it->second.get();
    }
    return proc->startRecording(path, seconds);
}

std::string SimMachine::stopRecording(AudioDeviceIOProcID procID) {
    std::lock_guard<std::mutex> lifecycle(lifecycleMutex_);
    SimIOProc* proc = nullptr;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        auto it = ioProcs_.find(procID);
        if (it == ioProcs_.end())
            return "no IO proc " + std::to_string(procID);
        proc = it->second.get();
    }
    return proc->stopRecording();
}

void SimMachine::serveRecordings() {
    std::vector<std::pair<SimWorld::Recording, AudioDeviceIOProcID>> toStart;
    std::vector<std::string> finished;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        for (const auto& r : world_->recordings) {
            if (servedRecordings_.count(r.path))
                continue;
            for (auto& [id, proc] : ioProcs_) {
                const auto* d = world_->device(proc->device());
                if (!proc->isRunning() || !d)
                    continue;
                const std::string plays = d->isAggregate ? d->aggregate.mainSubDevice : d->uid;
                if (plays == r.deviceUID) {
                    toStart.push_back({r, id});
                    break;
                }
            }
        }
        for (auto& [path, id] : servedRecordings_) {
            auto it = ioProcs_.find(id);
            if (it == ioProcs_.end() || !it->second->isRunning() || it->second->isRecordingComplete())
                finished.push_back(path);
        }
    }
    for (auto& [request, id] : toStart) {
        if (startRecording(id, request.path, request.seconds).empty())
            servedRecordings_[request.path] = id;
    }
    for (const auto& path : finished) {
        // A proc that went away wrote its recording as it went.
        const auto why = stopRecording(servedRecordings_[path]);
        if (!why.empty() && why.rfind("no IO proc", 0) != 0)
            Log::info("tonavi: sim recording " + path + " failed: " + why);
        servedRecordings_.erase(path);
        mutate([&](SimWorld& w) {
            std::erase_if(w.recordings, [&](const SimWorld::Recording& r) { return r.path == path; });
            return std::string();
        });
    }
}

void SimMachine::publishMeters() {
    std::vector<SimWorld::Meter> meters;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        for (auto& [id, proc] : ioProcs_) {
            if (!proc->isRunning())
                continue;
            const auto* d = world_->device(proc->device());
            if (!d)
                continue;
            const auto m = proc->meter();
            const std::string plays = d->isAggregate ? d->aggregate.mainSubDevice : d->uid;
            meters.push_back({d->uid, plays, viewer_, std::round(m.peakDB * 10) / 10,
                              std::round(m.rmsDB * 10) / 10, std::round(m.frequency), m.cycles});
        }
    }
    if (meters.empty() && !publishedMeters_)
        return;
    publishedMeters_ = !meters.empty();
    mutate([&](SimWorld& w) {
        std::erase_if(w.meters, [&](const SimWorld::Meter& m) { return m.ownerPID == viewer_; });
        w.meters.insert(w.meters.end(), meters.begin(), meters.end());
        return std::string();
    });
}

} // namespace tonavi

namespace tonavi {

std::vector<BluetoothRegistryEntry> SimMachine::bluetoothRegistry() {
    std::vector<BluetoothRegistryEntry> entries;
    const auto snapshot = world(); // held for the loop, not freed by the range expression
    for (const auto& d : snapshot->devices) {
        const bool bluetooth = d.transport == kAudioDeviceTransportTypeBluetooth ||
                               d.transport == kAudioDeviceTransportTypeBluetoothLE;
        if (!bluetooth || !(d.bluetoothBattery || d.bluetoothCodec || d.bluetoothRSSI))
            continue;
        std::string address = d.uid.substr(0, d.uid.find(':'));
        std::replace(address.begin(), address.end(), '-', ':');
        BluetoothRegistryEntry entry;
        entry.deviceAddress = address;
        entry.batteryPercent = d.bluetoothBattery;
        entry.activeCodec = d.bluetoothCodec;
        entry.rssi = d.bluetoothRSSI;
        entries.push_back(std::move(entry));
    }
    return entries;
}

} // namespace tonavi
