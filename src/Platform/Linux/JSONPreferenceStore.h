#pragma once

#include "CoreKit/PreferenceStore.h"

#include <ctime>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace tavrick {

class DiagnosticLog;

// A user defaults domain kept as one typed JSON file, pretty-printed with sorted keys:
//
//   {
//     "clipboardMaximumItems": 100,          an integer: no fraction
//     "networkLearningStartedAt": 1763251200.0,   a real: always a fraction
//     "menuBarItems": {"$data": "W3sic2Vj..."}    bytes, in base64
//   }
//
// A dictionary that would read as one of these markers is written as {"$dictionary": {...}}.
// Every read first checks whether the file changed on disk (inode, size, times, and the bytes
// themselves while the times are too coarse to tell), so another process's edit is seen at
// once. Writes replace the file atomically and under an advisory lock on its directory, so two
// processes do not lose each other's keys. A file that is not a JSON object is moved aside,
// never deleted, and the domain starts from its defaults.
class JSONPreferenceStore final : public PreferenceStore {
public:
    // `log`, when given, receives a note when a damaged file is moved aside; it must outlive
    // the store.
    explicit JSONPreferenceStore(std::filesystem::path file, DiagnosticLog* log = nullptr);

    // The file of a domain: the user's preferences directory, a folder named after the
    // domain, and "defaults.json" in it.
    static std::filesystem::path fileForDomain(const std::string& domain);
    // The program's own domain, named after the bundle identifier.
    static std::filesystem::path applicationFile();

    std::optional<PreferenceValue> object(const std::string& key) const override;
    bool set(const std::string& key, PreferenceValue value) override;
    bool remove(const std::string& key) override;
    std::vector<std::string> allKeys() const override;
    PreferenceValue::Dictionary dictionaryRepresentation() const override;

    const std::filesystem::path& file() const { return file_; }
    // Where the last damaged file went, when one was moved aside.
    std::optional<std::filesystem::path> movedAsideFile() const;

    // The file's text for a set of values, and back. Decoding fails (with a reason) only when
    // the text is not a JSON object; a value that has no place in a domain (null) is skipped.
    // Encoding throws std::invalid_argument for a real that is not finite or text that is not
    // UTF-8, which JSON cannot carry.
    static std::string encode(const PreferenceValue::Dictionary& values);
    static std::optional<PreferenceValue::Dictionary> decode(std::string_view text, std::string* reason = nullptr);

private:
    struct FileState {
        bool exists = false;
        dev_t device = 0;
        ino_t inode = 0;
        off_t size = 0;
        timespec modified{};
        timespec changed{};
        bool operator==(const FileState& other) const;
    };

    FileState currentState() const;
    void refreshLocked() const;
    void loadLocked(const FileState& state) const;
    void moveAsideLocked(const std::string& reason) const;
    bool writeLocked(const std::string& text);
    bool changeLocked(const std::string& key, std::optional<PreferenceValue> value);

    std::filesystem::path file_;
    DiagnosticLog* log_;

    mutable std::mutex mutex_;
    mutable PreferenceValue::Dictionary values_;
    // What was on disk when `values_` was last read or written.
    mutable FileState known_;
    mutable std::string knownText_;
    mutable timespec knownAt_{};
    // A file that exists but cannot be read is never written over, since that would drop
    // whatever it holds.
    mutable bool unreadable_ = false;
    // Memory holds a change that the last write could not put on disk.
    mutable bool unsaved_ = false;
    mutable std::optional<std::filesystem::path> movedAside_;
};

} // namespace tavrick
