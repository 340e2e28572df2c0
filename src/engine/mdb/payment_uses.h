#pragma once

#include "link.h"

// The link uses of the cash payment, its poll loop and the change payout, beside the
// initialisation's rows in link.h. A wait "limited to N reads" gives up when the count of reads
// passes N: completeBy(N). No use sends without end: a device that does not answer within its
// attempts is reported failed (what that means for the payment is said at each row).
namespace kestrix::mdb::payment_use {

// A command the peripheral is trusted to answer: kDeviceAttempts sends of 200 reads, ACK after
// each unanswered one.
constexpr LinkUse trusted(std::string_view name, double waitSeconds = 0, double resendSeconds = 0) {
    return LinkUse{.name = name,
                   .waitBeforeReadSeconds = waitSeconds,
                   .limit = completeBy(200),
                   .attempts = kDeviceAttempts,
                   .ackAfterUnanswered = true,
                   .pauseBeforeResendSeconds = resendSeconds,
                   .whenExhausted = "the device is reported failed"};
}

// --- Start: when attempts run out the payment does not start ("Error: Coin Acceptor" or
// "Error: Bill Validator").
inline constexpr LinkUse kCoinType = trusted("Changer COIN TYPE");
inline constexpr LinkUse kDiagnosticStatus = trusted("Changer EXPANSION diagnostic status", 0.5);
// Also refuses a reply that begins with "ff" (NAK).
inline constexpr LinkUse kBillType = trusted("Validator BILL TYPE");

// --- Settling before a reset: acceptance off, then POLL until quiet. A device that does not
// answer is left out of the settling (and, in a payment, reported failed).
inline constexpr LinkUse kDisableCoinTypes = trusted("Changer COIN TYPE, all off");
inline constexpr LinkUse kDisableBillTypes = trusted("Validator BILL TYPE, all off");
inline constexpr LinkUse kSettleChangerPoll{.name = "Changer POLL while settling",
                                            .waitBeforeReadSeconds = 0,
                                            .limit = completeBy(200),
                                            .attempts = 3,
                                            .ackAfterUnanswered = false,
                                            .pauseBeforeResendSeconds = 0,
                                            .whenExhausted = "the changer is left out"};
inline constexpr LinkUse kSettleValidatorPoll{.name = "Validator POLL while settling",
                                              .waitBeforeReadSeconds = 0.1,
                                              .limit = completeBy(200),
                                              .attempts = 3,
                                              .ackAfterUnanswered = false,
                                              .pauseBeforeResendSeconds = 0,
                                              .whenExhausted = "the validator is left out"};

// --- Stop (a cancel) and completion: the devices are reset after settling.
inline constexpr LinkUse kStopValidatorReset{.name = "Validator RESET at stop",
                                             .waitBeforeReadSeconds = 0,
                                             .limit = completeBy(50),
                                             .attempts = kDeviceAttempts,
                                             .ackAfterUnanswered = true,
                                             .pauseBeforeResendSeconds = 0,
                                             .whenExhausted = "the validator is reported failed"};
inline constexpr LinkUse kValidatorPollAfterReset = trusted("Validator POLL after its RESET");
inline constexpr LinkUse kChangerReset = trusted("Changer RESET");
// The POLL after every changer RESET takes the changer's "I was reset" report, so that it never
// stands in front of a coin in a later reply.
inline constexpr LinkUse kChangerPollAfterReset{.name = "Changer POLL after its RESET",
                                                .waitBeforeReadSeconds = 0,
                                                .limit = completeBy(200),
                                                .attempts = 3,
                                                .ackAfterUnanswered = false,
                                                .pauseBeforeResendSeconds = 0,
                                                .whenExhausted = "nothing: the next POLL takes it"};
inline constexpr LinkUse kTubeStatus = trusted("Changer TUBE STATUS", 0.5, 0.1);
// Three RESETs at completion; after the third unanswered one the rest of the validator step is
// skipped.
inline constexpr LinkUse kEndValidatorReset{.name = "Validator RESET at completion",
                                            .waitBeforeReadSeconds = 0,
                                            .limit = completeBy(50),
                                            .attempts = 3,
                                            .ackAfterUnanswered = true,
                                            .pauseBeforeResendSeconds = 0.1,
                                            .whenExhausted = "the validator step is skipped"};

// --- Poll tick.
inline constexpr LinkUse kTickChangerPoll{
    .name = "Changer POLL in the poll tick",
    .waitBeforeReadSeconds = 0,
    .limit = completeBy(200),
    .attempts = 1,
    .ackAfterUnanswered = false,
    .pauseBeforeResendSeconds = 0,
    .whenExhausted = "the payment ends with \"Error: Coin Acceptor\" and no change"};
// The tick paces this POLL itself (0.1 s before it, and 0.1 s after it unless "CCD").
inline constexpr LinkUse kTickValidatorPoll{
    .name = "Validator POLL in the poll tick",
    .waitBeforeReadSeconds = 0,
    .limit = completeBy(500),
    .attempts = 1,
    .ackAfterUnanswered = false,
    .pauseBeforeResendSeconds = 0,
    .whenExhausted = "\"CCD\": POLL again; others: bill validator recovery"};

// --- Change payout.
// The payout command paces itself (0.1 s after the 02 word and after the check word).
inline constexpr LinkUse kPayout = trusted("Changer EXPANSION payout");
// The payout watch counts unanswered POLLs itself (bounds::kPayoutWatchSilentPolls).
inline constexpr LinkUse kPayoutWatchPoll{.name = "Changer POLL in the payout watch",
                                          .waitBeforeReadSeconds = 0,
                                          .limit = completeBy(200),
                                          .attempts = 1,
                                          .ackAfterUnanswered = true,
                                          .pauseBeforeResendSeconds = 0,
                                          .whenExhausted = "counted by the watch"};
// What the changer says it paid in its last payout: 16 coin counts.
inline constexpr LinkUse kPayoutStatus{.name = "Changer EXPANSION payout status",
                                       .waitBeforeReadSeconds = 0,
                                       .limit = completeBy(200),
                                       .attempts = 3,
                                       .ackAfterUnanswered = true,
                                       .pauseBeforeResendSeconds = 0,
                                       .whenExhausted = "the tube counts tell instead"};

// --- A payment broken off by a run-time error: one reset each to turn acceptance off; a device
// that does not answer is left as it is (the next start initialises the equipment).
inline constexpr LinkUse kAbandonChangerReset{.name = "Changer RESET after an error",
                                              .waitBeforeReadSeconds = 0,
                                              .limit = completeBy(200),
                                              .attempts = 1,
                                              .ackAfterUnanswered = true,
                                              .pauseBeforeResendSeconds = 0,
                                              .whenExhausted = "left as it is"};
inline constexpr LinkUse kAbandonValidatorReset{.name = "Validator RESET after an error",
                                                .waitBeforeReadSeconds = 0,
                                                .limit = completeBy(50),
                                                .attempts = 1,
                                                .ackAfterUnanswered = true,
                                                .pauseBeforeResendSeconds = 0,
                                                .whenExhausted = "left as it is"};

}  // namespace kestrix::mdb::payment_use
