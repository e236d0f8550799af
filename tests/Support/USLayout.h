#pragma once

#include "CoreKit/KeyCodes.h"

#include <memory>

namespace tavrick::testing {

// Key names depend on the installed layout; a test that wants the US names holds one of these,
// and whatever layout was installed comes back when it goes.
class USLayout {
public:
    USLayout() : saved_(KeyCodes::installedLayoutCache()) { KeyCodes::installLayoutCache(nullptr); }
    ~USLayout() { KeyCodes::installLayoutCache(saved_); }
    USLayout(const USLayout&) = delete;
    USLayout& operator=(const USLayout&) = delete;

private:
    std::shared_ptr<const KeyboardLayoutCache> saved_;
};

} // namespace tavrick::testing
