#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace tavrick::FileIO {

// Reads a whole file. Nothing, with `error` set to the errno, when it cannot be read.
std::optional<std::string> readAll(const std::filesystem::path& path, int& error);

// What an atomic write was doing when it failed: "create a temporary file for", "set the
// permissions of", "write", "flush", "close" or "replace", and the errno.
struct WriteFailure {
    std::string step;
    int error = 0;
};

// Writes beside the target, flushes, renames over it and flushes the folder, so a reader (or a
// crash) only ever sees the old file or the whole new one. The replaced file's permissions are
// kept; a new file gets `newFileMode`.
std::optional<WriteFailure> writeAtomically(const std::filesystem::path& path, std::string_view text,
                                            mode_t newFileMode = 0644);

// Moves an unreadable file aside, beside itself, as "<name>.corrupt-<seconds>"; a second one in
// the same second becomes "<name>.corrupt-<seconds>-2", and so on, so no earlier copy is ever
// replaced. The new path, or nothing with `error` set.
std::optional<std::filesystem::path> moveAside(const std::filesystem::path& path, long long seconds, int& error);

} // namespace tavrick::FileIO
