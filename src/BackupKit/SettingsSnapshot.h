#pragma once

#include "CoreKit/PreferenceStore.h"

#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace tavrick {

// The program's settings as a binary property list, and back. Only the keys a backup carries
// travel, less the excluded ones.
namespace SettingsSnapshot {

// Never carried: a backup must not silently point a restored machine at another server.
const std::set<std::string>& excluded();

// Whether a key travels: one of the settings' backed-up keys and not excluded.
bool carries(std::string_view key);

// The carried keys that hold a value, as a binary property list.
std::string capture(const PreferenceStore& defaults);

// Writes every carried key the snapshot holds; anything else in it is ignored. The keys written,
// sorted. Throws ArchiveError::damaged when the bytes are not a property list of a dictionary
// with text keys, before anything is written.
std::vector<std::string> apply(std::string_view bytes, PreferenceStore& defaults);

// The keys a snapshot holds, sorted; nothing when it does not parse.
std::vector<std::string> keys(std::string_view bytes);

// The snapshot's dictionary; throws ArchiveError::damaged. For `apply` and the tests.
PreferenceValue::Dictionary read(std::string_view bytes);
std::string write(const PreferenceValue::Dictionary& values);

} // namespace SettingsSnapshot

} // namespace tavrick
