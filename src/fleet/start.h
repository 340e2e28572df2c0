#pragma once

#include <memory>
#include <string>

#include "engine/platform/log.h"
#include "engine/platform/settings_store.h"
#include "publisher.h"

namespace kestrix::fleet {

// The files beside the store "DIR/NAME.db": the journal "DIR/NAME-journal.db" and the publisher's
// acknowledged-up-to marker "DIR/NAME-fleet.seq".
std::string journalPathFor(const std::string& storePath);
std::string markerPathFor(const std::string& storePath);

// The publisher the store's section "Fleet" asks for, started; null when it is not enabled or its
// settings cannot work (then said on the log, or on standard error without one).
std::unique_ptr<Publisher> startFromStore(SettingsStore& store, const std::string& storePath,
                                          const std::string& engineVersion, Log* log = nullptr);

}  // namespace kestrix::fleet
