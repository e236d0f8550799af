#pragma once

#include "CoreKit/Toast.h"

#include <cstdio>
#include <mutex>

namespace tavrick {

// Toasts as one line each on the terminal: a mark, the title, then the detail.
class TerminalToast final : public Toast::Presenter {
public:
    explicit TerminalToast(std::FILE* out = stdout) : out_(out) {}
    void present(const std::string& title, Toast::Kind kind, const std::optional<std::string>& detail) override;
    static std::string line(const std::string& title, Toast::Kind kind, const std::optional<std::string>& detail);

private:
    std::FILE* out_;
    std::mutex mutex_;
};

} // namespace tavrick
