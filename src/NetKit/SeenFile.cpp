#include "NetKit/SeenFile.h"

#include "CoreKit/DiagnosticLog.h"
#include "CoreKit/FileIO.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <system_error>

namespace tavrick {

namespace {
void note(DiagnosticLog* log, const std::string& message) {
    if (log) log->note("network", message);
}
} // namespace

std::filesystem::path SeenFile::corruptPath(long long seconds) const {
    auto stem = url.parent_path() / url.stem();
    return stem.string() + ".corrupt-" + std::to_string(seconds);
}

SeenStore SeenFile::load() const {
    try {
        int error = 0;
        auto store = SeenStore::fromFile(url, error);
        // A missing file is the normal first run.
        if (!store) return SeenStore{};
        return std::move(*store);
    } catch (const std::exception& failure) {
        const auto seconds = static_cast<long long>(std::floor(now ? now() : 0));
        // The moved-aside name drops the extension, as "network-seen.corrupt-<seconds>"; a
        // second failure in the same second gets its own suffix rather than replacing the first.
        std::filesystem::path target = corruptPath(seconds);
        std::error_code code;
        for (int n = 2; std::filesystem::exists(target, code) && n < 1000; ++n) {
            target = corruptPath(seconds).string() + "-" + std::to_string(n);
        }
        std::filesystem::rename(url, target, code);
        note(log, std::string("seen file unreadable, moved aside: ") + failure.what());
        return SeenStore{};
    }
}

bool SeenFile::save(const SeenStore& store) const {
    std::error_code code;
    std::filesystem::create_directories(url.parent_path(), code);
    auto failure = FileIO::writeAtomically(url, store.toJSON().dump(), 0600);
    if (failure) {
        note(log, "could not save: " + failure->step + " " + url.filename().string() + ": " +
                      std::strerror(failure->error));
        return false;
    }
    return true;
}

} // namespace tavrick
