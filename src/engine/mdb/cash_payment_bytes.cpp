#include "cash_payment_bytes.h"

#include "../formulas.h"

namespace kestrix::mdb::payment {

std::string flagDigits(const Console& console, FieldName (*name)(int), int from, int to) {
    std::string digits;
    for (int n = from; n >= to; --n) {
        digits += console.value(name(n)) != 0 ? '1' : '0';
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

}  // namespace kestrix::mdb::payment
