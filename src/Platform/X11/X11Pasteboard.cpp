#include "Platform/X11/X11Pasteboard.h"

#include "CoreKit/Log.h"
#include "Platform/X11/X11Connection.h"

#include <xcb/xfixes.h>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>
#include <thread>

namespace tavrick {

namespace {

using SteadyClock = std::chrono::steady_clock;

SteadyClock::duration seconds(double value) {
    return std::chrono::duration_cast<SteadyClock::duration>(std::chrono::duration<double>(value));
}

std::string secondsText(double value) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%.1f s", value);
    return buffer;
}

// Target names that are about the selection itself, never a kind of content.
bool isMetaTarget(const std::string& name) {
    return name == "TARGETS" || name == "TIMESTAMP" || name == "MULTIPLE" || name == "SAVE_TARGETS" ||
           name == "DELETE" || name == "INSERT_SELECTION" || name == "INSERT_PROPERTY";
}

bool isTextTarget(const std::string& name) {
    return name == "UTF8_STRING" || name == "STRING" || name == "TEXT" || name == "text/plain;charset=utf-8" ||
           name == "text/plain";
}

// One read this program asked for: filled on the reader thread, waited for by the caller.
struct Transfer {
    std::uint64_t serial = 0;
    xcb_atom_t target = XCB_ATOM_NONE;
    bool answered = false;  // the owner sent its SelectionNotify
    bool incremental = false;
    bool done = false;
    std::string failure;  // set when done without data
    std::string data;
    SteadyClock::time_point lastProgress;
};

// A large answer to another program, sent a piece at a time as it deletes each one.
struct Outgoing {
    std::string data;
    std::size_t offset = 0;
    xcb_atom_t type = XCB_ATOM_NONE;
    bool finished = false;  // the closing empty piece went out
    SteadyClock::time_point started;
};

} // namespace

std::string latin1ToUTF8(const std::string& latin1) {
    std::string out;
    out.reserve(latin1.size());
    for (unsigned char c : latin1) {
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

std::string utf8ToLatin1(const std::string& utf8) {
    std::string out;
    out.reserve(utf8.size());
    for (std::size_t i = 0; i < utf8.size();) {
        const auto c = static_cast<unsigned char>(utf8[i]);
        const std::size_t length = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 1;
        // A cut-off sequence, a stray continuation byte or a bad one after a lead is one '?'.
        bool wellFormed = (length > 1 || c < 0x80) && i + length <= utf8.size();
        for (std::size_t k = 1; k < length && wellFormed; ++k) {
            wellFormed = (static_cast<unsigned char>(utf8[i + k]) & 0xC0) == 0x80;
        }
        if (length == 1) {
            out += c < 0x80 ? static_cast<char>(c) : '?';
        } else if (length == 2 && wellFormed && (c & 0x1F) <= 0x03) {
            out += static_cast<char>(((c & 0x1F) << 6) | (static_cast<unsigned char>(utf8[i + 1]) & 0x3F));
        } else {
            out += '?';
        }
        if (wellFormed) {
            i += length;
        } else {
            // The lead and whatever continuation bytes of it there are.
            std::size_t k = 1;
            while (length > 1 && k < length && i + k < utf8.size() && (static_cast<unsigned char>(utf8[i + k]) & 0xC0) == 0x80) ++k;
            i += k;
        }
    }
    return out;
}

struct X11Pasteboard::Core : std::enable_shared_from_this<Core> {
    Core(std::unique_ptr<X11Connection> connection, Limits limits) : x(std::move(connection)), limits(limits) {}

    std::unique_ptr<X11Connection> x;
    Limits limits;
    xcb_window_t window = 0;
    std::uint8_t xfixesFirstEvent = 0;
    xcb_atom_t clipboard = 0, targets = 0, utf8 = 0, text = 0, textPlainUTF8 = 0, incr = 0, timestamp = 0,
               transferProperty = 0, hint = 0, concealed = 0;
    std::size_t chunkLimit = 0;

    // One public call at a time: reads and writes from different threads take turns.
    mutable std::mutex callLock;

    // Guards everything below.
    mutable std::mutex lock;
    std::condition_variable changed;
    std::int64_t count = 0;
    bool owned = false;
    std::vector<std::pair<std::string, std::string>> entries;  // what this program offers, when it owns
    std::map<xcb_atom_t, std::string> targetNames;               // atoms this program offers, by name
    std::optional<Transfer> transfer;
    std::uint64_t nextSerial = 1;
    std::map<std::pair<xcb_window_t, xcb_atom_t>, Outgoing> outgoing;
    std::map<xcb_atom_t, std::string> atomNames;
    // What was read of the current owner's copy, for the count it belongs to.
    std::int64_t cacheCount = -1;
    std::optional<std::vector<std::string>> cachedTypes;
    std::vector<std::string> cachedTargets;  // the owner's raw target names
    std::map<std::string, std::optional<std::string>> cachedData;
    bool ownerSilent = false;  // it let a request time out: nothing more is asked of it this change
    std::string lastFailure;
    // The size of the text refused for it in this change, at least.
    std::optional<std::size_t> oversizedBytes;

    std::atomic<bool> stopping{false};
    std::atomic<bool> alive{true};
    int wake[2] = {-1, -1};
    std::thread reader;

    bool start(std::string* failure);
    void stop();
    void wakeReader();
    void run();
    void handle(xcb_generic_event_t* event);
    void serve(const xcb_selection_request_event_t* request);
    void answered(const xcb_selection_notify_event_t* notify);
    void propertyChanged(const xcb_property_notify_event_t* notify);
    void sendPiece(xcb_window_t requestor, xcb_atom_t property, Outgoing& out);
    // Reads the property the owner wrote into, deleting it; false when it is over the limit.
    bool takeProperty(std::string& data, xcb_atom_t& type, std::string& failure);
    void noteOversized(std::size_t bytes) {
        std::lock_guard guard(lock);
        oversizedBytes = std::max(oversizedBytes.value_or(0), bytes);
    }
    // Asks the owner for `target` and waits within the limits; nothing with `failure` set otherwise.
    std::optional<std::string> fetch(xcb_atom_t target, std::string& failure);
    bool takeOwnership();
    std::string atomName(xcb_atom_t atom);
    void resetCacheIfStale();
    std::vector<std::string> readTypes();
    std::optional<std::string> readTarget(const std::string& name);
};

bool X11Pasteboard::Core::start(std::string* failure) {
    auto* c = x->xcb();
    auto* ext = xcb_get_extension_data(c, &xcb_xfixes_id);
    if (!ext || !ext->present) {
        if (failure) *failure = "the X server at " + x->displayName() + " has no XFixes, so copies cannot be followed";
        return false;
    }
    auto version = xreply(xcb_xfixes_query_version_reply(c, xcb_xfixes_query_version(c, 5, 0), nullptr));
    if (!version) {
        if (failure) *failure = "the X server at " + x->displayName() + " did not answer for XFixes";
        return false;
    }
    xfixesFirstEvent = ext->first_event;
    clipboard = x->atom("CLIPBOARD");
    targets = x->atom("TARGETS");
    utf8 = x->atom("UTF8_STRING");
    text = x->atom("TEXT");
    textPlainUTF8 = x->atom("text/plain;charset=utf-8");
    incr = x->atom("INCR");
    timestamp = x->atom("TIMESTAMP");
    transferProperty = x->atom("TAVRICK_CLIPBOARD");
    hint = x->atom(passwordManagerHint);
    concealed = x->atom(concealedType);
    window = xcb_generate_id(c);
    const std::uint32_t mask = XCB_EVENT_MASK_PROPERTY_CHANGE;
    xcb_create_window(c, 0, window, x->root(), -10, -10, 1, 1, 0, XCB_WINDOW_CLASS_INPUT_ONLY, XCB_COPY_FROM_PARENT,
                      XCB_CW_EVENT_MASK, &mask);
    xcb_xfixes_select_selection_input(c, window, clipboard,
                                      XCB_XFIXES_SELECTION_EVENT_MASK_SET_SELECTION_OWNER |
                                          XCB_XFIXES_SELECTION_EVENT_MASK_SELECTION_WINDOW_DESTROY |
                                          XCB_XFIXES_SELECTION_EVENT_MASK_SELECTION_CLIENT_CLOSE);
    // A ChangeProperty request carries 24 bytes besides the data.
    const std::size_t serverLimit = std::size_t(xcb_get_maximum_request_length(c)) * 4;
    chunkLimit = std::max<std::size_t>(1, std::min(limits.chunkBytes, serverLimit > 64 ? serverLimit - 64 : 1));
    xcb_flush(c);
    if (::pipe2(wake, O_CLOEXEC | O_NONBLOCK) != 0) wake[0] = wake[1] = -1;
    reader = std::thread([self = shared_from_this()] { self->run(); });
    return true;
}

void X11Pasteboard::Core::wakeReader() {
    if (wake[1] >= 0) {
        const char byte = 1;
        [[maybe_unused]] auto written = ::write(wake[1], &byte, 1);
    }
}

void X11Pasteboard::Core::stop() {
    stopping = true;
    wakeReader();
    if (reader.joinable()) reader.join();
    if (x->isAlive() && window) {
        xcb_destroy_window(x->xcb(), window);
        xcb_flush(x->xcb());
    }
    for (int fd : wake) {
        if (fd >= 0) ::close(fd);
    }
}

void X11Pasteboard::Core::run() {
    auto* c = x->xcb();
    while (!stopping) {
        pollfd fds[2] = {{xcb_get_file_descriptor(c), POLLIN, 0}, {wake[0], POLLIN, 0}};
        ::poll(fds, wake[0] >= 0 ? 2 : 1, -1);
        if (stopping) break;
        if (fds[1].revents & POLLIN) {
            char bytes[64];
            [[maybe_unused]] auto drained = ::read(wake[0], bytes, sizeof bytes);
        }
        while (xcb_generic_event_t* event = xcb_poll_for_event(c)) {
            handle(event);
            std::free(event);
        }
        if (xcb_connection_has_error(c)) {
            alive = false;
            {
                std::lock_guard guard(lock);
                owned = false;
                if (transfer && !transfer->done) {
                    transfer->done = true;
                    transfer->failure = "the X server went away";
                }
            }
            changed.notify_all();
            return;
        }
    }
}

void X11Pasteboard::Core::handle(xcb_generic_event_t* event) {
    const auto type = event->response_type & 0x7f;
    if (type == xfixesFirstEvent + XCB_XFIXES_SELECTION_NOTIFY) {
        auto* notify = reinterpret_cast<xcb_xfixes_selection_notify_event_t*>(event);
        if (notify->selection != clipboard || notify->owner == window) return;
        std::lock_guard guard(lock);
        owned = false;
        entries.clear();
        ++count;
    } else if (type == XCB_SELECTION_CLEAR) {
        std::lock_guard guard(lock);
        owned = false;
        entries.clear();
    } else if (type == XCB_SELECTION_REQUEST) {
        serve(reinterpret_cast<xcb_selection_request_event_t*>(event));
    } else if (type == XCB_SELECTION_NOTIFY) {
        answered(reinterpret_cast<xcb_selection_notify_event_t*>(event));
    } else if (type == XCB_PROPERTY_NOTIFY) {
        propertyChanged(reinterpret_cast<xcb_property_notify_event_t*>(event));
    }
}

void X11Pasteboard::Core::serve(const xcb_selection_request_event_t* request) {
    auto* c = x->xcb();
    // Clients from before ICCCM 2 name no property: the target is used.
    const xcb_atom_t property = request->property == XCB_ATOM_NONE ? request->target : request->property;
    std::optional<std::string> data;
    xcb_atom_t dataType = XCB_ATOM_NONE;
    std::vector<xcb_atom_t> atoms;
    bool isAtoms = false;
    {
        std::lock_guard guard(lock);
        const bool ours = owned && request->selection == clipboard && request->owner == window;
        auto entry = [&](const std::string& name) -> const std::string* {
            for (const auto& [entryType, entryData] : entries) {
                if (entryType == name) return &entryData;
            }
            return nullptr;
        };
        const auto* plain = ours ? entry(plainTextType) : nullptr;
        const bool secret = ours && entry(concealedType);
        if (!ours) {
        } else if (request->target == targets) {
            isAtoms = true;
            // In the order the content was put there, as the owner's types are read back.
            atoms = {targets, timestamp};
            for (const auto& [entryType, entryData] : entries) {
                if (entryType == plainTextType) {
                    atoms.insert(atoms.end(), {utf8, textPlainUTF8, XCB_ATOM_STRING, text});
                } else if (entryType == concealedType) {
                    atoms.insert(atoms.end(), {concealed, hint});
                } else {
                    for (const auto& [atom, name] : targetNames) {
                        if (name == entryType) atoms.push_back(atom);
                    }
                }
            }
        } else if (request->target == timestamp) {
            const std::uint32_t now = XCB_CURRENT_TIME;
            data = std::string(reinterpret_cast<const char*>(&now), 4);
            dataType = XCB_ATOM_INTEGER;
        } else if (plain && (request->target == utf8 || request->target == textPlainUTF8 || request->target == text)) {
            data = *plain;
            dataType = request->target == textPlainUTF8 ? textPlainUTF8 : utf8;
        } else if (plain && request->target == XCB_ATOM_STRING) {
            data = utf8ToLatin1(*plain);
            dataType = XCB_ATOM_STRING;
        } else if (secret && request->target == hint) {
            data = "secret";
            dataType = utf8;
        } else if (auto named = targetNames.find(request->target); named != targetNames.end()) {
            if (const auto* found = entry(named->second)) {
                data = *found;
                dataType = request->target;
            }
        }
    }
    std::unique_lock xguard(x->lock);
    bool refused = !isAtoms && !data;
    if (isAtoms) {
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, request->requestor, property, XCB_ATOM_ATOM, 32,
                            static_cast<std::uint32_t>(atoms.size()), atoms.data());
    } else if (data && data->size() > chunkLimit) {
        // Too large for one request: the size first, then a piece each time the requestor deletes one.
        const std::uint32_t events = XCB_EVENT_MASK_PROPERTY_CHANGE;
        xcb_change_window_attributes(c, request->requestor, XCB_CW_EVENT_MASK, &events);
        const auto size = static_cast<std::uint32_t>(data->size());
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, request->requestor, property, incr, 32, 1, &size);
        // The requestor's deletes come to this same thread after this returns, so recording the
        // transfer now is soon enough. Transfers a requestor abandoned go after half a minute.
        const auto now = SteadyClock::now();
        Outgoing transferOut{std::move(*data), 0, dataType, false, now};
        xguard.unlock();
        {
            std::lock_guard guard(lock);
            std::erase_if(outgoing, [&](const auto& item) { return now - item.second.started > seconds(30); });
            outgoing[{request->requestor, property}] = std::move(transferOut);
        }
        xguard.lock();
    } else if (data) {
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, request->requestor, property, dataType,
                            dataType == XCB_ATOM_INTEGER ? 32 : 8,
                            static_cast<std::uint32_t>(dataType == XCB_ATOM_INTEGER ? data->size() / 4 : data->size()),
                            data->data());
    }
    xcb_selection_notify_event_t reply{};
    reply.response_type = XCB_SELECTION_NOTIFY;
    reply.time = request->time;
    reply.requestor = request->requestor;
    reply.selection = request->selection;
    reply.target = request->target;
    reply.property = refused ? xcb_atom_t{XCB_ATOM_NONE} : property;
    xcb_send_event(c, 0, request->requestor, XCB_EVENT_MASK_NO_EVENT, reinterpret_cast<const char*>(&reply));
    xcb_flush(c);
}

void X11Pasteboard::Core::sendPiece(xcb_window_t requestor, xcb_atom_t property, Outgoing& out) {
    const std::size_t length = std::min(chunkLimit, out.data.size() - out.offset);
    xcb_change_property(x->xcb(), XCB_PROP_MODE_REPLACE, requestor, property, out.type, 8,
                        static_cast<std::uint32_t>(length), out.data.data() + out.offset);
    out.offset += length;
    if (length == 0) out.finished = true;
    xcb_flush(x->xcb());
}

bool X11Pasteboard::Core::takeProperty(std::string& data, xcb_atom_t& type, std::string& failure) {
    auto* c = x->xcb();
    const auto longs = static_cast<std::uint32_t>(limits.maximumBytes / 4 + 1);
    auto reply = xreply(xcb_get_property_reply(c, xcb_get_property(c, 1, window, transferProperty,
                                                                   XCB_GET_PROPERTY_TYPE_ANY, 0, longs),
                                               nullptr));
    if (!reply) {
        failure = "the answer could not be read";
        return false;
    }
    type = reply->type;
    const auto length = static_cast<std::size_t>(xcb_get_property_value_length(reply.get()));
    if (reply->bytes_after > 0 || length > limits.maximumBytes) {
        xcb_delete_property(c, window, transferProperty);
        noteOversized(length + reply->bytes_after);
        failure = "the copy holds more than " + std::to_string(limits.maximumBytes) + " bytes";
        return false;
    }
    data.assign(static_cast<const char*>(xcb_get_property_value(reply.get())), length);
    return true;
}

void X11Pasteboard::Core::answered(const xcb_selection_notify_event_t* notify) {
    if (notify->requestor != window) return;
    std::unique_lock guard(lock);
    if (!transfer || transfer->answered || notify->target != transfer->target) {
        guard.unlock();
        // A late answer to a request already given up: its property is not left behind.
        if (notify->property != XCB_ATOM_NONE) {
            xcb_delete_property(x->xcb(), window, notify->property);
            xcb_flush(x->xcb());
        }
        return;
    }
    transfer->answered = true;
    transfer->lastProgress = SteadyClock::now();
    if (notify->property == XCB_ATOM_NONE) {
        transfer->done = true;
        transfer->failure = "the owner has no such content";
    } else {
        const auto serial = transfer->serial;
        guard.unlock();
        std::string data, failure;
        xcb_atom_t type = XCB_ATOM_NONE;
        const bool ok = takeProperty(data, type, failure);
        guard.lock();
        // Given up while the property was read: the answer belongs to nobody now.
        if (!transfer || transfer->serial != serial) return;
        if (!ok) {
            transfer->done = true;
            transfer->failure = failure;
        } else if (type == incr) {
            // Deleting the property told the owner to begin; pieces follow as new values.
            transfer->incremental = true;
        } else if (type == XCB_ATOM_NONE) {
            transfer->done = true;
            transfer->failure = "the owner wrote nothing";
        } else {
            transfer->done = true;
            transfer->data = std::move(data);
        }
    }
    guard.unlock();
    changed.notify_all();
}

void X11Pasteboard::Core::propertyChanged(const xcb_property_notify_event_t* notify) {
    if (notify->window == window) {
        if (notify->atom != transferProperty || notify->state != XCB_PROPERTY_NEW_VALUE) return;
        std::uint64_t serial = 0;
        {
            std::lock_guard guard(lock);
            if (!transfer || !transfer->incremental || transfer->done) return;
            serial = transfer->serial;
        }
        std::string piece, failure;
        xcb_atom_t type = XCB_ATOM_NONE;
        const bool ok = takeProperty(piece, type, failure);
        {
            std::lock_guard guard(lock);
            if (!transfer || transfer->done || transfer->serial != serial) return;
            transfer->lastProgress = SteadyClock::now();
            if (!ok) {
                transfer->done = true;
                transfer->failure = failure;
            } else if (piece.empty()) {
                transfer->done = true;
            } else if (transfer->data.size() + piece.size() > limits.maximumBytes) {
                oversizedBytes = std::max(oversizedBytes.value_or(0), transfer->data.size() + piece.size());
                transfer->done = true;
                transfer->data.clear();
                transfer->failure = "the copy holds more than " + std::to_string(limits.maximumBytes) + " bytes";
            } else {
                transfer->data += piece;
            }
        }
        xcb_flush(x->xcb());
        changed.notify_all();
        return;
    }
    if (notify->state != XCB_PROPERTY_DELETE) return;
    // Only this thread touches the transfers going out; the lock is for the map itself.
    Outgoing* out = nullptr;
    {
        std::lock_guard guard(lock);
        auto found = outgoing.find({notify->window, notify->atom});
        if (found == outgoing.end()) return;
        if (found->second.finished) {
            outgoing.erase(found);
            return;
        }
        out = &found->second;
    }
    {
        std::lock_guard xguard(x->lock);
        sendPiece(notify->window, notify->atom, *out);
    }
    std::lock_guard guard(lock);
    if (out->finished) outgoing.erase({notify->window, notify->atom});
}

std::optional<std::string> X11Pasteboard::Core::fetch(xcb_atom_t target, std::string& failure) {
    if (!alive || !x->isAlive()) {
        failure = "the X server went away";
        return std::nullopt;
    }
    {
        std::lock_guard guard(lock);
        transfer = Transfer{};
        transfer->serial = nextSerial++;
        transfer->target = target;
        transfer->lastProgress = SteadyClock::now();
    }
    {
        std::lock_guard xguard(x->lock);
        xcb_delete_property(x->xcb(), window, transferProperty);
        xcb_convert_selection(x->xcb(), window, clipboard, target, transferProperty, XCB_CURRENT_TIME);
        xcb_flush(x->xcb());
    }
    wakeReader();
    const auto started = SteadyClock::now();
    std::unique_lock guard(lock);
    while (!transfer->done) {
        const auto answerBy = transfer->lastProgress + seconds(limits.answerSeconds);
        const auto overall = started + seconds(limits.transferSeconds);
        const auto deadline = std::min(answerBy, overall);
        if (SteadyClock::now() >= deadline) {
            const bool slowTransfer = transfer->answered && SteadyClock::now() >= overall;
            failure = !transfer->answered ? "the owner did not answer within " + secondsText(limits.answerSeconds)
                      : slowTransfer      ? "the transfer took longer than " + secondsText(limits.transferSeconds)
                                          : "the owner stopped sending for " + secondsText(limits.answerSeconds);
            transfer.reset();
            guard.unlock();
            std::lock_guard xguard(x->lock);
            xcb_delete_property(x->xcb(), window, transferProperty);
            xcb_flush(x->xcb());
            return std::nullopt;
        }
        changed.wait_until(guard, deadline);
    }
    auto result = std::move(*transfer);
    transfer.reset();
    if (!result.failure.empty()) {
        failure = result.failure;
        return std::nullopt;
    }
    return std::move(result.data);
}

bool X11Pasteboard::Core::takeOwnership() {
    if (!alive || !x->isAlive()) return false;
    auto* c = x->xcb();
    bool ours = false;
    {
        std::lock_guard xguard(x->lock);
        xcb_set_selection_owner(c, window, clipboard, XCB_CURRENT_TIME);
        auto owner = xreply(xcb_get_selection_owner_reply(c, xcb_get_selection_owner(c, clipboard), nullptr));
        ours = owner && owner->owner == window;
    }
    // The round trip may have read events the reader's poll cannot see.
    wakeReader();
    return ours;
}

std::string X11Pasteboard::Core::atomName(xcb_atom_t atom) {
    {
        std::lock_guard guard(lock);
        if (auto found = atomNames.find(atom); found != atomNames.end()) return found->second;
    }
    std::string name;
    {
        std::lock_guard xguard(x->lock);
        auto reply = xreply(xcb_get_atom_name_reply(x->xcb(), xcb_get_atom_name(x->xcb(), atom), nullptr));
        if (reply) name.assign(xcb_get_atom_name_name(reply.get()), xcb_get_atom_name_name_length(reply.get()));
    }
    wakeReader();
    std::lock_guard guard(lock);
    atomNames[atom] = name;
    return name;
}

void X11Pasteboard::Core::resetCacheIfStale() {
    std::lock_guard guard(lock);
    if (cacheCount == count) return;
    cacheCount = count;
    cachedTypes.reset();
    cachedTargets.clear();
    cachedData.clear();
    ownerSilent = false;
    lastFailure.clear();
    oversizedBytes.reset();
}

std::vector<std::string> X11Pasteboard::Core::readTypes() {
    resetCacheIfStale();
    {
        std::lock_guard guard(lock);
        if (cachedTypes) return *cachedTypes;
        if (ownerSilent) return {};
    }
    std::string failure;
    auto answer = fetch(targets, failure);
    std::vector<std::string> names;
    if (answer) {
        const auto* atoms = reinterpret_cast<const std::uint32_t*>(answer->data());
        for (std::size_t i = 0; i < answer->size() / 4; ++i) names.push_back(atomName(atoms[i]));
    }
    std::vector<std::string> types;
    auto add = [&types](const std::string& type) {
        if (std::find(types.begin(), types.end(), type) == types.end()) types.push_back(type);
    };
    for (const auto& name : names) {
        // The hint is looked into separately: only its data says whether the copy is secret.
        if (name.empty() || isMetaTarget(name) || name == passwordManagerHint) continue;
        if (isTextTarget(name)) {
            add(plainTextType);
        } else {
            add(name);
        }
    }
    std::lock_guard guard(lock);
    cachedTargets = names;
    if (!answer) {
        lastFailure = failure;
        // Silence is remembered for this change; a plain refusal still lets the text be asked for.
        ownerSilent = failure.find("did not answer") != std::string::npos || failure.find("went away") != std::string::npos;
        if (ownerSilent) Log::core.notice("Clipboard: the copy was not read: %s", failure.c_str());
    }
    cachedTypes = types;
    return types;
}

std::optional<std::string> X11Pasteboard::Core::readTarget(const std::string& name) {
    std::string failure;
    auto answer = fetch(name == "STRING" ? xcb_atom_t{XCB_ATOM_STRING} : x->atom(name), failure);
    wakeReader();
    if (!answer) {
        std::lock_guard guard(lock);
        lastFailure = failure;
        if (failure.find("did not answer") != std::string::npos || failure.find("stopped sending") != std::string::npos ||
            failure.find("longer than") != std::string::npos || failure.find("went away") != std::string::npos) {
            ownerSilent = true;
        }
        if (failure.find("has no such") == std::string::npos) {
            Log::core.notice("Clipboard: the copy was not read: %s", failure.c_str());
        }
    }
    return answer;
}

X11Pasteboard::X11Pasteboard(std::shared_ptr<Core> core) : core_(std::move(core)) {}

std::unique_ptr<X11Pasteboard> X11Pasteboard::open(std::unique_ptr<X11Connection> connection, Limits limits,
                                                   std::string* failure) {
    auto core = std::make_shared<Core>(std::move(connection), limits);
    if (!core->start(failure)) return nullptr;
    return std::unique_ptr<X11Pasteboard>(new X11Pasteboard(std::move(core)));
}

X11Pasteboard::~X11Pasteboard() {
    core_->stop();
}

std::int64_t X11Pasteboard::changeCount() const {
    std::lock_guard guard(core_->lock);
    return core_->count;
}

bool X11Pasteboard::ownsSelection() const {
    std::lock_guard guard(core_->lock);
    return core_->owned;
}

std::optional<std::int64_t> X11Pasteboard::oversizedTextBytes() const {
    // Only a read finds out, and a reader asks for the text first; the answer belongs to this change.
    std::lock_guard guard(core_->lock);
    if (core_->owned || core_->cacheCount != core_->count || !core_->oversizedBytes) return std::nullopt;
    return static_cast<std::int64_t>(*core_->oversizedBytes);
}

std::string X11Pasteboard::lastReadFailure() const {
    std::lock_guard guard(core_->lock);
    return core_->lastFailure;
}

std::vector<std::string> X11Pasteboard::types() const {
    std::lock_guard call(core_->callLock);
    {
        std::lock_guard guard(core_->lock);
        if (core_->owned) {
            std::vector<std::string> out;
            for (const auto& entry : core_->entries) out.push_back(entry.first);
            return out;
        }
    }
    auto types = core_->readTypes();
    // An owner that offers the password managers' hint says in its data whether the copy is secret.
    bool hinted = false;
    {
        std::lock_guard guard(core_->lock);
        hinted = std::find(core_->cachedTargets.begin(), core_->cachedTargets.end(), passwordManagerHint) !=
                 core_->cachedTargets.end();
        if (hinted && core_->cachedData.contains(passwordManagerHint)) hinted = false;  // already looked
    }
    if (hinted) {
        auto value = core_->readTarget(passwordManagerHint);
        std::lock_guard guard(core_->lock);
        core_->cachedData[passwordManagerHint] = value;
    }
    std::lock_guard guard(core_->lock);
    if (auto hintValue = core_->cachedData.find(passwordManagerHint);
        hintValue != core_->cachedData.end() && hintValue->second && *hintValue->second == "secret" && core_->cachedTypes &&
        std::find(core_->cachedTypes->begin(), core_->cachedTypes->end(), concealedType) == core_->cachedTypes->end()) {
        core_->cachedTypes->insert(core_->cachedTypes->begin(), concealedType);
    }
    return core_->cachedTypes.value_or(types);
}

std::optional<std::string> X11Pasteboard::string(const std::string& type) const {
    std::lock_guard call(core_->callLock);
    {
        std::lock_guard guard(core_->lock);
        if (core_->owned) {
            for (const auto& [entryType, data] : core_->entries) {
                if (entryType == type) return data;
            }
            return std::nullopt;
        }
    }
    core_->resetCacheIfStale();
    {
        std::lock_guard guard(core_->lock);
        if (auto found = core_->cachedData.find(type); found != core_->cachedData.end()) return found->second;
        if (core_->ownerSilent) return std::nullopt;
    }
    std::optional<std::string> value;
    if (type == plainTextType) {
        std::vector<std::string> offered;
        {
            std::lock_guard guard(core_->lock);
            offered = core_->cachedTargets;
        }
        auto offers = [&](const char* name) {
            return offered.empty() || std::find(offered.begin(), offered.end(), name) != offered.end();
        };
        if (offers("UTF8_STRING")) value = core_->readTarget("UTF8_STRING");
        bool silent = false;
        {
            std::lock_guard guard(core_->lock);
            silent = core_->ownerSilent;
        }
        if (!value && !silent && offers("STRING")) {
            value = core_->readTarget("STRING");
            if (value) value = latin1ToUTF8(*value);
        }
    } else if (type == concealedType) {
        const auto types = core_->readTypes();
        if (std::find(types.begin(), types.end(), type) != types.end()) value = std::string();
    } else {
        value = core_->readTarget(type);
    }
    std::lock_guard guard(core_->lock);
    if (core_->cacheCount == core_->count) core_->cachedData[type] = value;
    return value;
}

std::int64_t X11Pasteboard::clearContents() {
    std::lock_guard call(core_->callLock);
    const bool ours = core_->takeOwnership();
    std::lock_guard guard(core_->lock);
    core_->owned = ours;
    core_->entries.clear();
    core_->targetNames.clear();
    return ++core_->count;
}

bool X11Pasteboard::setString(const std::string& text, const std::string& type) {
    std::lock_guard call(core_->callLock);
    bool owned = false;
    {
        std::lock_guard guard(core_->lock);
        owned = core_->owned;
    }
    if (!owned) {
        if (!core_->takeOwnership()) return false;
        std::lock_guard guard(core_->lock);
        core_->owned = true;
        core_->entries.clear();
        core_->targetNames.clear();
        ++core_->count;
    }
    xcb_atom_t atom = XCB_ATOM_NONE;
    if (type != plainTextType) {
        atom = core_->x->atom(type);
        core_->wakeReader();
        if (atom == XCB_ATOM_NONE) return false;
    }
    std::lock_guard guard(core_->lock);
    std::erase_if(core_->entries, [&](const auto& entry) { return entry.first == type; });
    core_->entries.emplace_back(type, text);
    if (atom != XCB_ATOM_NONE) core_->targetNames[atom] = type;
    return true;
}

} // namespace tavrick
