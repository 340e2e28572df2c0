#pragma once

#include <string_view>

// The engine's own account of where its time goes, for the benchmarks (bench/). With
// KSX_TIMING_TRACE=FILE in the environment, the Qt adapters write one line per event to FILE,
// written out when the process ends (fields separated by tabs):
//
//   <seconds> P <pause seconds>       a Pause begins (as asked, before the sleep)
//   <seconds> A <timer> <interval ms>  a timer (re)starts: its next tick is one interval away
//   <seconds> D <timer>                a timer stops
//   <seconds> K <timer>                a tick's handler begins
//   <seconds> k <timer>                a tick comes while its handler still runs: skipped
//   <seconds> Y / y                    a yielding wait begins / ends
//   <seconds> W <port> <bytes>         bytes written to a serial port
//   <seconds> R <port> <bytes>         a read of a serial port returns (0: nothing came)
//   <seconds> S <section>/<key> <value>  a store write has been made
//   <seconds> U                         the engine has loaded and initialised its devices
//
// Seconds are on the steady clock's own scale (the system's monotonic clock), so the lines line
// up with the simulator's wire record. Without the variable nothing is recorded and each call
// costs one test.
namespace kestrix::qt::timing {

bool enabled();
void record(char kind, std::string_view first = {}, std::string_view second = {});
void record(char kind, std::string_view first, double number);

}  // namespace kestrix::qt::timing
