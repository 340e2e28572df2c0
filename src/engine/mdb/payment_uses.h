#pragma once

#include <array>
#include <span>

#include "link.h"

// The link uses of the cash payment, its poll loop and the change payout, beside the
// initialisation's rows in link.h. A wait "limited to N reads" gives up when the count of reads
// passes N: completeBy(N).
namespace kestrix::mdb::payment_use {

// --- Start ---------------------------------------------------------------------------------------
// COIN TYPE: the one wait of the start without a read limit.
inline constexpr LinkUse kCoinType{.name = "Changer COIN TYPE",
                                   .waitBeforeReadSeconds = 0,
                                   .limit = kNoReadLimit,
                                   .attempts = 1,
                                   .ackAfterUnanswered = false,
                                   .pauseBeforeResendSeconds = 0,
                                   .whenExhausted = "none: waits until complete"};
inline constexpr LinkUse kDiagnosticStatus{.name = "Changer EXPANSION diagnostic status",
                                           .waitBeforeReadSeconds = 0.5,
                                           .limit = completeBy(200),
                                           .attempts = kWithoutEnd,
                                           .ackAfterUnanswered = true,
                                           .pauseBeforeResendSeconds = 0,
                                           .whenExhausted = "none: sent again"};
// Also refuses a reply that begins with "ff" (NAK).
inline constexpr LinkUse kBillType{.name = "Validator BILL TYPE",
                                   .waitBeforeReadSeconds = 0,
                                   .limit = completeBy(200),
                                   .attempts = kWithoutEnd,
                                   .ackAfterUnanswered = true,
                                   .pauseBeforeResendSeconds = 0,
                                   .whenExhausted = "none: sent again"};

// --- Stop ----------------------------------------------------------------------------------------
inline constexpr LinkUse kStopValidatorReset{.name = "Validator RESET at stop",
                                             .waitBeforeReadSeconds = 0,
                                             .limit = completeBy(50),
                                             .attempts = kWithoutEnd,
                                             .ackAfterUnanswered = true,
                                             .pauseBeforeResendSeconds = 0,
                                             .whenExhausted = "none: sent again"};
inline constexpr LinkUse kStopValidatorPoll{.name = "Validator POLL at stop",
                                            .waitBeforeReadSeconds = 0,
                                            .limit = completeBy(200),
                                            .attempts = kWithoutEnd,
                                            .ackAfterUnanswered = true,
                                            .pauseBeforeResendSeconds = 0,
                                            .whenExhausted = "none: sent again"};
inline constexpr LinkUse kStopChangerReset{.name = "Changer RESET at stop",
                                           .waitBeforeReadSeconds = 0,
                                           .limit = completeBy(200),
                                           .attempts = kWithoutEnd,
                                           .ackAfterUnanswered = true,
                                           .pauseBeforeResendSeconds = 0,
                                           .whenExhausted = "none: sent again"};
inline constexpr LinkUse kStopTubeStatus{.name = "Changer TUBE STATUS at stop",
                                         .waitBeforeReadSeconds = 0.5,
                                         .limit = completeBy(200),
                                         .attempts = kWithoutEnd,
                                         .ackAfterUnanswered = true,
                                         .pauseBeforeResendSeconds = 0.1,
                                         .whenExhausted = "none: sent again"};

// --- Poll tick -----------------------------------------------------------------------------------
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

// --- Completion ----------------------------------------------------------------------------------
// Three RESETs; after the third unanswered one the rest of the validator step is skipped.
inline constexpr LinkUse kEndValidatorReset{.name = "Validator RESET at completion",
                                            .waitBeforeReadSeconds = 0,
                                            .limit = completeBy(50),
                                            .attempts = 3,
                                            .ackAfterUnanswered = true,
                                            .pauseBeforeResendSeconds = 0.1,
                                            .whenExhausted = "the validator step is skipped"};
inline constexpr LinkUse kEndValidatorPoll{.name = "Validator POLL at completion",
                                           .waitBeforeReadSeconds = 0,
                                           .limit = kNoReadLimit,
                                           .attempts = 1,
                                           .ackAfterUnanswered = false,
                                           .pauseBeforeResendSeconds = 0,
                                           .whenExhausted = "none: waits until complete"};
inline constexpr LinkUse kEndChangerReset{.name = "Changer RESET at completion",
                                          .waitBeforeReadSeconds = 0,
                                          .limit = kNoReadLimit,
                                          .attempts = 1,
                                          .ackAfterUnanswered = false,
                                          .pauseBeforeResendSeconds = 0,
                                          .whenExhausted = "none: waits until complete"};
inline constexpr LinkUse kEndTubeStatus{
    .name = "Changer TUBE STATUS at completion",
    .waitBeforeReadSeconds = 0.5,
    .limit = completeBy(200),
    .attempts = 1,
    .ackAfterUnanswered = true,
    .pauseBeforeResendSeconds = 0,
    .whenExhausted = "stops asking: the counts are read from what came"};

// --- Change payout -------------------------------------------------------------------------------
// The payout command paces itself (0.1 s after the 02 word and after the check word).
inline constexpr LinkUse kPayout{.name = "Changer EXPANSION payout",
                                 .waitBeforeReadSeconds = 0,
                                 .limit = completeBy(200),
                                 .attempts = kWithoutEnd,
                                 .ackAfterUnanswered = true,
                                 .pauseBeforeResendSeconds = 0,
                                 .whenExhausted = "none: sent again"};
inline constexpr LinkUse kPayoutWatchPoll{.name = "Changer POLL in the payout watch",
                                          .waitBeforeReadSeconds = 0,
                                          .limit = completeBy(200),
                                          .attempts = kWithoutEnd,
                                          .ackAfterUnanswered = true,
                                          .pauseBeforeResendSeconds = 0,
                                          .whenExhausted = "none: polled again"};
inline constexpr LinkUse kPayoutTubeStatus{.name = "Changer TUBE STATUS after a payout",
                                           .waitBeforeReadSeconds = 0.5,
                                           .limit = completeBy(200),
                                           .attempts = kWithoutEnd,
                                           .ackAfterUnanswered = true,
                                           .pauseBeforeResendSeconds = 0.1,
                                           .whenExhausted = "none: sent again"};

// --- A payment broken off by a run-time error
// ----------------------------------------------------- One reset each to turn acceptance off; a
// device that does not answer is left as it is (the next start initialises the equipment).
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

inline std::span<const LinkUse> table() {
    static constexpr std::array<LinkUse, 18> kTable = {
        kCoinType,
        kDiagnosticStatus,
        kBillType,
        kStopValidatorReset,
        kStopValidatorPoll,
        kStopChangerReset,
        kStopTubeStatus,
        kTickChangerPoll,
        kTickValidatorPoll,
        kEndValidatorReset,
        kEndValidatorPoll,
        kEndChangerReset,
        kEndTubeStatus,
        kPayout,
        kPayoutWatchPoll,
        kPayoutTubeStatus,
        kAbandonChangerReset,
        kAbandonValidatorReset,
    };
    return kTable;
}

}  // namespace kestrix::mdb::payment_use
