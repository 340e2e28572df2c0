#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "../console.h"
#include "link.h"

// Byte arithmetic of the cash payment, done the way the console has always done it: enable masks
// written as binary digits from the check boxes, check bytes through hexadecimal text, and reply
// bytes read through their binary digits.
namespace kestrix::mdb::payment {

// The check box values of a family from `from` down to `to`, as digits ("0"/"1" each): the
// first box named is the most significant bit.
std::string flagDigits(const Console& console, std::string (*name)(int), int from, int to);

// Binary digit text as a number.
int baseTwo(std::string_view digits);

// The check byte of a command: the command byte plus its data bytes written in hexadecimal, the
// last two digits read back (the sum modulo 256).
int checkByteOf(int command, const int (&data)[4]);

// A number as the byte that goes on the wire (only the low eight bits can).
std::uint8_t wireByte(int value);

// The address word, then each data byte and the check byte as their own words.
std::string commandWords(std::uint8_t command, const int (&data)[4], int check);

// The first byte of a reply in binary digits, without leading zeros ("1000000" for 40h); none when
// the reply has no first byte or its characters are not a byte.
std::optional<std::string> firstByteBinary(const Reply& reply);

// The coin type (1..16) a changer POLL reply's first byte deposits: routing 00 (cash box) or
// 01 (tube). None for anything else.
std::optional<int> depositedCoinType(const Reply& reply);

// The bill type (1..16) a validator POLL reply's first byte reports stacked (80h..8Fh).
std::optional<int> stackedBillType(const Reply& reply);

}  // namespace kestrix::mdb::payment
