// Writing and reading back a large backup: 10,000 bindings, a 1 MB note and 1,000 vault
// entries. The key derivation is left out by sealing with a single round; what is measured is
// the encoding, the sealing itself, the file and the decoding.
#include "BackupKit/Archive.h"
#include "BackupKit/SettingsSnapshot.h"
#include "CoreKit/FileIO.h"
#include "CoreKit/PreferenceStore.h"
#include "Tavrick/BackupFile.h"

#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <filesystem>
#include <unistd.h>

namespace {

using namespace tavrick;

std::vector<Mapping> bindings() {
    std::vector<Mapping> list;
    for (int i = 0; i < 10000; ++i) {
        char id[40];
        std::snprintf(id, sizeof id, "55555555-5555-4555-8555-%012d", i);
        list.push_back(Mapping::fromJSON({{"id", id}, {"name", "Binding " + std::to_string(i)}, {"isEnabled", i % 7 != 0},
                                          {"trigger", {{"hotkey", {{"_0", {{"keyCode", i % 128}, {"modifiers", 12}}}}}}},
                                          {"action", {{"toggleAwake", nlohmann::json::object()}}}}));
    }
    return list;
}

Archive::Secrets secrets() {
    Archive::Secrets s;
    for (int i = 0; i < 1000; ++i) {
        VaultItem item;
        item.title = "Entry " + std::to_string(i);
        item.set("number", "4111 1111 1111 " + std::to_string(1000 + i));
        item.set("note", "A note of a reasonable length for an entry, kept with the card.");
        item.updated = 1763251200 + i;
        s.vault.push_back(item);
    }
    s.apiKeys = {{"anthropic-api-key", "sk-ant-0123456789"}, {"api-key-openAI", "sk-0123456789"}};
    return s;
}

std::string megabyteNote() {
    std::string note;
    while (note.size() < 1024 * 1024) note += "A line of the scratch note, typed over a long week.\n";
    return note;
}

struct Inputs {
    std::string settings = SettingsSnapshot::write({{"appearance", "dark"}, {"servePort", 8000}});
    std::vector<Mapping> mappings = bindings();
    std::string note = megabyteNote();
    Archive::Secrets vault = secrets();
    std::filesystem::path file = std::filesystem::temp_directory_path() / ("tavrick-backup-bench-" + std::to_string(::getpid()) + ".json");
};

Inputs& inputs() {
    static Inputs shared;
    return shared;
}

void BM_WriteBackup(benchmark::State& state) {
    auto& in = inputs();
    for (auto _ : state) {
        auto archive = ArchiveBuilder::build(1772366400, "1.0 (1)", "bench", in.settings, in.mappings,
                                             std::vector<std::string>{"showPathBar"}, in.note, in.vault,
                                             "bench passphrase", 1);
        if (auto failure = BackupFile::write(archive, in.file)) state.SkipWithError(failure->c_str());
    }
}
BENCHMARK(BM_WriteBackup)->Unit(benchmark::kMillisecond);

void BM_ReadBackupBack(benchmark::State& state) {
    auto& in = inputs();
    auto archive = ArchiveBuilder::build(1772366400, "1.0 (1)", "bench", in.settings, in.mappings,
                                         std::vector<std::string>{"showPathBar"}, in.note, in.vault, "bench passphrase", 1);
    BackupFile::write(archive, in.file);
    state.counters["bytes"] = static_cast<double>(std::filesystem::file_size(in.file));
    for (auto _ : state) {
        int error = 0;
        auto bytes = FileIO::readAll(in.file, error);
        auto read = ArchiveFile::decode(*bytes);
        auto opened = ArchiveBuilder::secrets(read, "bench passphrase");
        if (read.bindings->size() != 10000 || opened.vault.size() != 1000) state.SkipWithError("lost something");
        benchmark::DoNotOptimize(opened);
    }
    std::filesystem::remove(in.file);
}
BENCHMARK(BM_ReadBackupBack)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
