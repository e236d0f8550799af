#include "Platform/Linux/TerminalNotifications.h"

namespace tavrick {

void TerminalNotifications::requestAuthorization(int, AuthorizationReply reply) {
    reply(true, std::nullopt);
}

void TerminalNotifications::add(const std::string&, const std::string& title, const std::string& body) {
    std::lock_guard lock(mutex_);
    std::fprintf(out_, "🔔 %s%s%s\n", title.c_str(), body.empty() ? "" : " — ", body.c_str());
    std::fflush(out_);
}

} // namespace tavrick
