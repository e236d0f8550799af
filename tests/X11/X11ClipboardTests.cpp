// The clipboard and the activations of a real X server: a private Xvfb, one test at a time.
#include "X11/XSession.h"

#include "ClipboardKit/ClipboardMonitor.h"
#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/ManualScheduler.h"
#include "Platform/X11/X11ActivationWatcher.h"
#include "Platform/X11/X11Connection.h"
#include "Platform/X11/X11PadWindow.h"
#include "Platform/X11/X11Pasteboard.h"
#include "Support/Eventually.h"
#include "Support/LogCapture.h"
#include "Support/TempDir.h"

#include <gtest/gtest.h>

#include <poll.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

namespace tavrick {
namespace {

using testing::eventually;
using testing::FakeUser;
using testing::TestWindow;
using testing::XSession;

xcb_atom_t intern(xcb_connection_t* c, const std::string& name) {
    auto reply = xreply(xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, std::uint16_t(name.size()), name.c_str()), nullptr));
    return reply ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
}

std::string atomName(xcb_connection_t* c, xcb_atom_t atom) {
    auto reply = xreply(xcb_get_atom_name_reply(c, xcb_get_atom_name(c, atom), nullptr));
    return reply ? std::string(xcb_get_atom_name_name(reply.get()), xcb_get_atom_name_name_length(reply.get())) : "";
}

xcb_window_t makeWindow(xcb_connection_t* c) {
    const auto root = xcb_setup_roots_iterator(xcb_get_setup(c)).data->root;
    const xcb_window_t window = xcb_generate_id(c);
    const std::uint32_t mask = XCB_EVENT_MASK_PROPERTY_CHANGE;
    xcb_create_window(c, 0, window, root, 0, 0, 1, 1, 0, XCB_WINDOW_CLASS_INPUT_ONLY, XCB_COPY_FROM_PARENT,
                      XCB_CW_EVENT_MASK, &mask);
    return window;
}

// Another program that copied: it owns CLIPBOARD and answers TARGETS and each of its targets from
// a thread of its own, written without the adapter's code. A silent one owns and never answers.
class ForeignOwner {
public:
    struct Target {
        std::string name;
        std::string data;
    };

    enum class Answers { yes, never, beginsPiecesAndStalls };

    ForeignOwner(const std::string& display, std::vector<Target> targets, bool answers = true)
        : ForeignOwner(display, std::move(targets), answers ? Answers::yes : Answers::never) {}

    ForeignOwner(const std::string& display, std::vector<Target> targets, Answers answers)
        : targets_(std::move(targets)), answers_(answers) {
        c_ = xcb_connect(display.c_str(), nullptr);
        window_ = makeWindow(c_);
        clipboard_ = intern(c_, "CLIPBOARD");
        targetsAtom_ = intern(c_, "TARGETS");
        for (const auto& target : targets_) atoms_.push_back(intern(c_, target.name));
        xcb_set_selection_owner(c_, window_, clipboard_, XCB_CURRENT_TIME);
        auto owner = xreply(xcb_get_selection_owner_reply(c_, xcb_get_selection_owner(c_, clipboard_), nullptr));
        owns_ = owner && owner->owner == window_;
        if (answers != Answers::never) thread_ = std::thread([this] { serve(); });
    }

    ~ForeignOwner() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
        xcb_disconnect(c_);
    }

    bool owns() const { return owns_; }
    int requests() const { return requests_; }

private:
    void serve() {
        while (!stop_) {
            pollfd fd{xcb_get_file_descriptor(c_), POLLIN, 0};
            ::poll(&fd, 1, 20);
            while (auto* event = xcb_poll_for_event(c_)) {
                if ((event->response_type & 0x7f) == XCB_SELECTION_REQUEST) answer(reinterpret_cast<xcb_selection_request_event_t*>(event));
                std::free(event);
            }
        }
    }

    void answer(const xcb_selection_request_event_t* request) {
        ++requests_;
        xcb_selection_notify_event_t reply{};
        reply.response_type = XCB_SELECTION_NOTIFY;
        reply.requestor = request->requestor;
        reply.selection = request->selection;
        reply.target = request->target;
        reply.time = request->time;
        reply.property = XCB_ATOM_NONE;
        if (request->target == targetsAtom_) {
            std::vector<xcb_atom_t> list{targetsAtom_};
            list.insert(list.end(), atoms_.begin(), atoms_.end());
            xcb_change_property(c_, XCB_PROP_MODE_REPLACE, request->requestor, request->property, XCB_ATOM_ATOM, 32,
                                std::uint32_t(list.size()), list.data());
            reply.property = request->property;
        }
        for (std::size_t i = 0; i < atoms_.size(); ++i) {
            if (atoms_[i] != request->target) continue;
            if (answers_ == Answers::beginsPiecesAndStalls) {
                // Announces a large answer and then never sends a piece of it.
                const std::uint32_t size = 1 << 20;
                xcb_change_property(c_, XCB_PROP_MODE_REPLACE, request->requestor, request->property,
                                    intern(c_, "INCR"), 32, 1, &size);
                reply.property = request->property;
                continue;
            }
            xcb_change_property(c_, XCB_PROP_MODE_REPLACE, request->requestor, request->property, atoms_[i], 8,
                                std::uint32_t(targets_[i].data.size()), targets_[i].data.data());
            reply.property = request->property;
        }
        xcb_send_event(c_, 0, request->requestor, 0, reinterpret_cast<const char*>(&reply));
        xcb_flush(c_);
    }

    std::vector<Target> targets_;
    Answers answers_ = Answers::yes;
    std::vector<xcb_atom_t> atoms_;
    xcb_connection_t* c_ = nullptr;
    xcb_window_t window_ = 0;
    xcb_atom_t clipboard_ = 0, targetsAtom_ = 0;
    bool owns_ = false;
    std::atomic<bool> stop_{false};
    std::atomic<int> requests_{0};
    std::thread thread_;
};

// What another program reads of the clipboard for `target`: the reply's type and its bytes.
struct ForeignRead {
    std::string type;
    std::string data;
};

std::optional<ForeignRead> foreignRead(const std::string& display, const std::string& target) {
    auto* c = xcb_connect(display.c_str(), nullptr);
    const auto window = makeWindow(c);
    const auto property = intern(c, "FOREIGN_READ");
    xcb_convert_selection(c, window, intern(c, "CLIPBOARD"), intern(c, target), property, XCB_CURRENT_TIME);
    xcb_flush(c);
    std::optional<ForeignRead> result;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    bool done = false;
    while (!done && std::chrono::steady_clock::now() < deadline) {
        pollfd fd{xcb_get_file_descriptor(c), POLLIN, 0};
        ::poll(&fd, 1, 20);
        while (auto* event = xcb_poll_for_event(c)) {
            if ((event->response_type & 0x7f) == XCB_SELECTION_NOTIFY) {
                done = true;
                auto* notify = reinterpret_cast<xcb_selection_notify_event_t*>(event);
                if (notify->property != XCB_ATOM_NONE) {
                    auto reply = xreply(xcb_get_property_reply(
                        c, xcb_get_property(c, 1, window, property, XCB_GET_PROPERTY_TYPE_ANY, 0, 1 << 20), nullptr));
                    if (reply) {
                        result = ForeignRead{atomName(c, reply->type),
                                             std::string(static_cast<const char*>(xcb_get_property_value(reply.get())),
                                                         std::size_t(xcb_get_property_value_length(reply.get())))};
                    }
                }
            }
            std::free(event);
        }
    }
    xcb_disconnect(c);
    return result;
}

std::vector<std::string> atomNames(const std::string& display, const std::string& data) {
    auto* c = xcb_connect(display.c_str(), nullptr);
    std::vector<std::string> names;
    const auto* atoms = reinterpret_cast<const std::uint32_t*>(data.data());
    for (std::size_t i = 0; i < data.size() / 4; ++i) names.push_back(atomName(c, atoms[i]));
    xcb_disconnect(c);
    return names;
}

class X11Clipboard : public ::testing::Test {
protected:
    void SetUp() override {
        std::string why;
        session = XSession::start(&why);
        if (!session) GTEST_SKIP() << "No X server for this test: " << why;
        pasteboard = open();
        ASSERT_TRUE(pasteboard);
    }

    // Time limits generous enough for a loaded machine: only the tests about time-outs shorten them.
    static X11Pasteboard::Limits patient() {
        X11Pasteboard::Limits limits;
        limits.answerSeconds = 5.0;
        limits.transferSeconds = 20.0;
        return limits;
    }

    std::unique_ptr<X11Pasteboard> open(X11Pasteboard::Limits limits = patient()) {
        std::string failure;
        auto connection = X11Connection::open(session->display(), &failure);
        EXPECT_TRUE(connection) << failure;
        if (!connection) return nullptr;
        auto result = X11Pasteboard::open(std::move(connection), limits, &failure);
        EXPECT_TRUE(result) << failure;
        return result;
    }

    // Waits for the counter to move past `from`: the server's notice reaches the reader thread.
    bool moved(const X11Pasteboard& board, std::int64_t from) {
        return eventually([&] { return board.changeCount() > from; });
    }

    std::unique_ptr<XSession> session;
    std::unique_ptr<X11Pasteboard> pasteboard;
};

TEST_F(X11Clipboard, TextIsReadAsUTF8ElseAsLatin1StringWhateverElseIsOffered) {
    struct Case {
        std::string what;
        std::vector<ForeignOwner::Target> targets;
        std::optional<std::string> text;
        std::vector<std::string> types;
    };
    const std::vector<Case> cases{
        {"UTF-8 wins over STRING",
         {{"STRING", "caf\xE9"}, {"UTF8_STRING", "caf\xC3\xA9 \xE2\x82\xAC"}, {"text/html", "<b>x</b>"}},
         "caf\xC3\xA9 \xE2\x82\xAC",
         {Pasteboard::plainTextType, "text/html"}},
        {"STRING only, turned into UTF-8", {{"STRING", "caf\xE9"}}, "caf\xC3\xA9", {Pasteboard::plainTextType}},
        {"an image and no text", {{"image/png", "\x89PNG"}}, std::nullopt, {"image/png"}},
        {"empty text is text", {{"UTF8_STRING", ""}}, "", {Pasteboard::plainTextType}},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.what);
        const auto before = pasteboard->changeCount();
        auto owner = std::make_unique<ForeignOwner>(session->display(), test.targets);
        ASSERT_TRUE(owner->owns());
        ASSERT_TRUE(moved(*pasteboard, before));
        EXPECT_EQ(pasteboard->types(), test.types);
        EXPECT_EQ(pasteboard->string(), test.text);
        // Asked again for the same change, the answer comes from what was read.
        const int asked = owner->requests();
        EXPECT_EQ(pasteboard->string(), test.text);
        EXPECT_EQ(owner->requests(), asked);
        // The owner leaving is a change of its own; the next case starts after it.
        const auto held = pasteboard->changeCount();
        owner.reset();
        ASSERT_TRUE(moved(*pasteboard, held));
    }
}

TEST_F(X11Clipboard, PrivateMarkersAndTheSecretHintReadAsConcealed) {
    struct Case {
        std::string what;
        std::vector<ForeignOwner::Target> targets;
        bool concealed;
    };
    const std::vector<Case> cases{
        {"the marker type itself", {{"UTF8_STRING", "hunter2"}, {"org.nspasteboard.ConcealedType", ""}}, true},
        {"the hint saying secret", {{"UTF8_STRING", "hunter2"}, {"x-kde-passwordManagerHint", "secret"}}, true},
        {"the hint saying anything else", {{"UTF8_STRING", "hello"}, {"x-kde-passwordManagerHint", "public"}}, false},
        {"no hint", {{"UTF8_STRING", "hello"}}, false},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.what);
        const auto before = pasteboard->changeCount();
        auto owner = std::make_unique<ForeignOwner>(session->display(), test.targets);
        ASSERT_TRUE(moved(*pasteboard, before));
        const auto types = pasteboard->types();
        EXPECT_EQ(std::count(types.begin(), types.end(), X11Pasteboard::concealedType), test.concealed ? 1 : 0);
        EXPECT_EQ(std::count(types.begin(), types.end(), X11Pasteboard::passwordManagerHint), 0);
        EXPECT_EQ(pasteboard->string(), test.targets[0].data);
        const auto held = pasteboard->changeCount();
        owner.reset();
        ASSERT_TRUE(moved(*pasteboard, held));
    }
}

TEST_F(X11Clipboard, ACopyInAnotherClientLandsInTheHistoryAndASecretOneOnlyAsAReason) {
    testing::TempDir root;
    ManualScheduler scheduler;
    auto log = DiagnosticLog::make(root / "logs", scheduler);
    ClipboardMonitor monitor(ClipboardPolicy{}, true, root / "support", *pasteboard, scheduler, *log);
    auto copyAndTick = [&](std::vector<ForeignOwner::Target> targets) {
        const auto before = pasteboard->changeCount();
        auto owner = std::make_unique<ForeignOwner>(session->display(), std::move(targets));
        EXPECT_TRUE(moved(*pasteboard, before));
        scheduler.advance(ClipboardMonitor::pollInterval);
        return owner;
    };
    auto first = copyAndTick({{"UTF8_STRING", "from the editor"}});
    ASSERT_EQ(monitor.history().get().items().size(), 1u);
    EXPECT_EQ(monitor.history().get().items()[0].text.str(), "from the editor");

    auto secret = copyAndTick({{"UTF8_STRING", "hunter2"}, {"x-kde-passwordManagerHint", "secret"}});
    EXPECT_EQ(monitor.history().get().items().size(), 1u);
    EXPECT_EQ(monitor.lastSkipReason().get(), "Skipped a concealed copy (a password manager marked it private)");

    // Putting an item back on the clipboard makes this program the owner; that is not a new copy,
    // and another program reads the text.
    monitor.copyToPasteboard(monitor.history().get().items()[0]);
    EXPECT_TRUE(pasteboard->ownsSelection());
    scheduler.advance(ClipboardMonitor::pollInterval);
    EXPECT_EQ(monitor.history().get().items().size(), 1u);
    auto read = foreignRead(session->display(), "UTF8_STRING");
    ASSERT_TRUE(read);
    EXPECT_EQ(read->data, "from the editor");
    EXPECT_EQ(read->type, "UTF8_STRING");
}

TEST_F(X11Clipboard, OurCopyOffersTextEveryWayAndASecretCarriesBothMarkers) {
    struct Case {
        std::string target;
        std::string type;
        std::string data;
    };
    pasteboard->clearContents();
    ASSERT_TRUE(pasteboard->setString("", X11Pasteboard::concealedType));
    ASSERT_TRUE(pasteboard->setString("p\xC3\xA4ss \xE2\x82\xAC"));
    const std::vector<Case> cases{
        {"UTF8_STRING", "UTF8_STRING", "p\xC3\xA4ss \xE2\x82\xAC"},
        {"text/plain;charset=utf-8", "text/plain;charset=utf-8", "p\xC3\xA4ss \xE2\x82\xAC"},
        {"STRING", "STRING", "p\xE4ss ?"},
        {"x-kde-passwordManagerHint", "UTF8_STRING", "secret"},
        {"org.nspasteboard.ConcealedType", "org.nspasteboard.ConcealedType", ""},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.target);
        auto read = foreignRead(session->display(), test.target);
        ASSERT_TRUE(read);
        EXPECT_EQ(read->type, test.type);
        EXPECT_EQ(read->data, test.data);
    }
    auto targets = foreignRead(session->display(), "TARGETS");
    ASSERT_TRUE(targets);
    const auto names = atomNames(session->display(), targets->data);
    for (const char* name : {"TARGETS", "UTF8_STRING", "STRING", "x-kde-passwordManagerHint", "org.nspasteboard.ConcealedType"}) {
        EXPECT_NE(std::find(names.begin(), names.end(), name), names.end()) << name;
    }
    EXPECT_FALSE(foreignRead(session->display(), "image/png")) << "a target nobody offered is refused";

    // A second reader of this program's copy, through the adapter, sees the private marker.
    auto other = open();
    EXPECT_EQ(other->types(), (std::vector<std::string>{X11Pasteboard::concealedType, Pasteboard::plainTextType}));

    // Once another program copies, ours is gone and its own targets answer.
    const auto before = pasteboard->changeCount();
    ForeignOwner owner(session->display(), {{"UTF8_STRING", "theirs"}});
    ASSERT_TRUE(moved(*pasteboard, before));
    EXPECT_FALSE(pasteboard->ownsSelection());
    EXPECT_EQ(pasteboard->string(), "theirs");
}

TEST_F(X11Clipboard, LargeCopiesGoInPiecesBothWaysUpToTheLimit) {
    auto small = patient();
    small.chunkBytes = 4096;
    small.maximumBytes = 64 * 1024;
    auto writer = open(small);
    auto reader = open(small);
    struct Case {
        std::size_t size;
        bool read;
    };
    // Around one piece, many pieces, and around the reader's limit.
    const std::vector<Case> cases{{4095, true}, {4096, true}, {4097, true}, {10 * 4096 + 7, true},
                                  {64 * 1024, true}, {64 * 1024 + 1, false}, {1 << 20, false}};
    for (const auto& test : cases) {
        SCOPED_TRACE(test.size);
        std::string text(test.size, 'x');
        for (std::size_t i = 0; i < text.size(); i += 97) text[i] = char('a' + (i / 97) % 26);
        const auto before = reader->changeCount();
        writer->clearContents();
        ASSERT_TRUE(writer->setString(text));
        ASSERT_TRUE(moved(*reader, before));
        auto read = reader->string();
        if (test.read) {
            ASSERT_TRUE(read) << reader->lastReadFailure();
            EXPECT_EQ(read->size(), text.size());
            EXPECT_TRUE(*read == text);
        } else {
            EXPECT_FALSE(read);
            EXPECT_EQ(reader->lastReadFailure(), "the copy holds more than 65536 bytes");
        }
        // A refusal says how much was refused, at least; a text that was read says nothing.
        const auto refused = reader->oversizedTextBytes();
        if (test.read) {
            EXPECT_EQ(refused, std::nullopt);
        } else {
            ASSERT_TRUE(refused);
            EXPECT_GT(*refused, 64 * 1024);
            EXPECT_LE(*refused, static_cast<std::int64_t>(test.size));
        }
    }
    // The next change forgets the refusal.
    const auto before = reader->changeCount();
    writer->clearContents();
    ASSERT_TRUE(writer->setString("small"));
    ASSERT_TRUE(moved(*reader, before));
    EXPECT_EQ(reader->string(), "small");
    EXPECT_EQ(reader->oversizedTextBytes(), std::nullopt);
}

TEST_F(X11Clipboard, ACopyOverTheLimitReachesTheHistoryAsTooLarge) {
    auto small = patient();
    small.chunkBytes = 4096;
    small.maximumBytes = 64 * 1024;
    auto writer = open(small);
    auto reader = open(small);
    testing::LogCapture capture;
    testing::TempDir root;
    ManualScheduler scheduler;
    auto log = DiagnosticLog::make(root / "logs", scheduler);
    ClipboardMonitor monitor(ClipboardPolicy{}, true, root / "support", *reader, scheduler, *log);
    auto copyAndTick = [&](const std::string& text) {
        const auto before = reader->changeCount();
        writer->clearContents();
        ASSERT_TRUE(writer->setString(text));
        ASSERT_TRUE(moved(*reader, before));
        scheduler.advance(ClipboardMonitor::pollInterval);
    };
    copyAndTick(std::string(1 << 20, 'x'));
    EXPECT_TRUE(monitor.history().get().items().empty());
    EXPECT_EQ(monitor.lastSkipReason().get(), "Skipped a copy larger than 128000 characters");
    EXPECT_TRUE(capture.contains("clipboard", "Clipboard: skipped a copy of more than 128000 characters"));
    copyAndTick("fits");
    ASSERT_EQ(monitor.history().get().items().size(), 1u);
    EXPECT_EQ(monitor.history().get().items()[0].text.str(), "fits");
    EXPECT_EQ(monitor.lastSkipReason().get(), std::nullopt);
}

TEST_F(X11Clipboard, AnOwnerThatNeverAnswersCostsOneTimeOutAndIsSaid) {
    X11Pasteboard::Limits quick;
    quick.answerSeconds = 0.3;
    auto reader = open(quick);
    testing::LogCapture capture;
    const auto before = reader->changeCount();
    ForeignOwner silent(session->display(), {{"UTF8_STRING", "never sent"}}, false);
    ASSERT_TRUE(silent.owns());
    ASSERT_TRUE(moved(*reader, before));
    const auto started = std::chrono::steady_clock::now();
    EXPECT_TRUE(reader->types().empty());
    EXPECT_FALSE(reader->string());
    EXPECT_FALSE(reader->string());
    const double waited = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    // One time-out for the whole change, not one a question.
    EXPECT_GE(waited, 0.3);
    EXPECT_LT(waited, 0.85);
    EXPECT_EQ(reader->lastReadFailure(), "the owner did not answer within 0.3 s");
    const auto lines = capture.lines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const auto& line) {
                                return line.message == "Clipboard: the copy was not read: the owner did not answer within 0.3 s";
                            }),
              1);

    // The next copy is read as usual.
    const auto next = reader->changeCount();
    ForeignOwner answering(session->display(), {{"UTF8_STRING", "answered"}});
    ASSERT_TRUE(moved(*reader, next));
    EXPECT_EQ(reader->string(), "answered");
}

TEST_F(X11Clipboard, AnIncrementalAnswerThatStallsIsGivenUpWithinTheLimit) {
    X11Pasteboard::Limits quick;
    quick.answerSeconds = 0.5;
    auto reader = open(quick);
    const auto before = reader->changeCount();
    ForeignOwner stalling(session->display(), {{"UTF8_STRING", "never whole"}}, ForeignOwner::Answers::beginsPiecesAndStalls);
    ASSERT_TRUE(moved(*reader, before));
    EXPECT_EQ(reader->types(), std::vector<std::string>{Pasteboard::plainTextType});
    const auto started = std::chrono::steady_clock::now();
    EXPECT_FALSE(reader->string());
    EXPECT_FALSE(reader->string());
    // One wait for the piece that never comes, not one a question.
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count(), 0.95);
    EXPECT_EQ(reader->lastReadFailure(), "the owner stopped sending for 0.5 s");
}

TEST_F(X11Clipboard, TheOwnerLeavingAndTheServerGoingAwayEndReadsAtOnce) {
    auto owner = std::make_unique<ForeignOwner>(session->display(), std::vector<ForeignOwner::Target>{{"UTF8_STRING", "gone soon"}});
    const auto afterCopy = pasteboard->changeCount();
    owner.reset();
    ASSERT_TRUE(moved(*pasteboard, afterCopy));
    EXPECT_FALSE(pasteboard->string());
    EXPECT_EQ(pasteboard->lastReadFailure(), "the owner has no such content");

    pasteboard->clearContents();
    ASSERT_TRUE(pasteboard->setString("mine"));
    session.reset();
    const auto started = std::chrono::steady_clock::now();
    // What this program owns it still has; asking the server for anything fails without waiting.
    EXPECT_TRUE(eventually([&] { return !pasteboard->setString("after"); }));
    EXPECT_FALSE(pasteboard->ownsSelection());
    EXPECT_FALSE(pasteboard->string());
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count(), 1.0);
}

TEST(X11Text, Latin1AndUTF8MeetAtTheirBoundaries) {
    struct Case {
        std::string utf8;
        std::string latin1;
    };
    const std::vector<Case> both{{"", ""}, {"\x7F", "\x7F"}, {"\xC2\x80", "\x80"}, {"\xC3\xBF", "\xFF"},
                                 {"a\xC3\xA9z", "a\xE9z"}};
    for (const auto& test : both) {
        EXPECT_EQ(latin1ToUTF8(test.latin1), test.utf8);
        EXPECT_EQ(utf8ToLatin1(test.utf8), test.latin1);
    }
    // What Latin-1 cannot hold, and broken UTF-8, become one '?' each.
    const std::vector<Case> lossy{{"\xC4\x80", "?"},           {"\xE2\x82\xAC", "?"}, {"\xF0\x9F\x98\x80!", "?!"},
                                  {"\xC3", "?"},               {"\xC3" "A", "?A"},     {"\x80\x80", "??"},
                                  {"\xE2\x82", "?"}};
    for (const auto& test : lossy) EXPECT_EQ(utf8ToLatin1(test.utf8), test.latin1) << test.utf8;
}

TEST(X11Activation, EachActiveWindowChangeIsHeard) {
    std::string why;
    auto session = XSession::start(&why);
    if (!session) GTEST_SKIP() << "No X server for this test: " << why;
    auto connection = X11Connection::open(session->display(), &why);
    ASSERT_TRUE(connection) << why;
    std::atomic<int> heard{0};
    X11ActivationWatcher watcher(std::move(connection), [&] { ++heard; });
    TestWindow first(session->display(), {.title = "first", .pid = 40011});
    TestWindow second(session->display(), {.title = "second", .pid = 40012, .frame = {600, 100, 300, 200}});
    ASSERT_TRUE(first.waitMapped());
    ASSERT_TRUE(second.waitMapped());
    FakeUser user(session->display());
    ASSERT_TRUE(user.activate(first.window()));
    ASSERT_TRUE(eventually([&] { return heard.load() >= 1; }));
    const int before = heard.load();
    ASSERT_TRUE(user.activate(second.window()));
    EXPECT_TRUE(eventually([&] { return heard.load() > before; }));
}

TEST(X11Pad, TheRightButtonOverThePadIsHeardInRootCoordinatesAndNothingElse) {
    std::string why;
    auto session = XSession::start(&why);
    if (!session) GTEST_SKIP() << "No X server for this test: " << why;
    auto connection = X11Connection::open(session->display(), &why);
    ASSERT_TRUE(connection) << why;
    std::mutex lock;
    std::vector<Event> heard;
    auto pad = X11PadWindow::open(std::move(connection), XRect{300, 200, 400, 300}, [&](const Event& event) {
        std::lock_guard guard(lock);
        heard.push_back(event);
    }, &why);
    ASSERT_TRUE(pad) << why;
    FakeUser user(session->display());
    // Outside the pad, then the left button and a bare move over it: none of it is the pad's.
    user.moveTo(100, 100);
    user.button(3, true);
    user.button(3, false);
    user.moveTo(350, 250);
    user.button(1, true);
    user.moveTo(360, 250);
    user.button(1, false);
    // Then a right drag across its left edge and back in.
    user.moveTo(310, 260);
    user.button(3, true);
    user.moveTo(290, 260);
    user.moveTo(330, 270);
    user.button(3, false);
    user.sync();
    ASSERT_TRUE(pad->sync());
    std::lock_guard guard(lock);
    struct Expected {
        EventType type;
        double x, y;
    };
    const std::vector<Expected> expected{{EventType::rightMouseDown, 310, 260},
                                         {EventType::rightMouseDragged, 290, 260},
                                         {EventType::rightMouseDragged, 330, 270},
                                         {EventType::rightMouseUp, 330, 270}};
    ASSERT_EQ(heard.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(heard[i].type, expected[i].type);
        EXPECT_EQ(heard[i].location.x, expected[i].x);
        EXPECT_EQ(heard[i].location.y, expected[i].y);
    }
}

} // namespace
} // namespace tavrick
