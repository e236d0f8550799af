#include "Tavrick/CommandLine.h"

#include <gtest/gtest.h>

using namespace tavrick;

namespace {
DiagnosticCommand command(DiagnosticFlag flag) {
    DiagnosticCommand c;
    c.flag = flag;
    return c;
}
DiagnosticCommand postKey(std::uint16_t key, std::int64_t modifiers) {
    auto c = command(DiagnosticFlag::postKey);
    c.keyCode = key;
    c.modifiers = modifiers;
    return c;
}
DiagnosticCommand seconds(DiagnosticFlag flag, double s) {
    auto c = command(flag);
    c.seconds = s;
    return c;
}
DiagnosticCommand fanProbe(std::optional<double> boost, bool release) {
    auto c = command(DiagnosticFlag::fanProbe);
    c.boostSeconds = boost;
    c.release = release;
    return c;
}
DiagnosticCommand icons(std::string folder) {
    auto c = command(DiagnosticFlag::renderIcons);
    c.folder = std::move(folder);
    return c;
}
} // namespace

TEST(CommandLine, FlagArgumentsAreParsedOrTheFlagIsIgnored) {
    struct Case {
        std::vector<std::string> arguments;
        std::optional<DiagnosticCommand> expected;
    };
    const Case cases[] = {
        {{"tavrick"}, std::nullopt},
        {{"tavrick", "--verbose"}, std::nullopt},
        {{"tavrick", "--diagnose"}, command(DiagnosticFlag::diagnose)},
        {{"tavrick", "--dev-report"}, command(DiagnosticFlag::devReport)},
        {{"tavrick", "--dev-report", "--diagnose"}, command(DiagnosticFlag::diagnose)},
        {{"tavrick", "--post-key", "12", "9"}, postKey(12, 9)},
        {{"tavrick", "--post-key", "65535", "-1"}, postKey(65535, -1)},
        {{"tavrick", "--post-key", "+7", "+4"}, postKey(7, 4)},
        // A missing or unparsable argument: the flag is ignored and start-up goes on.
        {{"tavrick", "--post-key", "12"}, std::nullopt},
        {{"tavrick", "--post-key", "65536", "0"}, std::nullopt},
        {{"tavrick", "--post-key", "-1", "0"}, std::nullopt},
        {{"tavrick", "--post-key", "12abc", "0"}, std::nullopt},
        {{"tavrick", "--post-key", "12", "0x8"}, std::nullopt},
        {{"tavrick", "--render-icons", "/tmp/icons"}, icons("/tmp/icons")},
        {{"tavrick", "--render-icons"}, std::nullopt},
        {{"tavrick", "--probe-selection"}, seconds(DiagnosticFlag::probeSelection, 5.0)},
        {{"tavrick", "--probe-selection", "2.5"}, seconds(DiagnosticFlag::probeSelection, 2.5)},
        {{"tavrick", "--probe-selection", "-3"}, seconds(DiagnosticFlag::probeSelection, 5.0)},
        {{"tavrick", "--tap-probe"}, seconds(DiagnosticFlag::tapProbe, 15.0)},
        {{"tavrick", "--tap-probe", "30"}, seconds(DiagnosticFlag::tapProbe, 30.0)},
        {{"tavrick", "--tap-probe", "nan"}, seconds(DiagnosticFlag::tapProbe, 15.0)},
        {{"tavrick", "--fan-probe"}, fanProbe(std::nullopt, false)},
        {{"tavrick", "--fan-probe", "10"}, fanProbe(10.0, false)},
        {{"tavrick", "--fan-probe", "release"}, fanProbe(std::nullopt, true)},
        {{"tavrick", "--fan-probe", "Release"}, fanProbe(std::nullopt, false)},
        // Argument zero counts too.
        {{"--log"}, command(DiagnosticFlag::log)},
        // Matching is by exact equality.
        {{"tavrick", "--log=1"}, std::nullopt},
        {{"tavrick", "--LOG"}, std::nullopt},
    };
    for (const auto& c : cases) {
        std::string line;
        for (const auto& a : c.arguments) line += a + " ";
        EXPECT_EQ(CommandLine::parse(c.arguments), c.expected) << line;
    }
}

TEST(CommandLine, TheEarlierRowWinsWhateverTheArgumentOrder) {
    EXPECT_EQ(CommandLine::parse({"tavrick", "--fan-probe", "--log"}), command(DiagnosticFlag::log));
    EXPECT_EQ(CommandLine::parse({"tavrick", "--tap-probe", "--diagnose"}), command(DiagnosticFlag::diagnose));
    // An ignored flag gives way to the next row that is present.
    EXPECT_EQ(CommandLine::parse({"tavrick", "--tap-selftest", "--post-key", "12"}),
              command(DiagnosticFlag::tapSelfTest));
    EXPECT_EQ(CommandLine::parse({"tavrick", "--log", "--tap-probe"}), command(DiagnosticFlag::log));
}

TEST(CommandLine, IgnoredAndDefaultedArgumentsAreExplainedForTheLog) {
    struct Case {
        std::vector<std::string> arguments;
        std::vector<std::string> problems;
    };
    const Case cases[] = {
        {{"tavrick", "--post-key", "12", "9"}, {}},
        {{"tavrick", "--post-key", "12"},
         {"--post-key needs a key code (0 to 65535) and a modifier value, not “12” and nothing; ignoring it"}},
        {{"tavrick", "--post-key", "70000", "x"},
         {"--post-key needs a key code (0 to 65535) and a modifier value, not “70000” and “x”; ignoring it"}},
        {{"tavrick", "--render-icons"}, {"--render-icons needs an output folder; ignoring it"}},
        {{"tavrick", "--probe-selection", "abc"}, {"--probe-selection: “abc” is not a number of seconds; using 5"}},
        {{"tavrick", "--probe-selection"}, {}},
        {{"tavrick", "--tap-probe", "-1"}, {"--tap-probe: “-1” is not a number of seconds; using 15"}},
        {{"tavrick", "--fan-probe", "boost"}, {"--fan-probe: “boost” is neither seconds nor “release”; probing only"}},
        {{"tavrick", "--fan-probe", "release"}, {}},
        // Only flags that were looked at are explained: the earlier row ends the search.
        {{"tavrick", "--log", "--tap-probe", "abc"}, {}},
    };
    for (const auto& c : cases) {
        std::vector<std::string> problems;
        CommandLine::parse(c.arguments, &problems);
        EXPECT_EQ(problems, c.problems) << c.arguments[1];
    }
}

namespace {

TEST(CommandLineMonitor, StopServerNeedsAPositivePid) {
    using tavrick::CommandLine::parse;
    const std::pair<std::vector<std::string>, std::optional<std::pair<std::int32_t, bool>>> cases[] = {
        {{"tavrick", "--stop-server", "42"}, std::pair{42, false}},
        {{"tavrick", "--stop-server", "42", "force"}, std::pair{42, true}},
        {{"tavrick", "--stop-server", "0"}, std::nullopt},
        {{"tavrick", "--stop-server", "-3"}, std::nullopt},
        {{"tavrick", "--stop-server"}, std::nullopt},
    };
    for (const auto& [arguments, expected] : cases) {
        std::vector<std::string> problems;
        auto command = parse(arguments, &problems);
        EXPECT_EQ(command.has_value(), expected.has_value());
        if (command && expected) {
            EXPECT_EQ(command->pid, expected->first);
            EXPECT_EQ(command->force, expected->second);
        } else {
            ASSERT_EQ(problems.size(), 1u);
            EXPECT_TRUE(problems[0].starts_with("--stop-server needs the process id of a listening program"));
        }
    }
}

} // namespace
