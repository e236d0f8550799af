#include "Tavrick/CommandLine.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>

namespace tavrick::CommandLine {

namespace {

template <class Integer>
std::optional<Integer> parseInteger(const std::string& text) {
    Integer value{};
    const char* begin = text.data();
    const char* end = text.data() + text.size();
    if (begin != end && *begin == '+') ++begin;  // "+4" is a number; "++4" is not
    auto [ptr, error] = std::from_chars(begin, end, value);
    if (error != std::errc() || ptr != end || begin == end) return std::nullopt;
    return value;
}

// Seconds: a finite number that is not negative. A negative or endless wait is as good as no
// number, so it takes the default like any other unparsable text.
std::optional<double> parseSeconds(const std::string& text) {
    double value = 0;
    auto [ptr, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || ptr != text.data() + text.size() || text.empty()) return std::nullopt;
    if (!std::isfinite(value) || value < 0) return std::nullopt;
    return value;
}

} // namespace

const char* spelling(DiagnosticFlag flag) {
    switch (flag) {
    case DiagnosticFlag::diagnose: return "--diagnose";
    case DiagnosticFlag::postKey: return "--post-key";
    case DiagnosticFlag::renderIcons: return "--render-icons";
    case DiagnosticFlag::probeSelection: return "--probe-selection";
    case DiagnosticFlag::log: return "--log";
    case DiagnosticFlag::tapSelfTest: return "--tap-selftest";
    case DiagnosticFlag::mouseRecorderSelfTest: return "--mouse-recorder-selftest";
    case DiagnosticFlag::vaultSelfTest: return "--vault-selftest";
    case DiagnosticFlag::touchIDProbe: return "--touchid-probe";
    case DiagnosticFlag::tapProbe: return "--tap-probe";
    case DiagnosticFlag::fanProbe: return "--fan-probe";
    case DiagnosticFlag::playTouches: return "--play-touches";
    case DiagnosticFlag::postStroke: return "--post-stroke";
    case DiagnosticFlag::systemReport: return "--system-report";
    case DiagnosticFlag::stopServer: return "--stop-server";
    case DiagnosticFlag::devReport: return "--dev-report";
    }
    return "";
}

const std::vector<DiagnosticFlag>& allFlags() {
    static const std::vector<DiagnosticFlag> flags = {
        DiagnosticFlag::diagnose,        DiagnosticFlag::postKey,      DiagnosticFlag::renderIcons,
        DiagnosticFlag::probeSelection,  DiagnosticFlag::log,          DiagnosticFlag::tapSelfTest,
        DiagnosticFlag::mouseRecorderSelfTest, DiagnosticFlag::vaultSelfTest, DiagnosticFlag::touchIDProbe,
        DiagnosticFlag::tapProbe,        DiagnosticFlag::fanProbe,     DiagnosticFlag::playTouches,
        DiagnosticFlag::postStroke,      DiagnosticFlag::systemReport, DiagnosticFlag::stopServer,
        DiagnosticFlag::devReport,
    };
    return flags;
}

std::optional<DiagnosticCommand> parse(const std::vector<std::string>& arguments, std::vector<std::string>* problems) {
    auto problem = [problems](std::string sentence) {
        if (problems) problems->push_back(std::move(sentence));
    };
    auto quoted = [](const std::string* text) { return text ? "“" + *text + "”" : std::string("nothing"); };
    for (DiagnosticFlag flag : allFlags()) {
        auto at = std::find(arguments.begin(), arguments.end(), spelling(flag));
        if (at == arguments.end()) continue;
        auto argument = [&](std::size_t offset) -> const std::string* {
            auto index = static_cast<std::size_t>(at - arguments.begin()) + offset;
            return index < arguments.size() ? &arguments[index] : nullptr;
        };
        DiagnosticCommand command;
        command.flag = flag;
        switch (flag) {
        case DiagnosticFlag::postKey: {
            const std::string* key = argument(1);
            const std::string* modifiers = argument(2);
            auto keyCode = key ? parseInteger<std::uint16_t>(*key) : std::nullopt;
            auto flags = modifiers ? parseInteger<std::int64_t>(*modifiers) : std::nullopt;
            if (!keyCode || !flags) {
                problem("--post-key needs a key code (0 to 65535) and a modifier value, not " + quoted(key) +
                        " and " + quoted(modifiers) + "; ignoring it");
                continue;
            }
            command.keyCode = *keyCode;
            command.modifiers = *flags;
            break;
        }
        case DiagnosticFlag::renderIcons: {
            const std::string* folder = argument(1);
            if (!folder || folder->empty()) {
                problem("--render-icons needs an output folder; ignoring it");
                continue;
            }
            command.folder = *folder;
            break;
        }
        case DiagnosticFlag::probeSelection:
        case DiagnosticFlag::tapProbe: {
            const double fallback = flag == DiagnosticFlag::tapProbe ? 15.0 : 5.0;
            const std::string* seconds = argument(1);
            auto parsed = seconds ? parseSeconds(*seconds) : std::nullopt;
            if (seconds && !parsed) {
                char text[32];
                std::snprintf(text, sizeof text, "%g", fallback);
                problem(std::string(spelling(flag)) + ": " + quoted(seconds) + " is not a number of seconds; using " +
                        text);
            }
            command.seconds = parsed.value_or(fallback);
            break;
        }
        case DiagnosticFlag::playTouches: {
            const std::string* file = argument(1);
            if (!file || file->empty()) {
                problem("--play-touches needs a touchpad recording; ignoring it");
                continue;
            }
            command.file = *file;
            break;
        }
        case DiagnosticFlag::postStroke: {
            const std::string* strokes = argument(1);
            if (!strokes || strokes->empty()) {
                problem("--post-stroke needs strokes such as up,left or the word click; ignoring it");
                continue;
            }
            command.strokes = *strokes;
            break;
        }
        case DiagnosticFlag::stopServer: {
            const std::string* pid = argument(1);
            auto parsed = pid ? parseInteger<std::int32_t>(*pid) : std::nullopt;
            if (!parsed || *parsed <= 0) {
                problem("--stop-server needs the process id of a listening program, not " + quoted(pid) + "; ignoring it");
                continue;
            }
            command.pid = *parsed;
            const std::string* next = argument(2);
            command.force = next && *next == "force";
            break;
        }
        case DiagnosticFlag::fanProbe: {
            if (const std::string* next = argument(1)) {
                if (*next == "release") {
                    command.release = true;
                } else {
                    command.boostSeconds = parseSeconds(*next);
                    if (!command.boostSeconds) {
                        problem("--fan-probe: " + quoted(next) + " is neither seconds nor “release”; probing only");
                    }
                }
            }
            break;
        }
        default:
            break;
        }
        return command;
    }
    return std::nullopt;
}

} // namespace tavrick::CommandLine
