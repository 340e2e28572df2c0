// A host that rewrites its requests every few milliseconds: the engine takes only what the host
// asked for, one request at a time, and serves the next clean request afterwards.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/kiosk.h"

namespace kestrix {
namespace {

using test::Kiosk;
using test::Till;
namespace mb = store::mailbox;
using namespace std::string_literals;

// The host's side: writes `values` to `key` in turn, one every 3 ms of virtual time.
class Rewriter {
public:
    Rewriter(Kiosk& k, std::string key, std::vector<std::string> values)
        : m_key(std::move(key)),
          m_values(std::move(values)),
          m_timer(k.kiosk().scheduler().createTimer("host rewrites " + m_key, 3, true, [this, &k] {
              k.hostWrite(m_key, m_values[m_next++ % m_values.size()]);
          })) {}
    void stop() { m_timer->setEnabled(false); }

private:
    std::string m_key;
    std::vector<std::string> m_values;
    std::size_t m_next = 0;
    std::unique_ptr<Timer> m_timer;
};

std::vector<double> paymentStarts(Kiosk& k, std::size_t from, std::string_view kind) {
    std::vector<double> amounts;
    const auto& rows = k.kiosk().journal().rows();
    for (std::size_t i = from; i < rows.size(); ++i) {
        if (rows[i].kind == journal_kind::kPaymentStart && rows[i].detail == kind) {
            amounts.push_back(rows[i].amount.toDouble());
        }
    }
    return amounts;
}

TEST(HostileHost, RequestsRewrittenEveryFewMillisecondsStartOnlyWhatWasAsked) {
    Kiosk k;
    ASSERT_TRUE(k.start());
    // Amounts that are no request: junk, control and full-width characters, a decimal comma,
    // too small, too large, beyond a double, or not a finite number.
    const std::vector<std::string> noise = {
        "abc"s,       "0"s,     "\0007"s,       "\u0665"s, ""s,          "-1"s,    "NaN"s,
        "0x10"s,      "\0335"s, "5,50"s,        "0.001"s,  "100000.01"s, "1e309"s, "4e-320"s,
        "-Infinity"s, "&H10"s,  "\uFF15\uFF10"s};

    // Nothing but noise in every request key: nothing starts.
    std::size_t from = k.kiosk().journal().rows().size();
    {
        Rewriter due(k, "Due", noise), card(k, "DueCC", noise), change(k, "Change", noise);
        k.runFor(20);
    }
    // And each value held for a poll of the monitor: refused, and left as it is.
    for (const std::string& value : noise) {
        for (const char* key : {"Due", "DueCC", "Change"}) {
            k.hostWrite(key, value);
        }
        k.runFor(0.6);
        EXPECT_EQ(k.mailbox(mb::kDue), value);
    }
    EXPECT_TRUE(paymentStarts(k, from, "cash").empty());
    EXPECT_TRUE(paymentStarts(k, from, "change").empty());
    EXPECT_EQ(k.kiosk().pinPad().salesRun(), 0);

    // Two amounts among the noise: one payment, of one of them, however often the host
    // rewrites the key while it runs; the customer pays it with a coin of 10.
    from = k.kiosk().journal().rows().size();
    Till before = k.till();
    {
        std::vector<std::string> asked = noise;
        asked.insert(asked.begin() + 3, {"5", "7"});
        Rewriter due(k, "Due", asked);
        ASSERT_TRUE(k.runUntil([&] { return k.paymentRunning(); }, 30));
        k.runFor(5);
        ASSERT_TRUE(k.insertCoin(5));
        ASSERT_TRUE(k.runUntil([&] { return !k.paymentRunning(); }, 60));
        due.stop();
        k.hostWrite(mb::kDue, "0");
        ASSERT_TRUE(k.runUntilIdle(60));
    }
    std::vector<double> started = paymentStarts(k, from, "cash");
    ASSERT_EQ(started.size(), 1U);
    EXPECT_TRUE(started[0] == 5 || started[0] == 7) << started[0];
    EXPECT_EQ(k.mailbox(mb::kStatus), "Payment Completed");
    test::expectBooksBalance(k, before, started[0], 10 - started[0]);

    // A cancel the host writes and takes back every few milliseconds ends the payment once,
    // paying back or keeping the credit as the value the engine read says.
    before = k.till();
    from = k.kiosk().journal().rows().size();
    ASSERT_TRUE(k.requestPayment("50"));
    ASSERT_TRUE(k.insertBill(1));
    {
        Rewriter cancel(k, "Cancel", {"1", "", "x", "", "2", ""});
        ASSERT_TRUE(k.runUntil([&] { return !k.paymentRunning(); }, 60));
        cancel.stop();
    }
    k.hostWrite(mb::kCancel, "");
    ASSERT_TRUE(k.runUntilIdle(60));
    EXPECT_EQ(k.mailbox(mb::kStatus), "Transaction Cancelled");
    const double back = leadingNumber(k.mailbox(mb::kChangeDispensed));
    EXPECT_TRUE(back == 0 || back == 20) << back;
    test::expectBooksBalance(k, before, 20 - back, back);
    EXPECT_EQ(paymentStarts(k, from, "cash").size(), 1U);

    // The engine carries on with a clean request, up to a larger maximum when one is set.
    k.set(store::section::kSettings, "MaxAmount", "200000");
    ASSERT_TRUE(k.requestPayment("150000"));
}

}  // namespace
}  // namespace kestrix
