#include "start.h"

#include <cstdio>
#include <filesystem>

#include "journal_file_source.h"

namespace kestrix::fleet {

namespace {

std::string besideStore(const std::string& storePath, const std::string& suffix) {
    const std::filesystem::path p(storePath);
    return (p.parent_path() / (p.stem().string() + suffix)).string();
}

}  // namespace

std::string journalPathFor(const std::string& storePath) {
    return besideStore(storePath, "-journal.db");
}

std::string markerPathFor(const std::string& storePath) {
    return besideStore(storePath, "-fleet.seq");
}

std::unique_ptr<Publisher> startFromStore(SettingsStore& store, const std::string& storePath,
                                          const std::string& engineVersion, Log* log) {
    ConfigResult read = readFleetConfig(store, hostName());
    if (!read.config) {
        if (!read.problem.empty()) {
            if (log != nullptr) {
                log->error(read.problem);
            } else {
                std::fprintf(stderr, "<3>%s\n", read.problem.c_str());
            }
        }
        return nullptr;
    }
    read.config->engineVersion = engineVersion;
    auto publisher = std::make_unique<Publisher>(
        std::move(*read.config), std::make_unique<JournalFileSource>(journalPathFor(storePath)),
        markerPathFor(storePath), log);
    publisher->start();
    return publisher;
}

}  // namespace kestrix::fleet
