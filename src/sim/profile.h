#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrix::sim {

// The default simulated kiosk (the "default" profile):
//
// Coin changer (MDB 08h): level 3, country code 1484, scaling factor 2, decimal places 1.
//   MDB coin types 0-4 (console coin types 1-5) with credits 1, 2, 4, 10, 20, which this
//   engine reads as the values 0.5, 1, 2, 5 and 10 (credit divided by the scaling factor).
//   All five are routed to tubes; the tubes start with 40, 40, 30, 20 and 10 coins and hold
//   100 coins each (a coin for a full tube goes to the cash box). Pays about 2 coins a second.
// Bill validator (MDB 30h): level 1, country code 1484, scaling factor 100, decimal places 1,
//   escrow capable, stacker for 500 bills, manufacturer "KSX". Bill types 0-4 (console bill
//   types 1-5) with credits 2, 5, 10, 20, 50, that is the bills 20, 50, 100, 200 and 500.
// Bill dispenser: one cassette with 100 bills of 50, "low" under 10 bills.
// Hoppers (ccTalk addresses 3 and 4, echo on): 200 coins each, security mode "serial".
//   The kiosk configuration puts coins of 1 in hopper 1 and of 5 in hopper 2.

struct ChangerProfile {
    int level = 3;
    std::uint16_t countryCode = 0x1484;  // BCD
    int scalingFactor = 2;
    int decimalPlaces = 1;
    std::array<int, 16> coinCredits{1, 2, 4, 10, 20};
    std::uint16_t tubeRouting = 0x001F;  // bit n: coin type n goes to a tube
    std::array<int, 16> tubeStart{40, 40, 30, 20, 10};
    int tubeCapacity = 100;
    std::string manufacturer = "KSX";
    std::string serialNumber = "000000010001";
    std::string modelNumber = "KSX-CHG-5T";
    std::uint16_t softwareVersion = 0x0142;  // BCD
    // Option bits of the identification: alternative payout and extended diagnostics.
    std::uint32_t options = 0x00000003;
    double payoutSecondsPerCoin = 0.5;
    double coinValidationSeconds = 0.3;  // slot to tube or cash box
    double coinCycleSeconds = 0.6;       // a coin right behind another waits this long
};

struct ValidatorProfile {
    int level = 1;
    std::uint16_t countryCode = 0x1484;
    int scalingFactor = 100;
    int decimalPlaces = 1;
    int stackerCapacity = 500;
    std::uint16_t securityLevels = 0x0000;
    bool escrow = true;
    std::array<int, 16> billCredits{2, 5, 10, 20, 50};
    std::string manufacturer = "KSX";
    std::string serialNumber = "000000020001";
    std::string modelNumber = "KSX-BV-5";
    std::uint16_t softwareVersion = 0x0210;
    double billValidationSeconds = 1.0;  // insertion to stacked
    double billCycleSeconds = 2.5;       // a bill right behind another waits this long
};

struct DispenserProfile {
    int bills = 100;
    int lowBelow = 10;
    int billValue = 50;
    int setupSeconds = 2;
    double dispenseSeconds = 2.5;
    double slowDispenseSeconds = 4.5;  // the "slow" fault: the answer comes after the first read
    std::uint16_t version = 0x0215;
};

struct HopperProfile {
    int address = 3;
    int coins = 200;
    std::string mode = "serial";  // "serial", "zeros8" or "noencrypt8"
    std::uint32_t serialNumber = 0x05464E;
    double secondsPerCoin = 0.25;
    double emptyTimeoutSeconds = 2.0;  // motor runs this long without a coin before giving up
    int lowLevel = 20;                 // "below low level" under this many coins
    int highLevel = 400;
};

struct KioskProfile {
    std::string name = "default";
    ChangerProfile changer;
    ValidatorProfile validator;
    DispenserProfile dispenser;
    HopperProfile hopper1;
    HopperProfile hopper2;
    bool hopperEcho = true;
    // Coin values the kiosk configuration gives the two hoppers.
    double hopper1CoinValue = 1;
    double hopper2CoinValue = 5;
};

KioskProfile defaultProfile();
// "default", "ccd" (the validator identifies as "CCD"), "no-echo" (a hoppers interface that
// does not echo), "zeros8" and "noencrypt8" (hoppers of those security modes).
std::optional<KioskProfile> profileNamed(std::string_view name);
std::vector<std::string> profileNames();

}  // namespace kestrix::sim
