#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "../console.h"
#include "frame.h"

// Byte arithmetic of the cash payment, done the way the console has always done it: enable masks
// written as binary digits from the check boxes, check bytes through hexadecimal text, and reply
// bytes read through their binary digits.
namespace kestrix::mdb::payment {

// The check box values of a family from `from` down to `to`, as binary digits: the first box
// named is the most significant bit. A box is one bit whatever its state: a grey box (value 2)
// is set, and never carries into the next bit.
std::string flagDigits(const Console& console, FieldName (*name)(int), int from, int to);

// Binary digit text as a number.
int baseTwo(std::string_view digits);

// The check byte of a command: the command byte plus its data bytes written in hexadecimal, the
// last two digits read back (the sum modulo 256).
int checkByteOf(int command, const int (&data)[4]);

// A number as the byte that goes on the wire (only the low eight bits can).
std::uint8_t wireByte(int value);

// The address word, then each data byte and the check byte as their own words.
std::string commandWords(std::uint8_t command, const int (&data)[4], int check);

}  // namespace kestrix::mdb::payment
