#pragma once

namespace kestrix {

class Setup;

namespace mdb {

// Resets and reads the coin changer, publishes its coin values and tube status. False when the
// changer does not answer (its RESET, or a command after it within its attempts).
bool initChanger(Setup& setup);

// Resets and reads the bill validator. False when it does not answer.
bool initValidator(Setup& setup);

}  // namespace mdb
}  // namespace kestrix
