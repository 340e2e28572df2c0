#pragma once

// How each use of the MDB link waits for its reply: one row per use, never bare numbers in the
// routine. A new use gets a new row.
//
// A row reads {wait, read limit, attempts, ACK after an unanswered attempt, pause before a
// resend}: the wait (seconds) comes between the command and its first read; the read limit bounds
// each attempt; after an unanswered attempt the link sends ACK (if the row says so), pauses and
// sends again, up to the attempts. The comment after each row says what the routine does when
// every attempt went unanswered. A wait "limited to N reads" gives up when the count of reads
// passes N: completeBy(N).
namespace kestrix::mdb {

// How many reads a reply may take. The reply must be complete by read `completeBy`; the next read
// ends the wait, whatever it brings (its bytes go with the unfinished reply). A use "limited to
// N reads" whose count must pass N therefore uses completeBy(N) and makes N + 1 reads when
// nothing comes; a use that makes at most N reads uses completeBy(N - 1). Each read waits at
// most the port's read quantum when nothing has arrived, so 500 silent reads last about a
// second.
struct ReadLimit {
    long long completeBy = 0;  // 0: no limit, the wait lasts until the reply is complete
    constexpr bool bounded() const { return completeBy > 0; }
    constexpr long long readsWhenUnanswered() const { return completeBy + 1; }
};
inline constexpr ReadLimit kNoReadLimit{0};
constexpr ReadLimit completeBy(long long reads) {
    return ReadLimit{reads};
}

// One use of the link: how a command is waited for, and what happens when it is not answered.
struct LinkUse {
    double waitBeforeReadSeconds;  // Pause between the command and its first read
    ReadLimit limit;               // reads per attempt
    int attempts;                  // sends before giving up
    bool ackAfterUnanswered;       // ACK after each unanswered attempt
    double pauseBeforeResendSeconds;
};

// The settle pause after an acknowledged exchange.
inline constexpr double kSettleSeconds = 0.1;
// The validator's commands at initialisation and in recovery that give up: the first try and
// 300 more.
inline constexpr int kValidatorAttempts = 301;
// Sends of a command that the device is trusted to answer (it has just answered another) before
// it counts as failed: no command is sent again without end.
inline constexpr int kDeviceAttempts = 10;

namespace use {
// Equipment initialisation. The first command to each peripheral proves that it is there and is
// limited; the commands after it are trusted to be answered within their attempts. The
// validator's rows make 50 reads an attempt: complete by the 49th, the 50th ends the attempt.
// When attempts run out, the device is declared absent.
inline constexpr LinkUse kChangerReset{0, completeBy(500), 1, false, 0};
inline constexpr LinkUse kChangerSetup{0, completeBy(500), kDeviceAttempts, true, 0};
inline constexpr LinkUse kChangerIdentification{0, completeBy(500), kDeviceAttempts, true, 0};
inline constexpr LinkUse kChangerTubeStatus{0.5, completeBy(500), kDeviceAttempts, true, 0};
inline constexpr LinkUse kValidatorReset{0.5, completeBy(49), kValidatorAttempts, true, 0};
inline constexpr LinkUse kValidatorPoll{0.5, completeBy(49), kValidatorAttempts, true, 0};
inline constexpr LinkUse kValidatorSetup{0.5, completeBy(49), kValidatorAttempts, true, 0};
inline constexpr LinkUse kValidatorIdentification{0.5, completeBy(49), kValidatorAttempts, true, 0};

// Bill validator recovery during a payment: each stage has its own attempts; the BILL TYPE makes
// 200 reads an attempt. When attempts run out, the recovery gives up and the equipment needs
// initialising.
inline constexpr LinkUse kRecoveryReset{0.5, completeBy(49), kValidatorAttempts, true, 0};
inline constexpr LinkUse kRecoveryPoll{0.5, completeBy(49), kValidatorAttempts, true, 0};
inline constexpr LinkUse kRecoveryBillType{0, completeBy(199), kValidatorAttempts, true, 0};

// Exit. Every device gets a few tries, then the process ends all the same: an engine that
// cannot end holds the kiosk's ports and ignores the service manager. When attempts run out, the
// device is left as it is.
inline constexpr LinkUse kExitChangerReset{0, completeBy(200), 5, true, 0};
inline constexpr LinkUse kExitValidatorReset{0, completeBy(200), 5, true, 0};
inline constexpr LinkUse kExitValidatorPoll{0, completeBy(200), 3, true, 0};
}  // namespace use

// The cash payment, its poll loop and the change payout. No use sends without end.
namespace payment_use {
// A command the peripheral is trusted to answer: kDeviceAttempts sends of 200 reads, ACK after
// each unanswered one.
constexpr LinkUse trusted(double waitSeconds = 0, double resendSeconds = 0) {
    return LinkUse{waitSeconds, completeBy(200), kDeviceAttempts, true, resendSeconds};
}

// Start. When attempts run out, the payment does not start ("Error: Coin Acceptor" or
// "Error: Bill Validator").
inline constexpr LinkUse kCoinType = trusted();
inline constexpr LinkUse kDiagnosticStatus = trusted(0.5);
inline constexpr LinkUse kBillType = trusted();  // also refuses a reply beginning "ff" (NAK)

// Settling before a reset: acceptance off, then POLL until quiet. When attempts run out, the
// device is left out of the settling (a silent POLL also reports it failed).
inline constexpr LinkUse kDisableCoinTypes = trusted();
inline constexpr LinkUse kDisableBillTypes = trusted();
inline constexpr LinkUse kSettleChangerPoll{0, completeBy(200), 3, false, 0};
inline constexpr LinkUse kSettleValidatorPoll{0.1, completeBy(200), 3, false, 0};

// Stop (a cancel) and completion: the devices are reset after settling.
// Validator RESET at stop; when attempts run out, the validator is reported failed.
inline constexpr LinkUse kStopValidatorReset{0, completeBy(50), kDeviceAttempts, true, 0};
inline constexpr LinkUse kValidatorPollAfterReset = trusted();  // nothing more
inline constexpr LinkUse kChangerReset = trusted();             // changer failed
// Takes the changer's "I was reset" report, so that it never stands in front of a coin in a
// later reply.
inline constexpr LinkUse kChangerPollAfterReset{0, completeBy(200), 3, false, 0};  // next POLL
inline constexpr LinkUse kTubeStatus = trusted(0.5, 0.1);                          // changer failed
inline constexpr LinkUse kEndValidatorReset{0, completeBy(50), 3, true, 0.1};      // step skipped

// Poll tick. The tick paces the validator's POLL itself (0.1 s before it, and 0.1 s after it
// unless "CCD").
inline constexpr LinkUse kTickChangerPoll{0, completeBy(200), 1, false, 0};  // payment ends
// Unanswered: a "CCD" validator is polled again, any other is recovered.
inline constexpr LinkUse kTickValidatorPoll{0, completeBy(500), 1, false, 0};

// Change payout. The payout command paces itself (0.1 s after the 02 word and after the check
// word); the payout watch counts unanswered POLLs itself (bounds::kPayoutWatchSilentPolls).
inline constexpr LinkUse kPayout = trusted();                               // changer failed
inline constexpr LinkUse kPayoutWatchPoll{0, completeBy(200), 1, true, 0};  // counted by the watch
// What the changer says it paid in its last payout: 16 coin counts.
inline constexpr LinkUse kPayoutStatus{0, completeBy(200), 3, true, 0};  // tube counts tell

// A payment broken off by a run-time error: one reset each to turn acceptance off. When it goes
// unanswered, the device is left as it is (the next start initialises the equipment).
inline constexpr LinkUse kAbandonChangerReset{0, completeBy(200), 1, true, 0};
inline constexpr LinkUse kAbandonValidatorReset{0, completeBy(50), 1, true, 0};
}  // namespace payment_use

}  // namespace kestrix::mdb
