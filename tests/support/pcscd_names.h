#pragma once

namespace tez::pcscd {}

namespace tez::test {

// The daemon's core and the simulated service are what most tests talk about.
using namespace pcscd;

}  // namespace tez::test
