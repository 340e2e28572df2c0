#pragma once

#include <array>
#include <optional>

#include "../money.h"
#include "numbering.h"

namespace kestrix {

class Setup;
class MdbLink;

namespace mdb {

struct LinkUse;

// Coins in the tube of each console coin type (1..16), as TUBE STATUS reports them; index 0 is
// unused.
using TubeCounts = NumberedFromOne<int, kCoinTypes>;

// Reads the changer's tube status with `use`. A changer may answer with a bare acknowledgement
// (right after a reset) or with a reply that cannot be read (a wrong check byte, garbage on the
// line): it is asked again, up to kDeviceAttempts times. None when no readable status came.
std::optional<TubeCounts> readTubeStatus(Setup& setup, const LinkUse& use);

// The money the counts stand for, at the changer's coin values.
Money tubeMoney(const Setup& setup, const TubeCounts& counts);

// Shows and publishes a tube status: the counts, each tube slot's quantity (console and the
// "tubeCoinQty" settings; of two coin types of one value the higher is written last) and the
// tube money (console "tubesAmount" and the mailbox's "Tubes").
void publishTubes(Setup& setup, const TubeCounts& counts);

// Publishes empty tubes (a changer without its coin cassette cannot pay from them).
void publishNoTubes(Setup& setup);

}  // namespace mdb
}  // namespace kestrix
