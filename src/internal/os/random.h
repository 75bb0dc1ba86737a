// Operating-system side of the random family (src/posix/random.cpp).
#pragma once

#include <cstddef>

namespace kz::os {

// Entropy for seeding: passes pieces that differ from process to process and
// run to run to feed, each non-empty: kernel random bytes, clock readings,
// wall time, process, parent and thread ids, user ids, the C runtime's random
// bytes, the environment block's address and every environment string. May
// change errno: the caller keeps its error state.
using EntropyFeed = void (*)(void *argument, const void *bytes, size_t length);
void GatherEntropy(EntropyFeed feed, void *argument);

}  // namespace kz::os
