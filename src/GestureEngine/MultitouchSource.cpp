#include "GestureEngine/MultitouchSource.h"

#include "CoreKit/Log.h"

#include <cstring>
#include <dlfcn.h>
#include <map>
#include <optional>
#include <utility>

namespace tavrick {

namespace {

// The five functions, taken once per library path for the life of the process.
struct Symbols {
    using CreateList = void** (*)();
    using Register = void (*)(void*, MultitouchSource::ContactFrameCallback);
    using Unregister = void (*)(void*, MultitouchSource::ContactFrameCallback);
    using Start = int (*)(void*, int);
    using Stop = int (*)(void*);

    CreateList createList = nullptr;
    Register registerCallback = nullptr;
    Unregister unregisterCallback = nullptr;
    Start start = nullptr;
    Stop stop = nullptr;
};

template <class Function>
bool take(void* library, const char* name, Function& into) {
    void* symbol = dlsym(library, name);
    if (!symbol) {
        Log::gesture.error("MultitouchSupport is missing %s", name);
        return false;
    }
    into = reinterpret_cast<Function>(symbol);
    return true;
}

const Symbols* symbolsFor(const std::string& path) {
    static std::mutex mutex;
    static std::map<std::string, std::optional<Symbols>> loaded;
    std::lock_guard guard(mutex);
    auto found = loaded.find(path);
    if (found != loaded.end()) return found->second ? &*found->second : nullptr;

    std::optional<Symbols> table;
    void* library = dlopen(path.c_str(), RTLD_LAZY);
    if (!library) {
        Log::gesture.error("Could not open MultitouchSupport");
    } else {
        Symbols symbols;
        const bool complete = take(library, "MTDeviceCreateList", symbols.createList) &&
                              take(library, "MTRegisterContactFrameCallback", symbols.registerCallback) &&
                              take(library, "MTUnregisterContactFrameCallback", symbols.unregisterCallback) &&
                              take(library, "MTDeviceStart", symbols.start) &&
                              take(library, "MTDeviceStop", symbols.stop);
        // The library stays open: a process that looked once keeps the answer.
        if (complete) table = symbols;
    }
    auto [slot, inserted] = loaded.emplace(path, table);
    return slot->second ? &*slot->second : nullptr;
}

// The running source, found by the callback, which carries no context.
std::mutex activeLock;
std::weak_ptr<MultitouchSource> activeSource;

template <class T>
T read(const std::byte* at) {
    T value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

} // namespace

MultitouchError::MultitouchError(Code code) : std::runtime_error(description(code)), code_(code) {}

const char* MultitouchError::description(Code code) {
    switch (code) {
    case Code::frameworkUnavailable: return "The system multitouch service could not be opened.";
    case Code::noDevices: return "No trackpad was found.";
    case Code::layoutChanged:
        return "This version of macOS reports trackpad data in an unexpected format. Gestures are disabled; keyboard "
               "shortcuts are unaffected.";
    }
    return "";
}

MultitouchSource::MultitouchSource(std::string libraryPath) : libraryPath_(std::move(libraryPath)) {}

MultitouchSource::~MultitouchSource() {
    stop();
}

bool MultitouchSource::isTouchingState(std::int32_t state) {
    return state >= 0 && state < 5 && ((26 >> state) & 1) != 0;
}

Touch MultitouchSource::touch(const std::byte* record) {
    Touch touch;
    touch.id = read<std::int32_t>(record + 16);
    touch.isTouching = isTouchingState(read<std::int32_t>(record + 20));
    touch.x = read<float>(record + 32);
    touch.y = read<float>(record + 36);
    touch.pressure = read<float>(record + 48);
    return touch;
}

std::vector<Touch> MultitouchSource::touches(std::span<const std::byte> bytes, std::int32_t count, bool* truncated) {
    std::vector<Touch> result;
    if (truncated) *truncated = false;
    if (count < 1) return result;
    std::size_t wanted = static_cast<std::size_t>(count);
    const std::size_t fits = bytes.size() / recordSize;
    if (wanted > fits) {
        if (truncated) *truncated = true;
        wanted = fits;
    }
    result.reserve(wanted);
    for (std::size_t i = 0; i < wanted; ++i) result.push_back(touch(bytes.data() + i * recordSize));
    return result;
}

int MultitouchSource::contactFrame(void*, const void* records, std::int32_t count, double timestamp, std::int32_t) {
    std::shared_ptr<MultitouchSource> source;
    {
        std::lock_guard guard(activeLock);
        source = activeSource.lock();
    }
    if (!source) return 0;
    TouchFrame frame;
    frame.timestamp = timestamp;
    // An empty frame is still delivered: it is how a lift is seen.
    if (records && count >= 1) {
        if (count > maximumContacts) {
            // Told once a run of the stream: at 120 frames a second a line each would drown the log.
            if (!source->toldOversized_.exchange(true)) {
                Log::gesture.error("Multitouch frame claims %d contacts; reading the first %d", count, maximumContacts);
            }
            count = maximumContacts;
        }
        const auto size = static_cast<std::size_t>(count) * recordSize;
        frame.touches = touches(std::span(static_cast<const std::byte*>(records), size), count);
    }
    source->deliver(frame);
    return 0;
}

void MultitouchSource::deliver(const TouchFrame& frame) {
    OnFrame callback;
    {
        std::lock_guard guard(lock_);
        callback = onFrame_;
    }
    if (callback) callback(frame);
}

void MultitouchSource::start() {
    // Start and stop take turns; `lock_` itself is never held while the library runs, because
    // its delivery thread may be waiting for it inside the callback.
    std::lock_guard control(control_);
    if (isRunning()) return;
    const Symbols* symbols = symbolsFor(libraryPath_);
    if (!symbols) throw MultitouchError(MultitouchError::Code::frameworkUnavailable);
    void** list = symbols->createList();
    if (!list || !list[0]) throw MultitouchError(MultitouchError::Code::noDevices);
    {
        std::lock_guard active(activeLock);
        activeSource = weak_from_this();
    }
    std::vector<void*> started;
    for (void** device = list; *device; ++device) {
        symbols->registerCallback(*device, &MultitouchSource::contactFrame);
        symbols->start(*device, 0);
        started.push_back(*device);
    }
    {
        std::lock_guard guard(lock_);
        devices_ = started;
        running_ = true;
    }
    toldOversized_ = false;
    Log::gesture.info("Multitouch source started on %ld device(s)", static_cast<long>(started.size()));
}

void MultitouchSource::stop() {
    std::lock_guard control(control_);
    std::vector<void*> devices;
    {
        std::lock_guard guard(lock_);
        if (!running_) return;
        devices = std::exchange(devices_, {});
        running_ = false;
    }
    const Symbols* symbols = symbolsFor(libraryPath_);
    for (void* device : devices) {
        symbols->stop(device);
        symbols->unregisterCallback(device, &MultitouchSource::contactFrame);
    }
    {
        std::lock_guard active(activeLock);
        // Another source may have started since; only this one's own reference goes.
        if (activeSource.lock().get() == this || activeSource.expired()) activeSource.reset();
    }
    Log::gesture.info("Multitouch source stopped");
}

bool MultitouchSource::isRunning() const {
    std::lock_guard guard(lock_);
    return running_;
}

void MultitouchSource::setOnFrame(OnFrame onFrame) {
    OnFrame replaced;
    std::lock_guard guard(lock_);
    replaced = std::exchange(onFrame_, std::move(onFrame));
}

TouchSource::OnFrame MultitouchSource::onFrame() const {
    std::lock_guard guard(lock_);
    return onFrame_;
}

} // namespace tavrick
