#pragma once

#include <string>
#include <string_view>

namespace kestrix {

class Setup;

namespace mdb {
class Reply;
}

// The cash payment on the MDB coin changer and bill validator: the start/stop routine behind
// the `enablePayment` button, the poll tick that credits coins and bills and completes the
// payment, the change payout (bill dispenser, changer tubes, hoppers) and the bill validator's
// recovery in the middle of a payment.
//
// Everything runs on the engine thread and, apart from the change payout's wait for the coin
// changer, without yielding: a start, a stop or a tick runs to its end before anything else.
class CashPayment {
public:
    explicit CashPayment(Setup& setup);

    // Starts a payment for the amount in `due`, or stops the running one.
    void enablePayment_Click();
    // One poll of both devices while a payment runs.
    void pollTimer_Timer();
    // Pays `amount` back from the bill dispenser, the tubes and the hoppers, in that order, and
    // lowers it by what was paid: the caller's variable ends holding what could not be paid.
    void DispenseChange(double& amount);
    // One tick of the watch on the coin changer's payout.
    void changeTimer_Timer();
    // Brings the bill validator back without a full initialisation; sets bvNeedsInit on failure.
    void bvRecovery();

    // The largest payout one command asks for, in coin units; more is split into several.
    static constexpr int kMaxPayoutUnits = 200;
    // A second stacked report within this time of the last credited bill is not credited.
    static constexpr double kBillRepeatGuardSeconds = 2.0;

private:
    void startPayment();
    void stopPayment();
    void completePayment();
    void enableCoinTypes();
    void enableBillTypes();
    // Check boxes and bill values from the stored settings, and the BILL TYPE data bytes.
    void loadBillTypes();
    void payOutFromTubes(int units);
    void takeTubeStatus(const mdb::Reply& reply);
    void readTubesAfterPayout();
    // False when the changer did not answer (the payment must complete with an error).
    bool pollChanger();
    // False when the validator could not be brought back.
    bool pollValidator();
    // Ends a payment that a run-time error broke off, without talking to the devices; shows
    // `statusText` unless it is empty.
    void abandonPayment(std::string_view statusText);
    void setStatus(std::string_view text);

    Setup& m_setup;
    // Which device the tick was talking to, for the tick's error trap.
    bool m_talkingToChanger = false;
};

}  // namespace kestrix
