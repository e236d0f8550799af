#pragma once

#include "CoreKit/Bundle.h"
#include "CoreKit/Clock.h"
#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/JSONValue.h"
#include "CoreKit/MappingDocument.h"
#include "CoreKit/Models.h"
#include "CoreKit/Observable.h"

#include <cstddef>
#include <filesystem>
#include <functional>
#include <optional>
#include <unordered_set>
#include <vector>

namespace tavrick {

// Owns the user's mappings and "mappings.json". A user's configuration is never lost: an entry
// this build cannot read is carried through saves untouched, a file that cannot be read at all is
// moved aside rather than overwritten, and one undo step covers a delete. Main thread only.
class MappingStore {
public:
    // Loads at once. `bundle` (for the seed mappings) must outlive the store.
    MappingStore(std::filesystem::path fileURL, DiagnosticLog& log, Clock& clock, const Bundle& bundle = Bundle::main());
    MappingStore(const MappingStore&) = delete;
    MappingStore& operator=(const MappingStore&) = delete;

    // The application's support directory, where other services keep their files too.
    static std::filesystem::path supportDirectory();
    // supportDirectory()/"mappings.json".
    static std::filesystem::path defaultFileURL();

    // The readable mappings, in file order. Change them through the operations below.
    const Observable<std::vector<Mapping>>& mappings() const { return mappings_; }
    Observable<std::vector<Mapping>>& mappings() { return mappings_; }
    // What the last delete took, in index order, and where each one stood.
    const Observable<std::vector<Mapping>>& lastRemoved() const { return lastRemoved_; }
    Observable<std::vector<Mapping>>& lastRemoved() { return lastRemoved_; }
    const std::vector<std::size_t>& removedIndices() const { return removedIndices_; }
    // Entries this build cannot read, kept to be written back after the readable ones.
    const std::vector<JSONValue>& unreadable() const { return unreadable_; }
    const std::filesystem::path& fileURL() const { return fileURL_; }

    // Told about every change, before the file is written, so engines stay current even when the
    // disk fails. The array is a copy and may be used on any thread.
    std::function<void(const std::vector<Mapping>&)> onChange;

    void add(Mapping mapping);
    // Replaces the first mapping with the same id; an unknown id does nothing.
    void update(const Mapping& mapping);
    // Removes every mapping whose id is in the set and remembers them for one undo.
    void remove(const std::unordered_set<UUID>& ids);
    // Puts back what the last delete took, each at its old index (or at the end when the list has
    // since become shorter); returns them.
    std::vector<Mapping> undoRemove();
    void clearRemovedBuffer();
    void setEnabled(bool enabled, const UUID& id);
    // Replaces everything, unreadable entries and the undo data included (a restored
    // configuration replaces the old one whole). Returns whether the file was written.
    bool replaceAll(std::vector<Mapping> mappings);
    // Enabled mappings with an equal trigger, in file order, leaving out `excluding`. Scopes do
    // not take part.
    std::vector<Mapping> conflicts(const Trigger& trigger, const std::optional<UUID>& excluding = std::nullopt) const;
    // Adds back the bundled examples whose ids are missing; returns how many.
    int restoreExamples();
    // Tells `onChange` about the current mappings; writes nothing.
    void publishCurrent();

    // Reads a mappings file as it stands, for a look from outside the running program: nothing is
    // seeded, moved aside or written. The readable mappings in file order, or nothing with the
    // reason in `failure` (a missing file included).
    static std::optional<std::vector<Mapping>> readWithoutChanges(const std::filesystem::path& fileURL,
                                                                  std::string& failure);

    // The seed mappings from the bundle's "DefaultMappings.json", read afresh on each call; empty
    // when there is none or it cannot be read as a whole.
    static std::vector<Mapping> bundledDefaults(const Bundle& bundle = Bundle::main());

    // Tells `onChange`, then writes the file atomically. On failure the in-memory state stays and
    // the next change tries again.
    bool persist();

private:
    // Reads and decodes the file; nothing, with the reason, when it cannot.
    static std::optional<StoredMappingDocument> readDocument(const std::filesystem::path& fileURL, std::string& failure);
    void load();
    void seed();
    // Moves an unreadable file out of the way; returns the new name, or nothing when it failed
    // (with the reason in `failure`).
    std::optional<std::filesystem::path> moveAside(std::string& failure);

    std::filesystem::path fileURL_;
    DiagnosticLog& log_;
    Clock& clock_;
    const Bundle& bundle_;
    Observable<std::vector<Mapping>> mappings_;
    Observable<std::vector<Mapping>> lastRemoved_;
    std::vector<std::size_t> removedIndices_;
    std::vector<JSONValue> unreadable_;
    // Set when the file could be neither read nor moved aside: for the rest of the run nothing is
    // written over it, since a write would replace mappings this run never saw.
    bool protectsUnreadFile_ = false;
};

} // namespace tavrick
