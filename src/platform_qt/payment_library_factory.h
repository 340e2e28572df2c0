#pragma once

#include <memory>

#include "engine/platform/clock.h"
#include "engine/platform/payment_library.h"
#include "engine/platform/scheduler.h"
#include "engine/platform/settings_store.h"

namespace kestrix::qt {

// The card payment library the engine drives, chosen by section "Pin Pad", key "Library":
//   "simulated"  the simulated pin pad (sim::SimPinPad, steered by "Pin Pad Simulator"); only
//                when named so (`kestrix --simulate` writes it);
//   "com" (also when the key is missing or empty)  the registered COM component (Windows; see
//           com_payment_library_win.h). On other systems every call fails with error 429, so
//           the pin pad shows off line and a card payment ends as a pin pad error;
//   anything else  a library whose every call fails, naming the unknown setting: a mistyped
//           name must not turn a kiosk's card payments into simulated approvals.
// Case and surrounding blanks do not matter. Call it on the engine thread, with the engine's
// clock and scheduler: the simulated pin pad waits on that event loop.
std::unique_ptr<PaymentLibrary> makePaymentLibrary(SettingsStore& store, Clock& clock,
                                                   Scheduler& scheduler);

}  // namespace kestrix::qt
