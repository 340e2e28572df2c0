#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "../money.h"
#include "../platform/scheduler.h"
#include "poll_events.h"
#include "tubes.h"

namespace kestrix {

class Setup;

namespace mdb {
class Reply;
struct LinkUse;
}  // namespace mdb

// The cash payment on the MDB coin changer and bill validator: the start/stop routine behind
// the `enablePayment` button, the poll tick that credits coins and bills and completes the
// payment, the change payout (bill dispenser, changer tubes, hoppers) and the bill validator's
// recovery in the middle of a payment.
//
// The books always balance: every coin and bill a device reports is credited (every event of a
// POLL reply is read); before any reset that ends acceptance the devices are told to accept
// nothing more and are polled until quiet; what is paid back is counted from what the devices
// report, and no device is asked for more than is still owed. Every wait has a bound
// (bounds.h and the use tables).
//
// Everything runs on the engine thread and, apart from the change payout's wait for the coin
// changer, without yielding: a start, a stop or a tick runs to its end before anything else.
class CashPayment {
public:
    explicit CashPayment(Setup& setup);

    // Starts a payment for the amount in `due`, or stops the running one. `requester` ("host"
    // or "operator") is recorded in the journal.
    void enablePayment_Click(std::string_view requester = "operator");
    // One poll of both devices while a payment runs, every kPollIntervalMs.
    void pollTimer_Timer();
    static constexpr int kPollIntervalMs = 200;
    Timer& pollTimer() { return *m_pollTimer; }
    // Pays `amount` back from the bill dispenser, the tubes and the hoppers, in that order, and
    // returns what actually left the kiosk (never more than `amount`). "ChangeDispensed" shows
    // it; what no source could pay is journalled as unpaid.
    Money DispenseChange(Money amount);
    // A payout asked for outside a payment (the host's "Change"), journalled as its own payment.
    void payChange(Money amount, std::string_view requester);
    // One tick of the watch on the coin changer's payout, every kPayoutWatchIntervalMs.
    void changeTimer_Timer();
    static constexpr int kPayoutWatchIntervalMs = 200;
    Timer& changeTimer() { return *m_changeTimer; }
    // Brings the bill validator back without a full initialisation; sets bvNeedsInit on failure.
    void bvRecovery();

    // Before equipment initialisation resets a device that failed: reads what the changer and
    // the validator still report, so that money they took in meanwhile is credited or recorded.
    void collectReports();

    // Exit: a payment still running ends as a cancel that pays the credit back.
    void endForExit();
    // After an internal error: acceptance off, the payment ended with its credit still published
    // (the host settles it), "KSX_Error" "1".
    void abandonAfterInternalError();

    // The largest payout one command asks for, in coin units; more is split into several.
    static constexpr int kMaxPayoutUnits = 200;
    // A second stacked report within this time of the payment's last credited bill is not
    // credited: a bill reported twice.
    static constexpr double kBillRepeatGuardSeconds = 2.0;

private:
    enum class Poll { Quiet, Active, Unreadable, Silent };
    enum class ValidatorTick { Ok, Failed, GaveWayToCancel };
    enum class Watch { Done, Silent, TooLong, Interrupted };
    struct TubePayout {
        Money asked;
        Money paid;
        bool known = true;
        bool changerFailed = false;
    };

    void startPayment(Money due, std::string_view requester);
    void stopPayment();
    void completePayment();
    // Ends a payment that a run-time error broke off; shows `statusText` unless it is empty.
    void abandonPayment(std::string_view statusText);
    bool enableCoinTypes();
    bool enableBillTypes();
    // Check boxes and bill values from the stored settings; returns the BILL TYPE command's words.
    std::string loadBillTypes();

    // Acceptance off on both devices, then POLL until neither reports anything for a while,
    // crediting what comes: a RESET after this drops nothing.
    void settleAcceptance();
    // Resets after settling: the validator (RESET, then its first POLL), the changer (RESET, its
    // first POLL, the tube status).
    void resetValidator(const mdb::LinkUse& resetUse, bool ccdPause);
    void resetChangerAndReadTubes();

    Poll pollChanger(const mdb::LinkUse& use);
    // The tick's validator POLL, with recovery when it does not answer.
    ValidatorTick pollValidatorInTick();
    Poll pollValidator(const mdb::LinkUse& use);
    void creditChanger(const std::vector<mdb::ChangerEvent>& events);
    void creditValidator(const std::vector<mdb::ValidatorEvent>& events);
    void publishCredit();

    bool changerUsable() const;
    // Pays from the tubes; `unknown` collects what was asked of a changer that gave no account.
    Money payFromTubes(Money owed, Money& unknown);
    TubePayout payOnce(int units, const mdb::TubeCounts& before);
    Watch payOutFromTubes(int units);
    std::optional<mdb::TubeCounts> payoutStatus();
    void endWatch(Watch outcome);

    bool cancelRequested();
    void setStatus(std::string_view text);
    void beginPaymentRecord(std::string_view kind, Money amount, std::string_view requester);
    void endPaymentRecord(std::string_view status, Money change, Money unpaid);
    void reportVanishedPorts();
    // The port of an enabled device has closed (it went, and has not been opened again).
    bool enabledPortClosed();

    Setup& m_setup;
    // Which device the tick was talking to, for the tick's error trap.
    bool m_talkingToChanger = false;
    // Changer POLL replies in a row that could not be read.
    int m_unreadablePolls = 0;
    // The payout watch.
    double m_watchStartedAt = 0;
    double m_watchBoundSeconds = 0;
    int m_watchSilentPolls = 0;
    Watch m_watchOutcome = Watch::Done;
    // What the last DispenseChange asked of devices that gave no account of it.
    Money m_lastUnknown;
    std::unique_ptr<Timer> m_pollTimer;
    std::unique_ptr<Timer> m_changeTimer;
};

}  // namespace kestrix
