#pragma once

#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/Dispatch.h"
#include "CoreKit/Observable.h"

#include <cstddef>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

namespace tavrick {

// One plain-text scratch note in "Notepad.txt", saved a moment after the last edit. The file is
// the note as UTF-8 and nothing else, so any editor may change it. Main thread only.
class Notepad {
public:
    static constexpr const char* fileName = "Notepad.txt";
    // "Notepad.txt" in the support directory.
    static std::filesystem::path defaultURL();

    // Nothing for `fileURL` means the default file. Reads the file; a missing one is an empty note.
    Notepad(std::optional<std::filesystem::path> fileURL, double debounce, Scheduler& scheduler, DiagnosticLog& log);
    ~Notepad();
    Notepad(const Notepad&) = delete;
    Notepad& operator=(const Notepad&) = delete;

    const Observable<std::string>& text() const { return text_; }
    // A changed text is saved `debounce` seconds after the last change.
    void setText(std::string text);
    const std::filesystem::path& fileURL() const { return fileURL_; }
    bool hasPendingSave() const { return static_cast<bool>(saveTask_); }

    bool isEmpty() const { return text_.get().empty(); }
    // The first line, trimmed, cut to 40 characters and "…": the menu's glimpse of the note.
    std::string summary() const;
    std::size_t wordCount() const;

    // Adds `addition` after a blank line; nothing when it is only white space.
    void append(const std::string& addition);
    static std::string appending(const std::string& addition, const std::string& note);

    // Writes now when a save is pending; nothing otherwise.
    void flush();

    // Writes atomically, creating the folder; false (and a note in the log) on failure.
    static bool write(const std::string& text, const std::filesystem::path& url, DiagnosticLog& log);

    // A save failed; the path it tried.
    std::function<void(const std::string& path)> onSaveFailure;

private:
    void scheduleSave();
    void save();

    Observable<std::string> text_;
    std::filesystem::path fileURL_;
    Cancellable saveTask_;
    double debounce_;
    Scheduler& scheduler_;
    DiagnosticLog& log_;
    // The file on disk could not be taken as it is (unreadable, or not UTF-8); it is moved aside,
    // never overwritten, before the first save.
    bool keepFileAside_ = false;
    // What this note last read from or wrote to the file. A file that holds anything else was
    // changed by another editor meanwhile, and is kept aside rather than written over.
    std::optional<std::string> onDisk_;
};

} // namespace tavrick
