#pragma once

#include <string_view>

namespace tavrick {

// The two privacy permissions the input engines need.
enum class Permission { accessibility, inputMonitoring };

enum class PermissionState { granted, denied, unknown };

std::string_view rawValue(Permission permission);
// "Accessibility", "Input Monitoring".
std::string_view displayName(Permission permission);
std::string_view rationale(Permission permission);
inline bool isGranted(PermissionState state) { return state == PermissionState::granted; }

} // namespace tavrick
