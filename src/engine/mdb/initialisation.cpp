// The coin changer's and the bill validator's part of equipment initialisation: RESET, the
// first POLL, SETUP, identification and (for the changer) the tube status, each shown on the
// console and published.

#include "initialisation.h"

#include <string>

#include "../errors.h"
#include "../formulas.h"
#include "../settings/layout.h"
#include "../setup.h"
#include "link.h"
#include "tubes.h"

namespace kestrix::mdb {

namespace {

// Hexadecimal text as decimal text; "" when there are no digits.
std::string decimalOf(const std::string& hexText) {
    return hexText.empty() ? std::string() : ConvertBaseNToDec(hexText, 16);
}

// A coin credit in money: the changer reports coin values in units of its scaling factor.
Money coinMoney(double credit, double scalingFactor) {
    if (scalingFactor == 0) {
        throw KsxError(KsxError::kDivisionByZero, "Division by zero");
    }
    return Money::fromDouble(credit / scalingFactor).value_or(Money());
}

// A byte as eight binary digits (more for a garbled byte that reads above 255).
std::string binaryByte(double value) {
    std::string digits = ConvertDecToBaseN(value, 2);
    if (digits.size() < 8) {
        digits.insert(0, 8 - digits.size(), '0');
    }
    return digits;
}

// --- Coin changer ------------------------------------------------------------------------------

void fillChangerSetup(Setup& s, const Reply& r) {
    Console& c = s.console();
    EngineState& st = s.state();
    c.setText("caFeatureLevel", r.hex(1));
    c.setText("caCountryCode", r.hexJoined(2, 3));
    c.setText("caScalingFactor", r.decimal(4));
    c.setText("caDecimal", r.decimal(5));
    const double scaling = leadingNumber(c.text("caScalingFactor"));
    for (int i = 1; i <= kCoinTypes; ++i) {
        // Credits are bytes 8 to 23; dividing by the scaling factor gives the money value.
        const Money value = coinMoney(r.number(7 + i), scaling);
        c.setText(Console::ctValue(i), value.text());
        st.coinValue[static_cast<std::size_t>(i)] = value;
    }

    // Tube slots: bytes 6 and 7 are the coin type routing (bit n set: MDB coin type n can go to a
    // tube). The routed coin types take the five slots in order.
    const std::string mask = binaryByte(r.number(6)) + binaryByte(r.number(7));
    st.tubeSlotCoin.fill(Money());
    int slot = 0;
    for (int type = 1; type <= kCoinTypes && slot < kTubeSlots; ++type) {
        const std::size_t fromRight = static_cast<std::size_t>(type);
        if (fromRight <= mask.size() && mask[mask.size() - fromRight] == '1') {
            ++slot;
            st.tubeSlotCoin[static_cast<std::size_t>(slot)] =
                st.coinValue[static_cast<std::size_t>(type)];
        }
    }
    for (int n = 1; n <= kTubeSlots; ++n) {
        const std::string value = st.tubeSlotCoin[static_cast<std::size_t>(n)].text();
        c.setText(Console::tubeCoinType(n), value);
        s.saveSetting(store::section::kCoinAcceptor, store::key::tubeCoinType(n), value);
    }
}

// What the tubes hold, in the journal: where the totals' tube money starts from.
void journalTubeLevels(Setup& s, const TubeCounts& counts) {
    const EngineState& st = s.state();
    JournalEntry levels{.kind = journal_kind::kTubeLevels, .device = "changer"};
    levels.amount = tubeMoney(s, counts);
    for (std::size_t k = 1; k <= kCoinTypes; ++k) {
        if (st.coinValue[k].positive() && counts[k] > 0) {
            levels.detail += (levels.detail.empty() ? "" : " ") + st.coinValue[k].text() + "x" +
                             std::to_string(counts[k]);
        }
    }
    s.platform().journal.append(levels);
}

}  // namespace

bool initChanger(Setup& s) {
    MdbLink& link = s.link();
    Console& c = s.console();

    const Exchange reset =
        link.exchange(Command::whole(frames::changerReset()), use::kChangerReset);
    if (!reset.answered) {
        return false;
    }
    link.acknowledge(reset.reply);
    link.settle();
    // The changer's "I was reset" report is taken at once, so it never stands in front of a
    // coin in a later reply.
    const Exchange poll =
        link.exchange(Command::whole(frames::changerPoll()), payment_use::kChangerPollAfterReset);
    if (poll.answered && poll.reply.message() && !poll.reply.isBareAck()) {
        link.sendAck();
    }

    // The commands after the RESET are trusted to be answered, within their attempts: a changer
    // that answers its RESET and then nothing is absent all the same.
    const Exchange setup =
        link.exchange(Command::whole(frames::changerSetup()), use::kChangerSetup, readable);
    if (!setup.answered) {
        return false;
    }
    link.acknowledge(setup.reply);
    fillChangerSetup(s, setup.reply.data());

    const Exchange id =
        link.exchange(commands::changerIdentification(), use::kChangerIdentification, readable);
    if (!id.answered) {
        return false;
    }
    link.acknowledge(id.reply);
    const Reply idData = id.reply.data(true);
    c.setText("caManufacturer", idData.characters(1, 3));
    c.setText("caSerialNumber", idData.characters(4, 15));
    c.setText("caModelNumber", idData.characters(16, 27));

    // Right after a reset the changer may answer TUBE STATUS with a bare acknowledgement: ask
    // again until the counts come.
    const std::optional<TubeCounts> tubes = readTubeStatus(s, use::kChangerTubeStatus);
    if (!tubes) {
        return false;
    }
    publishTubes(s, *tubes);
    journalTubeLevels(s, *tubes);
    return true;
}

// --- Bill validator ----------------------------------------------------------------------------

bool initValidator(Setup& s) {
    MdbLink& link = s.link();
    Console& c = s.console();

    const Exchange reset = link.exchange(commands::validatorReset(), use::kValidatorReset);
    if (!reset.answered) {
        return false;
    }
    link.acknowledge(reset.reply);
    c.BlinkTx();
    link.settle();

    // The first poll collects the validator's report that it has just been reset; it is
    // acknowledged whatever it holds.
    if (!link.exchange(commands::validatorPoll(), use::kValidatorPoll).answered) {
        return false;
    }
    link.sendAck();
    c.BlinkTx();
    link.settle();

    const Exchange setup =
        link.exchange(commands::validatorSetup(), use::kValidatorSetup, readable);
    if (!setup.answered) {
        return false;
    }
    link.acknowledge(setup.reply);
    c.BlinkTx();
    link.settle();
    const Reply r = setup.reply.data();
    c.setText("bvFeatureLevel", r.hex(1));
    c.setText("bvCountryCode", r.hexJoined(2, 3));
    c.setText("bvScalingFactor", decimalOf(r.hexJoined(4, 5)));
    c.setText("bvDecimalPlaces", r.decimal(6));
    c.setText("bvStackerCapacity", decimalOf(r.hexJoined(7, 8)));
    // A validator sends its security levels in bytes 9 and 10 and its escrow flag in byte 11;
    // these fields are read one byte early (overlapping the stacker capacity), which is what
    // operators and hosts have always been shown, so the readings stay as they are.
    c.setText("bvSecurityLevels", r.hexJoined(8, 9) + "H");
    c.setText("bvEscrowCapability", r.hex(10) == "ff" ? "YES" : "NO");

    const Exchange id =
        link.exchange(commands::validatorIdentification(), use::kValidatorIdentification, readable);
    if (!id.answered) {
        return false;
    }
    link.acknowledge(id.reply);
    c.BlinkTx();
    link.settle();
    const Reply idData = id.reply.data(true);
    c.setText("bvManufacturer", idData.characters(1, 3));
    c.setText("bvSerialNumber", idData.characters(4, 15));
    c.setText("bvModelNumber", idData.characters(16, 27));
    c.setText("bvSoftwareVersion", idData.decimal(28) + idData.decimal(29) + idData.decimal(30));
    return true;
}

}  // namespace kestrix::mdb
