#include "pump.h"

#include <tarnwick/engine.h>

#include <ace/OS_NS_sys_time.h>
#include <ace/OS_NS_unistd.h>

namespace TarnwickTest {

ACE_Time_Value now() {
    return ACE_OS::gettimeofday();
}

void sleepMicroseconds(int microseconds) {
    ACE_OS::sleep(ACE_Time_Value(0, microseconds));
}

bool pumpUntil(Tarnwick::Engine* engine, const std::function<bool()>& done, int ms) {
    ACE_Time_Value const deadline = now() + ACE_Time_Value(ms / 1000, (ms % 1000) * 1000);
    for (;;) {
        if (done())
            return true;
        if (now() > deadline)
            return false;
        if (engine->getReactor() != nullptr)
            engine->run_step();
        sleepMicroseconds(200);
    }
}

void pumpFor(Tarnwick::Engine* engine, int ms) {
    pumpUntil(
        engine, [] { return false; }, ms);
}

}  // namespace TarnwickTest
