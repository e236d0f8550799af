#pragma once

#include <filesystem>
#include <functional>

namespace tavrick::testing {

// Runs `action` in a forked child as the unprivileged user nobody (uid and gid 65534), so that
// file permissions bite even when the tests run as root; without root the child keeps the
// caller's user. `tree` is handed to nobody first, so the child stands where its owner would.
// Returns the child's exit status: the action's result, 125 when the user could not be changed,
// 126 when the action threw, or 128 + signal.
int runUnprivileged(const std::filesystem::path& tree, const std::function<int()>& action);

} // namespace tavrick::testing
