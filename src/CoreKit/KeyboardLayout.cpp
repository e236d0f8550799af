#include "CoreKit/KeyboardLayout.h"

#include <clocale>
#include <cwctype>
#include <locale.h>
#include <wctype.h>

namespace tavrick {

namespace {

// Case mapping and white space follow the C library's Unicode tables; the "C.UTF-8" locale has
// them for every script without depending on the user's own locale.
locale_t unicodeLocale() {
    static locale_t locale = [] {
        locale_t l = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
        return l ? l : newlocale(LC_CTYPE_MASK, "C", static_cast<locale_t>(nullptr));
    }();
    return locale;
}

// Decodes UTF-8 into code points; a malformed sequence gives U+FFFD and moves on by one byte.
std::u32string decode(std::string_view text) {
    std::u32string out;
    for (std::size_t i = 0; i < text.size();) {
        auto c = static_cast<unsigned char>(text[i]);
        int length = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 0;
        char32_t point = length == 1 ? c : length == 2 ? c & 0x1F : length == 3 ? c & 0x0F : c & 0x07;
        bool valid = length > 0 && i + static_cast<std::size_t>(length) <= text.size();
        for (int k = 1; valid && k < length; ++k) {
            auto next = static_cast<unsigned char>(text[i + static_cast<std::size_t>(k)]);
            if ((next & 0xC0) != 0x80) valid = false;
            point = point << 6 | (next & 0x3F);
        }
        if (!valid) {
            out.push_back(U'\uFFFD');
            ++i;
            continue;
        }
        out.push_back(point);
        i += static_cast<std::size_t>(length);
    }
    return out;
}

void encode(char32_t point, std::string& out) {
    if (point < 0x80) {
        out.push_back(static_cast<char>(point));
    } else if (point < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (point >> 6)));
        out.push_back(static_cast<char>(0x80 | (point & 0x3F)));
    } else if (point < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (point >> 12)));
        out.push_back(static_cast<char>(0x80 | ((point >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (point & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (point >> 18)));
        out.push_back(static_cast<char>(0x80 | ((point >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((point >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (point & 0x3F)));
    }
}

bool isWhiteSpace(char32_t point, locale_t locale) {
    auto wide = static_cast<wint_t>(point);
    return iswspace_l(wide, locale) || iswblank_l(wide, locale) || point == U'\u00A0';
}

} // namespace

std::shared_ptr<KeyboardLayoutCache> KeyboardLayoutCache::make(KeyboardLayoutSource source, Scheduler& scheduler) {
    return std::shared_ptr<KeyboardLayoutCache>(new KeyboardLayoutCache(std::move(source), scheduler));
}

KeyboardLayoutCache::KeyboardLayoutCache(KeyboardLayoutSource source, Scheduler& scheduler)
    : source_(std::move(source)), scheduler_(scheduler) {}

std::optional<std::string> KeyboardLayoutCache::legend(std::string_view translated) {
    auto locale = unicodeLocale();
    auto points = decode(translated);
    std::size_t first = 0;
    std::size_t last = points.size();
    while (first < last && isWhiteSpace(points[first], locale)) ++first;
    while (last > first && isWhiteSpace(points[last - 1], locale)) --last;
    if (first == last) return std::nullopt;
    std::string out;
    for (std::size_t i = first; i < last; ++i) {
        encode(static_cast<char32_t>(towupper_l(static_cast<wint_t>(points[i]), locale)), out);
    }
    return out;
}

std::map<std::uint16_t, std::string> KeyboardLayoutCache::readLayout() const {
    std::map<std::uint16_t, std::string> legends;
    if (!source_.readCurrentLayout) return legends;
    for (auto& [keyCode, text] : source_.readCurrentLayout()) {
        // Only the codes a keyboard can send are asked about.
        if (keyCode > 127) continue;
        if (auto shown = legend(text)) legends.emplace(keyCode, std::move(*shown));
    }
    return legends;
}

void KeyboardLayoutCache::refresh() {
    auto legends = readLayout();
    std::lock_guard lock(lock_);
    legends_ = std::move(legends);
    loaded_ = true;
}

void KeyboardLayoutCache::startObserving() {
    if (observing_) return;
    observing_ = true;
    refresh();
    if (!source_.observeChanges) return;
    std::weak_ptr<KeyboardLayoutCache> weak = weak_from_this();
    Scheduler* scheduler = &scheduler_;
    subscription_ = source_.observeChanges([weak, scheduler] {
        // The change can be told on any thread; the layout is read on the main one.
        scheduler->async([weak] {
            if (auto self = weak.lock()) self->refresh();
        });
    });
}

std::optional<std::string> KeyboardLayoutCache::character(std::uint16_t keyCode) const {
    {
        std::lock_guard lock(lock_);
        if (loaded_) {
            auto it = legends_.find(keyCode);
            return it == legends_.end() ? std::nullopt : std::optional<std::string>(it->second);
        }
    }
    if (!scheduler_.isMainThread()) return std::nullopt;
    auto legends = readLayout();
    std::optional<std::string> answer;
    if (auto it = legends.find(keyCode); it != legends.end()) answer = it->second;
    std::lock_guard lock(lock_);
    legends_ = std::move(legends);
    loaded_ = true;
    return answer;
}

bool KeyboardLayoutCache::isLoaded() const {
    std::lock_guard lock(lock_);
    return loaded_;
}

} // namespace tavrick
