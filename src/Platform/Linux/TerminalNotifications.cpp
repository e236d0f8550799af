#include "Platform/Linux/TerminalNotifications.h"

namespace tavrick {

void TerminalNotifications::requestAuthorization(int, AuthorizationReply reply) {
    reply(true, std::nullopt);
}

void TerminalNotifications::add(const std::string&, const std::string& title, const std::string& body) {
    std::lock_guard lock(mutex_);
    if (sink_) {
        sink_("🔔 " + title + (body.empty() ? "" : " — ") + body);
        return;
    }
    std::fprintf(out_, "🔔 %s%s%s\n", title.c_str(), body.empty() ? "" : " — ", body.c_str());
    std::fflush(out_);
}

void TerminalNotifications::setLineSink(std::function<void(const std::string&)> sink) {
    std::lock_guard lock(mutex_);
    sink_ = std::move(sink);
}

} // namespace tavrick
