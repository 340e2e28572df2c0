#pragma once

#include <memory>

#include "engine/platform/clock.h"
#include "engine/platform/payment_library.h"
#include "engine/platform/scheduler.h"
#include "engine/platform/settings_store.h"

namespace kestrix::qt {

// The card payment library chosen by "Pin Pad"/"Library": "simulated" (the default, and the
// only one off Windows) or "com" (the registered component, Windows only).
std::unique_ptr<PaymentLibrary> makePaymentLibrary(SettingsStore& store, Clock& clock,
                                                   Scheduler& scheduler);

}  // namespace kestrix::qt
