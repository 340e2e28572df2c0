#include "cash_payment_bytes.h"

#include "../formulas.h"

namespace kestrix::mdb::payment {

std::string flagDigits(const Console& console, std::string (*name)(int), int from, int to) {
    std::string digits;
    for (int n = from; n >= to; --n) {
        digits += std::to_string(console.value(name(n)));
    }
    return digits;
}

int baseTwo(std::string_view digits) {
    return static_cast<int>(leadingNumber(ConvertBaseNToDec(digits, 2)));
}

int checkByteOf(int command, const int (&data)[4]) {
    int sum = command;
    for (int b : data) {
        sum += b;
    }
    const std::string hex = ConvertDecToBaseN(sum, 16);
    const std::string lastTwo = hex.size() > 2 ? hex.substr(hex.size() - 2) : hex;
    return static_cast<int>(leadingNumber(ConvertBaseNToDec(lastTwo, 16)));
}

std::uint8_t wireByte(int value) {
    return static_cast<std::uint8_t>(static_cast<unsigned>(value) & 0xFFU);
}

std::string commandWords(std::uint8_t command, const int (&data)[4], int check) {
    std::string words = word(command, kModeAddress);
    for (int b : data) {
        words += word(wireByte(b), kModeData);
    }
    words += word(wireByte(check), kModeData);
    return words;
}

std::optional<std::string> firstByteBinary(const Reply& reply) {
    const std::string hex = reply.hex(1);
    if (hex.size() != 2) {
        return std::nullopt;
    }
    // Garbage on the line is no byte: it cannot be written in binary, and it is no coin or bill.
    const double value = hexValue(hex);
    if (value < 0 || value > 255) {
        return std::nullopt;
    }
    return ConvertDecToBaseN(value, 2);
}

std::optional<int> depositedCoinType(const Reply& reply) {
    std::optional<std::string> digits = firstByteBinary(reply);
    if (!digits) {
        return std::nullopt;
    }
    if (digits->size() == 7) {
        *digits = "0" + *digits;
    }
    // 01yyxxxx: coin deposited, routing yy, MDB coin type xxxx (console coin type xxxx + 1).
    const std::string routing = digits->size() >= 4 ? digits->substr(2, 2) : std::string();
    if (digits->starts_with("01") && (routing == "00" || routing == "01")) {
        return baseTwo(digits->substr(digits->size() - 4)) + 1;
    }
    return std::nullopt;
}

std::optional<int> stackedBillType(const Reply& reply) {
    const std::optional<std::string> digits = firstByteBinary(reply);
    // 1000xxxx: bill stacked, MDB bill type xxxx. The digits are taken as written, without
    // leading zeros, so the status byte 08h ("1000") must be kept out by name; only a full
    // eight-digit byte is a routing report, since 10h, 20h and 40h-47h ("10000", "100000",
    // "1000000"...) are statuses and counters that would otherwise read as stacked bills.
    if (!digits || digits->size() != 8 || !digits->starts_with("1000") || *digits == "1000") {
        return std::nullopt;
    }
    return baseTwo(digits->substr(digits->size() - 4)) + 1;
}

}  // namespace kestrix::mdb::payment
