#include "FanCore/FanJournal.h"

#include "CoreKit/FileIO.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <unistd.h>

namespace tavrick {

std::optional<FanJournal::Entry> FanJournal::read(bool* unreadable) const {
    if (unreadable) *unreadable = false;
    int error = 0;
    auto text = FileIO::readAll(path_, error);
    if (!text) {
        if (error != ENOENT && unreadable) *unreadable = true;
        return std::nullopt;
    }
    auto json = nlohmann::json::parse(*text, nullptr, false);
    Entry entry;
    bool ok = json.is_object() && json.contains("fans") && json["fans"].is_array();
    if (ok) {
        for (const auto& fan : json["fans"]) {
            if (!fan.is_number_integer()) {
                ok = false;
                break;
            }
            entry.fans.push_back(fan.get<int>());
        }
        if (json.contains("at") && json["at"].is_number()) entry.at = json["at"].get<double>();
    }
    if (!ok) {
        if (unreadable) *unreadable = true;
        int moveError = 0;
        FileIO::moveAside(path_, static_cast<long long>(std::time(nullptr)), moveError);
        return std::nullopt;
    }
    return entry;
}

bool FanJournal::write(const Entry& entry, std::string* error) const {
    nlohmann::json json{{"fans", entry.fans}, {"at", entry.at}};
    std::error_code ignored;
    std::filesystem::create_directories(path_.parent_path(), ignored);
    auto failure = FileIO::writeAtomically(path_, json.dump(2) + "\n", 0600);
    if (failure) {
        if (error) *error = "could not " + failure->step + " " + path_.string() + ": " + std::strerror(failure->error);
        return false;
    }
    return true;
}

bool FanJournal::remove() const { return ::unlink(path_.c_str()) == 0 || errno == ENOENT; }

} // namespace tavrick
