#include "NotepadKit/Notepad.h"

#include "CoreKit/Directories.h"
#include "CoreKit/FileIO.h"
#include "CoreKit/Log.h"
#include "CoreKit/UnicodeText.h"

#include <cstring>
#include <system_error>

namespace tavrick {

namespace fs = std::filesystem;

fs::path Notepad::defaultURL() {
    return supportDirectory() / fileName;
}

Notepad::Notepad(std::optional<fs::path> fileURL, double debounce, Scheduler& scheduler, DiagnosticLog& log)
    : fileURL_(fileURL ? std::move(*fileURL) : defaultURL()), debounce_(debounce), scheduler_(scheduler), log_(log) {
    int error = 0;
    auto contents = FileIO::readAll(fileURL_, error);
    if (!contents) {
        if (error != ENOENT) {
            Log::notepad.error("Could not read the note: %s", std::strerror(error));
            log_.note("notepad", std::string("could not read the note, starting empty: ") + std::strerror(error) +
                                     " — the file is kept aside at the first save");
            keepFileAside_ = true;
        }
        return;
    }
    onDisk_ = *contents;
    if (!UnicodeText::isValidUTF8(*contents)) {
        log_.note("notepad", "the note is not UTF-8 — shown with replacement characters; the original is kept aside "
                             "at the first save");
        keepFileAside_ = true;
        text_.set(UnicodeText::repairedUTF8(*contents));
        return;
    }
    text_.set(std::move(*contents));
}

Notepad::~Notepad() {
    saveTask_.cancel();
}

void Notepad::setText(std::string text) {
    // Copied rather than moved in: GCC 12 warns falsely about the moved-from string in Release.
    if (text_.set(text)) scheduleSave();
}

void Notepad::scheduleSave() {
    saveTask_.cancel();
    saveTask_ = scheduler_.after(debounce_, [this] {
        saveTask_ = Cancellable();
        save();
    });
}

void Notepad::flush() {
    if (!saveTask_) return;
    saveTask_.cancel();
    saveTask_ = Cancellable();
    save();
}

void Notepad::save() {
    int readError = 0;
    const auto current = FileIO::readAll(fileURL_, readError);
    if (current ? current != onDisk_ : readError != ENOENT) {
        if (!keepFileAside_) log_.note("notepad", "the note file was changed elsewhere — keeping that version aside");
        keepFileAside_ = true;
    }
    if (keepFileAside_) {
        int error = 0;
        if (auto aside = FileIO::moveAside(fileURL_, static_cast<long long>(scheduler_.clock().now()), error)) {
            log_.note("notepad", "kept the earlier note file as " + aside->filename().string());
        } else if (error != ENOENT) {
            log_.note("notepad", std::string("could not save: could not move the earlier note aside: ") + std::strerror(error));
            if (onSaveFailure) onSaveFailure(fileURL_.string());
            return;
        }
        keepFileAside_ = false;
    }
    if (write(text_.get(), fileURL_, log_)) {
        onDisk_ = text_.get();
    } else if (onSaveFailure) {
        onSaveFailure(fileURL_.string());
    }
}

bool Notepad::write(const std::string& text, const fs::path& url, DiagnosticLog& log) {
    if (!UnicodeText::isValidUTF8(text)) {
        log.note("notepad", "could not encode the note — keeping the old file");
        return false;
    }
    std::error_code error;
    fs::create_directories(url.parent_path(), error);
    if (error) {
        log.note("notepad", "could not save: " + error.message());
        return false;
    }
    if (auto failure = FileIO::writeAtomically(url, text, 0600)) {
        log.note("notepad", "could not save: could not " + failure->step + " " + url.filename().string() + ": " +
                                std::strerror(failure->error));
        return false;
    }
    return true;
}

std::string Notepad::appending(const std::string& addition, const std::string& note) {
    if (UnicodeText::trimmed(addition).empty()) return note;
    if (UnicodeText::trimmed(note).empty()) return addition;
    return note + "\n\n" + addition;
}

void Notepad::append(const std::string& addition) {
    setText(appending(addition, text_.get()));
}

std::size_t Notepad::wordCount() const {
    return UnicodeText::words(text_.get()).size();
}

std::string Notepad::summary() const {
    std::string_view text = text_.get();
    std::string_view line;
    while (!text.empty()) {
        const auto end = text.find('\n');
        line = text.substr(0, end);
        if (!line.empty()) break;
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    }
    line = UnicodeText::trimmed(line);
    if (UnicodeText::characterCount(line, 41) < 41) return std::string(line);
    return std::string(UnicodeText::prefix(line, 40)) + "…";
}

} // namespace tavrick
