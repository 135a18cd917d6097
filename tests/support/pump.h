// Runs an engine's reactor from a test thread, step by step, while the test
// waits for something to happen.
#pragma once

#include <ace/Time_Value.h>

#include <functional>

namespace Tarnwick {
class Engine;
}

namespace TarnwickTest {

// The time of day.
ACE_Time_Value now();

void sleepMicroseconds(int microseconds);

// Runs reactor steps of `engine` (while it has a reactor) until `done` says
// yes, for at most `ms` milliseconds; whether `done` said yes.
bool pumpUntil(Tarnwick::Engine* engine, const std::function<bool()>& done, int ms = 5000);

// Runs reactor steps of `engine` for `ms` milliseconds.
void pumpFor(Tarnwick::Engine* engine, int ms);

}  // namespace TarnwickTest
