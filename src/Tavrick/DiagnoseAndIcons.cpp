#include "ArtKit/IconArt.h"
#include "CoreKit/AppInfo.h"
#include "CoreKit/Bundle.h"
#include "CoreKit/Directories.h"
#include "CoreKit/FileIO.h"
#include "FanCore/SMC.h"
#include "Platform/Linux/FanHelperLauncher.h"
#include "Platform/Linux/XdgAutostart.h"
#include "Tavrick/DiagnosticReport.h"
#include "Tavrick/Diagnostics.h"

#include <cstring>

namespace tavrick::Diagnostics {

int runAndExit(Context& context) {
    // Everything here is read; nothing is created, registered or written.
    DiagnoseFacts facts;
    const auto [parentName, parentPid] = parentProcess();
    facts.launchedBy = launchingApplication(parentName, parentPid);
    facts.bundlePath = Bundle::main().bundlePath().string();
    facts.bundleIdentifier = AppInfo::bundleIdentifier();
    facts.version = AppInfo::versionString();
    facts.loginItemStatus = XdgAutostart::entryStatus(XdgAutostart::defaultEntry());
    FanHelperLauncher helper(FanHelperPaths::standard(supportDirectory(), Directories::current().preferences()));
    facts.fanHelper = helper.status();
    int error = 0;
    readPermissions(facts, context.x11 != nullptr, FileIO::readAll(supportDirectory() / "session-state.json", error));
    facts.smcLayout = SMCLayout::summary();
    writeReport(context.out, facts);
    return facts.accessibility == PermissionState::granted ? 0 : 1;
}

int renderIconsAndExit(Context& context, const std::filesystem::path& folder) {
    auto& out = context.out;
    // The folder is made when it is missing: asking for pictures in it is asking for it.
    std::error_code made;
    if (folder.empty()) {
        // An empty argument is no folder, and never the current directory by accident.
        out << "could not render " << IconArt::files().front().name << "\n  (no folder was given)\n";
        return 1;
    }
    std::filesystem::create_directories(folder, made);
    for (const auto& file : IconArt::files()) {
        const auto path = folder / file.name;
        std::string why;
        auto bytes = file.render().png(&why);
        if (bytes) {
            if (auto failure = FileIO::writeAtomically(path, *bytes, 0644)) {
                why = made ? "the folder could not be made: " + made.message()
                           : failure->step + " " + path.filename().string() + ": " + std::strerror(failure->error);
            }
        }
        if (!why.empty()) {
            out << "could not render " << path.string() << "\n  (" << why << ")\n";
            return 1;
        }
        out << "wrote " << path.string() << "  " << file.pixelWidth << "×" << file.pixelHeight << "\n";
    }
    return 0;
}

} // namespace tavrick::Diagnostics
