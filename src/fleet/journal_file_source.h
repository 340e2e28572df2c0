#pragma once

#include <string>

#include "event_source.h"

struct sqlite3;

namespace kestrix::fleet {

// The engine's journal file, read on the publisher's thread through a read-only connection of its
// own. The engine writes it in WAL mode, so these reads never hold up an append. A journal file
// that does not exist yet reads as empty; it is opened once it appears.
class JournalFileSource : public EventSource {
public:
    explicit JournalFileSource(std::string path);
    ~JournalFileSource() override;
    JournalFileSource(const JournalFileSource&) = delete;
    JournalFileSource& operator=(const JournalFileSource&) = delete;

    std::vector<JournalRow> rowsAfter(std::int64_t sequence, std::size_t limit) override;
    std::int64_t lastSequence() override;
    std::vector<JournalRow> latestFaultRows() override;

private:
    enum class Open { Ready, Missing, Failed };
    Open open();
    std::vector<JournalRow> query(const char* sql, std::int64_t a, std::int64_t b);
    void close();

    std::string m_path;
    sqlite3* m_db = nullptr;
};

}  // namespace kestrix::fleet
