#pragma once

#include "CoreKit/Pasteboard.h"

#include <cstddef>
#include <memory>
#include <string>

namespace tavrick {

class X11Connection;

// The `CLIPBOARD` selection as the general pasteboard. The counter moves when XFixes says another
// program took the selection (or it was let go), and when this program clears it. Reading asks the
// owner for its targets and then for `UTF8_STRING`, else `STRING`, accepting INCR transfers, and
// gives up after the limits below: an owner that never answers costs one time-out a change, never a
// frozen caller. Writing makes this program the owner; it answers other programs' requests, in
// pieces when the text is large.
//
// The private-copy markers travel both ways: a marker type written here is offered as a target of
// that name together with the password-manager hint (`x-kde-passwordManagerHint` = "secret"), and
// an owner that offers the hint with "secret" is read as offering the concealed marker.
//
// One thread of its own reads the connection; callers wait on it, never on the server directly.
class X11Pasteboard final : public Pasteboard {
public:
    static constexpr const char* concealedType = "org.nspasteboard.ConcealedType";
    static constexpr const char* passwordManagerHint = "x-kde-passwordManagerHint";

    struct Limits {
        // How long the owner may take to answer a request, and between two pieces of a transfer.
        double answerSeconds = 0.5;
        // How long a whole transfer may take.
        double transferSeconds = 2.0;
        // The most a copy may hold; more is not read.
        std::size_t maximumBytes = 16u << 20;
        // The largest piece written at once when answering; larger texts go out incrementally.
        std::size_t chunkBytes = 256u << 10;
    };

    // Nothing, with why in `failure`, when the server lacks XFixes.
    static std::unique_ptr<X11Pasteboard> open(std::unique_ptr<X11Connection> connection, Limits limits,
                                               std::string* failure);
    ~X11Pasteboard() override;
    X11Pasteboard(const X11Pasteboard&) = delete;
    X11Pasteboard& operator=(const X11Pasteboard&) = delete;

    std::int64_t changeCount() const override;
    std::vector<std::string> types() const override;
    std::optional<std::string> string(const std::string& type = plainTextType) const override;
    std::int64_t clearContents() override;
    bool setString(const std::string& text, const std::string& type = plainTextType) override;
    std::optional<std::int64_t> oversizedTextBytes() const override;

    // Whether this program owns the selection now.
    bool ownsSelection() const;
    // Why the last read came back empty-handed ("" when it did not): a time-out, a refusal, a size.
    std::string lastReadFailure() const;

    struct Core;

private:
    explicit X11Pasteboard(std::shared_ptr<Core> core);
    std::shared_ptr<Core> core_;
};

// Latin-1 bytes as UTF-8, and UTF-8 as Latin-1 with '?' for what it cannot hold.
std::string latin1ToUTF8(const std::string& latin1);
std::string utf8ToLatin1(const std::string& utf8);

} // namespace tavrick
