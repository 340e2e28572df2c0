#pragma once

// Every bound the engine puts on a device wait that its devices' protocol leaves open, in one
// place, with its reason. When a bound runs out the device is reported failed and what is still
// owed to the customer stays reported: a kiosk that waits for ever keeps the customer's money
// and the host's request hostage. (The read limits and attempts of each MDB exchange are in the
// link's use tables; these are the bounds of the longer waits built from them.)
namespace kestrix::bounds {

// --- Termination ---------------------------------------------------------------------------------
// SIGTERM, SIGINT or "Exit": the running payment is cancelled and its credit paid back, then the
// devices are shut down, all within this many seconds; the process's own watchdog ends it at
// kProcessExitSeconds whatever happens, and a second signal ends it at once.
inline constexpr double kTerminationSeconds = 8.5;
inline constexpr double kProcessExitSeconds = 10.0;

// --- Settling acceptance before a reset ---------------------------------------------------------
// A RESET drops every event a device has not yet reported. Before any reset that ends
// acceptance, both devices are told to accept nothing more and are polled until neither has
// reported anything for kSettleQuietSeconds (longer than a coin's fall through the changer and a
// bill's way to the stacker), at most kSettleMaxSeconds, every kSettlePollSeconds.
inline constexpr double kSettleQuietSeconds = 1.5;
inline constexpr double kSettleMaxSeconds = 6.0;
inline constexpr double kSettlePollSeconds = 0.2;

// --- Poll tick
// ------------------------------------------------------------------------------------- Changer
// POLL replies in a row that are there but unreadable (garbage on the line, a wrong check byte)
// before the changer counts as failed; each is left unacknowledged, so the changer sends it again.
inline constexpr int kUnreadablePolls = 25;
// A "CCD" validator is polled again when it does not answer; after this many POLLs in a row it
// goes to recovery like any other validator.
inline constexpr int kCcdPollAttempts = 25;

// --- Change from the tubes
// -------------------------------------------------------------------------- The payout watch ends
// when the changer reports nothing more to do. A changer that keeps reporting "payout busy" is
// given kPayoutWatchBaseSeconds plus kPayoutSecondsPerCoin for every coin the payout can need (at
// most one coin per smallest coin value); one that stops answering is given kPayoutWatchSilentPolls
// unanswered POLLs in a row. Either way the changer is then reported failed and not asked for
// change again until it is initialised.
inline constexpr double kPayoutWatchBaseSeconds = 5.0;
inline constexpr double kPayoutSecondsPerCoin = 1.5;
inline constexpr int kPayoutWatchSilentPolls = 10;

// --- Bill dispenser
// --------------------------------------------------------------------------------- Rounds of
// "wait, acknowledge twice, read" for one dispense's answer (about 1.4 s each). When no complete
// answer comes, whether the bill left is unknown: the dispenser is reported in error and no further
// bill is asked for.
inline constexpr int kDispenseAnswerRounds = 10;

// --- Exit
// ---------------------------------------------------------------------------------------------
// Rounds of the validator's RESET at exit (each ends after 200 reads without an answer).
inline constexpr int kExitValidatorResets = 5;

}  // namespace kestrix::bounds
